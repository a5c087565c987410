#include "watch/feature_provider.h"

#include <algorithm>
#include <utility>

#include "foundation/clock_value.h"
#include "watch/clock.h"

namespace {

constexpr int64_t NANOSECONDS_PER_SECOND = 1000000000;

// earlier returns the earlier of two instants; `first` is 0 if there is only the second.
int64_t earlier(int64_t first, int64_t second) {
    return first == 0 ? second : std::min(first, second);
}

// textSize returns the length of all entries' texts together. Room is made for it first, because a string that grows
// takes up to twice its size.
size_t textSize(const std::vector<const Feature*>& features) {
    size_t size = 0;
    for (const Feature* feature : features)
        size += feature->text.size();
    return size;
}

}  // namespace

FeatureProvider::FeatureProvider()
    : m_aSources{FeatureSource("/etc/orvanta/features.json", "installed"),
                 FeatureSource("/var/lib/orvanta/features.jws", "granted", "/etc/orvanta/features.pem")} {}

void FeatureProvider::init(int64_t now) {
    m_oList.reset();
    for (FeatureSource& source : m_aSources)
        source.reset();
    judge(now);
}

std::string FeatureProvider::inputPath(int inputId) const {
    return m_aSources[inputId].path();
}

bool FeatureProvider::dropInput(int inputId) {
    FeatureSource& source = m_aSources[inputId];
    drop(source);
    return !source.fileExists() && judgeNow();
}

bool FeatureProvider::loadInput(int inputId) {
    load(m_aSources[inputId]);
    return judgeNow();
}

bool FeatureProvider::recheckAll(int64_t now) {
    for (FeatureSource& source : m_aSources)
        if (source.fileChanged())
            load(source);
    return judge(now);
}

void FeatureProvider::load(FeatureSource& source) {
    m_oList.reset();
    source.load();
}

void FeatureProvider::drop(FeatureSource& source) {
    m_oList.reset();
    source.drop();
}

// writeFeatures puts the document together from the texts of its entries, in the form that JSON::stringify prints.
int64_t FeatureProvider::writeFeatures(int64_t now, std::ostream& stream) const {
    const FeatureList list = listAt(now);
    const std::string date = svg::UTCClockValue(now * NANOSECONDS_PER_SECOND).get_as_iso8601_date();
    std::string text;
    text.reserve(64 + 4 * list.features.size() + textSize(list.features));  // the frame, the separators, the entries
    text.append("{\n\t\"checkDate\": \"").append(date).append("\",\n\t\"features\": [");
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
            load(source);
    return judge(currentSeconds());
}

// judge makes the list again for `now`, keeps it, and returns whether it, or the instant at which it changes, differs.
bool FeatureProvider::judge(int64_t now) {
    if (m_oList && m_oList->holdsAt(now))
        return false;
    m_oList = makeList(now);
    Judgement judgement;
    judgement.names.reserve(m_oList->features.size());
    judgement.entries.reserve(textSize(m_oList->features));
    for (const Feature* feature : m_oList->features) {
        judgement.names.push_back(feature->name);
        judgement.entries += feature->text;
    }
    judgement.next = m_oList->next;
    const bool changed = judgement.entries != m_oJudged.entries || judgement.next != m_oJudged.next;
    m_oJudged = std::move(judgement);
    return changed;
}

// listAt returns the list at `now`, which most often is the one last judged.
FeatureProvider::FeatureList FeatureProvider::listAt(int64_t now) const {
    return m_oList && m_oList->holdsAt(now) ? *m_oList : makeList(now);
}

// entriesByName returns the entries that are active at `now` or will be, ordered by name and those of one name by rank.
std::vector<const Feature*> FeatureProvider::entriesByName(int64_t now) const {
    std::vector<const Feature*> entries;
    for (const FeatureSource& source : m_aSources)
        for (const Feature& feature : source.features())
            if (feature.isActive(now) || feature.startsAfter(now))
                entries.push_back(&feature);
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Feature* one, const Feature* other) { return one->name < other->name; });
    return entries;
}

// makeList lists the first active entry of each name. It gives way when its time ends, or when one of higher rank
// begins; entries of lower rank can't change the list before that.
FeatureProvider::FeatureList FeatureProvider::makeList(int64_t now) const {
    FeatureList list{{}, now, 0};
    for (const Feature* entry : entriesByName(now)) {
        const bool isListed = !list.features.empty() && list.features.back()->name == entry->name;
        if (isListed)
            continue;
        if (!entry->isActive(now)) {
            list.next = earlier(list.next, entry->validFrom);
            continue;
        }
        list.features.push_back(entry);
        if (entry->ends())
            list.next = earlier(list.next, entry->validUntil);
    }
    return list;
}
