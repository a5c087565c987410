// feature_list_model.h: entries for tests, and a slow model of what becomes of them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "foundation/clock_value.h"

// iso returns an instant, in seconds since the epoch, as inputs and documents write it.
inline std::string iso(int64_t seconds) {
    return svg::UTCClockValue(seconds * 1'000'000'000).get_as_iso8601_date();
}

// window returns an entry with bounds in seconds since the epoch; -1 leaves a bound out.
inline std::string window(const std::string& name, int64_t from, int64_t until, const std::string& params = "") {
    std::string text = R"({"name":")" + name + "\"";
    if (from != -1) {
        text += R"(,"validFrom":")" + iso(from) + "\"";
    }
    if (until != -1) {
        text += R"(,"validUntil":")" + iso(until) + "\"";
    }
    if (!params.empty()) {
        text += R"(,"params":)" + params;
    }
    return text + "}";
}

// FeatureListModel is the list of installed features judged by brute force: slow, and plain to see.
class FeatureListModel {
public:
    struct Entry {
        std::string name;
        int64_t from;
        int64_t until;
        std::string params;
    };
    using List = std::map<std::string, const Entry*>;

    std::vector<Entry> entries;

    std::string input() const {
        std::string text;
        for (const Entry& entry : entries) {
            text += (text.empty() ? "" : ",") + window(entry.name, entry.from, entry.until, entry.params);
        }
        return text;
    }

    List listAt(int64_t now) const {
        List list;
        for (const Entry& entry : entries) {
            if (entry.from <= now && (entry.until == -1 || now < entry.until)) {
                list.emplace(entry.name, &entry);
            }
        }
        return list;
    }

    static std::string show(const List& list) {
        std::string text;
        for (const auto& [name, entry] : list) {
            text += text.empty() ? "\n" : ",\n";
            text += "\t\t{\n\t\t\t\"name\": \"" + name + "\",\n";
            text += entry->params.empty() ? "" : "\t\t\t\"params\": { },\n";
            text += "\t\t\t\"source\": \"installed\"";
            text += entry->from == -1 ? "" : ",\n\t\t\t\"validFrom\": \"" + iso(entry->from) + "\"";
            text += entry->until == -1 ? "" : ",\n\t\t\t\"validUntil\": \"" + iso(entry->until) + "\"";
            text += "\n\t\t}";
        }
        return text.empty() ? "[ ]" : "[" + text + "\n\t]";
    }

    static std::string documentOf(int64_t now, const List& list) {
        return "{\n\t\"checkDate\": \"" + iso(now) + "\",\n\t\"features\": " + show(list) + "\n}\n";
    }

    int64_t next(int64_t now) const {
        std::set<int64_t> candidates;
        for (const Entry& entry : entries) {
            candidates.insert(entry.from);
            candidates.insert(entry.until);
        }
        const std::string shown = show(listAt(now));
        for (auto at = candidates.upper_bound(now); at != candidates.end(); ++at) {
            if (show(listAt(*at)) != shown) {
                return *at;
            }
        }
        return 0;
    }
};

// randomModel returns a short list of few names with many windows that touch and overlap.
inline FeatureListModel randomModel(std::mt19937& random) {
    const auto bound = [&] { return random() % 4 == 0 ? -1 : static_cast<int64_t>(1 + random() % 14); };
    FeatureListModel model;
    for (size_t count = random() % 8; count > 0; count--) {
        const std::string name(1, static_cast<char>('a' + random() % 3));
        const int64_t from = bound();
        const int64_t until = bound();
        model.entries.push_back({name, from, until, random() % 2 ? "{}" : ""});
    }
    std::shuffle(model.entries.begin(), model.entries.end(), random);
    return model;
}
