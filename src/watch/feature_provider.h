// feature_provider.h: the owner of the device's feature list.
//
// The features come from two inputs: what the appliance's maker or administrator installed (0), and what was granted to
// this device in a signed document (1). The list holds one entry per name: of the entries of that name that are active
// at the moment, one of input 0 goes before one of input 1, and within an input the first counts. The list is ordered
// by the bytes of the names.
//
// `now` and every instant are whole seconds since the Unix epoch. All calls come from one thread. A failure in an input
// is logged where it is met; the callers learn only whether the list changed.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "watch/feature_source.h"

// FeatureProvider keeps the list as it was last judged, members included, and the instant at which that list will
// change by itself. Judging makes both again for the present moment and returns whether either differs: the instant
// counts too, because only a publication arms the loop's timer for it.
class FeatureProvider {
public:
    // INPUT_COUNT is the number of inputs; their ids are 0 and 1.
    static constexpr int INPUT_COUNT = 2;

    // FeatureProvider represents the inputs and has read neither yet.
    FeatureProvider();

    // init empties the list; it comes before any other call.
    void init(int64_t now);

    // inputPath returns the path of an input; an empty one would mean that the input isn't in use.
    std::string inputPath(int inputId) const;

    // dropInput forgets what came from an input. If its file is gone it judges and returns whether the list changed. If
    // the file is still there it returns false: a file renamed over another is reported as two events, and no document
    // without the input's features may come between them. The file is read again by `loadInput`, or by whatever judges
    // first.
    bool dropInput(int inputId);

    // loadInput reads an input's file, judges and returns whether the list changed.
    bool loadInput(int inputId);

    // recheckAll reads again each input whose file is no longer the one last read or could not be read, judges for
    // `now` and returns whether the list changed. It finds changes that no event reported.
    bool recheckAll(int64_t now);

    // writeFeatures writes the features document for `now` and its newline to `stream`. It returns the next instant at
    // which the list written would change by itself, 0 if it never does.
    int64_t writeFeatures(int64_t now, std::ostream& stream) const;

    // activeFeatureNames returns the names of the list as last judged, in the document's order.
    std::vector<std::string> activeFeatureNames() const;

private:
    // FeatureList is the list from one moment on until the instant `next`, or for good if that is 0. It points to what
    // the sources hold, so it is gone as soon as one of them reads or drops its file.
    struct FeatureList {
        std::vector<const Feature*> features;
        int64_t from = 0;
        int64_t next = 0;

        bool holdsAt(int64_t now) const { return from <= now && (next == 0 || now < next); }
    };

    // Judgement is what distinguishes one list from another.
    struct Judgement {
        std::vector<std::string> names;
        std::string entries;
        int64_t next = 0;
    };

    void load(FeatureSource& source);
    void drop(FeatureSource& source);
    FeatureList listAt(int64_t now) const;
    FeatureList makeList(int64_t now) const;
    std::vector<const Feature*> entriesByName(int64_t now) const;
    bool judge(int64_t now);
    bool judgeNow();

    std::array<FeatureSource, INPUT_COUNT> m_aSources;
    std::optional<FeatureList> m_oList;  // as last judged
    Judgement m_oJudged;
};
