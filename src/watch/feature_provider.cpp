#include "watch/feature_provider.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "foundation/clock_value.h"
#include "watch/clock.h"

namespace {

constexpr int64_t NANOSECONDS_PER_SECOND = 1000000000;

// earlier returns the earlier of two instants; `first` is 0 if there is only the second.
int64_t earlier(int64_t first, int64_t second) {
    return first == 0 ? second : std::min(first, second);
}

}  // namespace

FeatureProvider::FeatureProvider()
    : m_aSources{FeatureSource("/etc/orvanta/features.json", "installed"),
                 FeatureSource("/var/lib/orvanta/features.jws", "granted", "/etc/orvanta/features.pem")} {}

void FeatureProvider::init(int64_t now) {
    for (FeatureSource& source : m_aSources)
        source.reset();
    judge(now);
}

std::string FeatureProvider::inputPath(int inputId) const {
    return m_aSources[inputId].path();
}

bool FeatureProvider::dropInput(int inputId) {
    FeatureSource& source = m_aSources[inputId];
    source.drop();
    return !source.fileExists() && judgeNow();
}

bool FeatureProvider::loadInput(int inputId) {
    m_aSources[inputId].load();
    return judgeNow();
}

bool FeatureProvider::recheckAll(int64_t now) {
    for (FeatureSource& source : m_aSources)
        if (source.fileChanged())
            source.load();
    return judge(now);
}

// writeFeatures puts the document together from the texts of its entries, in the form that JSON::stringify prints.
int64_t FeatureProvider::writeFeatures(int64_t now, std::ostream& stream) const {
    const FeatureList list = listAt(now);
    const std::string date = svg::UTCClockValue(now * NANOSECONDS_PER_SECOND).get_as_iso8601_date();
    std::string text = "{\n\t\"checkDate\": \"" + date + "\",\n\t\"features\": [";
    const char* separator = "\n\t\t";
    for (const Feature* feature : list.features) {
        text.append(separator).append(feature->text);
        separator = ",\n\t\t";
    }
    text += list.features.empty() ? " ]\n}\n" : "\n\t]\n}\n";
    stream << text;
    return list.next;
}

std::vector<std::string> FeatureProvider::activeFeatureNames() const {
    return m_oJudged.names;
}

// judgeNow judges for the present moment. First it reads again what was dropped though its file is still there: the
// second event of a rename over that file is yet to come, and without its features the list would seem to change.
bool FeatureProvider::judgeNow() {
    for (FeatureSource& source : m_aSources)
        if (source.wasDropped() && source.fileExists())
            source.load();
    return judge(currentSeconds());
}

// judge makes the list again for `now`, keeps it, and returns whether it, or the instant at which it changes, differs.
bool FeatureProvider::judge(int64_t now) {
    const FeatureList list = listAt(now);
    Judgement judgement;
    for (const Feature* feature : list.features) {
        judgement.names.push_back(feature->name);
        judgement.entries += feature->text;
    }
    judgement.next = list.next;
    const bool changed = judgement.entries != m_oJudged.entries || judgement.next != m_oJudged.next;
    m_oJudged = std::move(judgement);
    return changed;
}

// listAt walks all entries by rank. The entry listed under a name gives way when its time ends, or when one of higher
// rank begins; entries of lower rank can't change the list before that.
FeatureProvider::FeatureList FeatureProvider::listAt(int64_t now) const {
    FeatureList list;
    std::map<std::string_view, const Feature*> listed;
    for (const FeatureSource& source : m_aSources) {
        for (const Feature& feature : source.features()) {
            if (listed.contains(feature.name))
                continue;
            if (feature.startsAfter(now))
                list.next = earlier(list.next, feature.validFrom);
            if (!feature.isActive(now))
                continue;
            listed.emplace(feature.name, &feature);
            if (feature.ends())
                list.next = earlier(list.next, feature.validUntil);
        }
    }
    for (const auto& [name, feature] : listed)
        list.features.push_back(feature);
    return list;
}
