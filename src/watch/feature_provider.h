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

    // recheckAll reads each input again whose file isn't the one that was read, judges for `now` and returns whether
    // the list changed. So a change that no event reported is found at the next evaluation.
    bool recheckAll(int64_t now);

    // writeFeatures writes the features document for `now` and its newline to `stream`. It returns the next instant at
    // which the list written would change by itself, 0 if it never does.
    int64_t writeFeatures(int64_t now, std::ostream& stream) const;

    // activeFeatureNames returns the names of the list as last judged, in the document's order.
    std::vector<std::string> activeFeatureNames() const;

private:
    // FeatureList is the list at one moment.
    struct FeatureList {
        std::vector<const Feature*> features;
        int64_t next = 0;
    };

    // Judgement is what distinguishes one list from another.
    struct Judgement {
        std::vector<std::string> names;
        std::string entries;
        int64_t next = 0;
    };

    FeatureList listAt(int64_t now) const;
    bool judge(int64_t now);
    bool judgeNow();

    std::array<FeatureSource, INPUT_COUNT> m_aSources;
    Judgement m_oJudged;
};
