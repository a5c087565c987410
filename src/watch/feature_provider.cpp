#include "watch/feature_provider.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "foundation/clock_value.h"
#include "watch/clock.h"

namespace {

constexpr int64_t NANOSECONDS_PER_SECOND = 1000000000;

// earlier gives the earlier of two instants, of which `first` may be 0 for none.
int64_t earlier(int64_t first, int64_t second) {
    return first == 0 ? second : std::min(first, second);
}

}  // namespace

FeatureProvider::FeatureProvider()
    : m_aSources{FeatureSource("/etc/orvanta/features.json", "installed"),
                 FeatureSource("/var/lib/orvanta/features.jws", "granted", "/etc/orvanta/features.pem")} {}

void FeatureProvider::init(int64_t now) {
    for (FeatureSource& source : m_aSources)
        source.drop();
    judge(now);
}

std::string FeatureProvider::inputPath(int inputId) const {
    return m_aSources[inputId].path();
}

bool FeatureProvider::dropInput(int inputId) {
    FeatureSource& source = m_aSources[inputId];
    source.drop();
    return !source.fileExists() && judge(currentSeconds());
}

bool FeatureProvider::loadInput(int inputId) {
    m_aSources[inputId].load();
    return judge(currentSeconds());
}

bool FeatureProvider::recheckAll(int64_t now) {
    for (FeatureSource& source : m_aSources)
        if (source.fileChanged())
            source.load();
    return judge(now);
}

int64_t FeatureProvider::writeFeatures(int64_t now, std::ostream& stream) const {
    const FeatureList list = listAt(now);
    const JSON::root document = JSON::Object();
    document->set("checkDate", JSON::String(svg::UTCClockValue(now * NANOSECONDS_PER_SECOND).get_as_iso8601_date()));
    JSON* entries = document->set("features", JSON::Array());
    for (const Feature* feature : list.features)
        entries->push(feature->entry->dup());
    std::string text;
    document->stringify(text, 0);
    stream << text << '\n';
    return list.next;
}

std::vector<std::string> FeatureProvider::activeFeatureNames() const {
    return m_oJudged.names;
}

// judge makes the list anew for `now`, keeps it, and tells whether it, or the instant at which it changes, differs.
bool FeatureProvider::judge(int64_t now) {
    const FeatureList list = listAt(now);
    Judgement judgement;
    for (const Feature* feature : list.features) {
        judgement.names.push_back(feature->name);
        feature->entry->stringify(judgement.entries, -1);
    }
    judgement.next = list.next;
    const bool changed = judgement.entries != m_oJudged.entries || judgement.next != m_oJudged.next;
    m_oJudged = std::move(judgement);
    return changed;
}

// listAt walks all entries by rank. The entry that stands for a name gives way when its time ends, or when one of
// higher rank begins; entries of lower rank can't change the list before that.
FeatureProvider::FeatureList FeatureProvider::listAt(int64_t now) const {
    FeatureList list;
    std::map<std::string_view, const Feature*> standing;
    for (const FeatureSource& source : m_aSources) {
        for (const Feature& feature : source.features()) {
            if (standing.contains(feature.name))
                continue;
            if (feature.startsAfter(now))
                list.next = earlier(list.next, feature.validFrom);
            if (!feature.isActive(now))
                continue;
            standing.emplace(feature.name, &feature);
            if (feature.ends())
                list.next = earlier(list.next, feature.validUntil);
        }
    }
    for (const auto& [name, feature] : standing)
        list.features.push_back(feature);
    return list;
}
