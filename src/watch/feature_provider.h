// feature_provider.h: the owner of the device's feature list.
//
// The features come from two inputs: what the appliance's maker or administrator installed (0), and what was granted to
// this device in a signed document (1). The list holds one entry per name: among the entries of that name that are
// active at the moment, input 0 stands before input 1, and within an input the first. It is ordered by the bytes of the
// names.
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
// change by itself. Judging makes both anew for the present moment and tells whether either differs: the instant counts
// too, since only a publication arms the loop's timer for it.
class FeatureProvider {
public:
    // FeatureProvider stands for the two inputs and has read none yet.
    FeatureProvider();

    // init empties the list; it comes before any other call.
    void init(int64_t now);

    // inputPath gives the path of input 0 or 1; an empty one would mean that the input isn't in use.
    std::string inputPath(int inputId) const;

    // dropInput forgets what came from an input. If its file is gone it judges and tells whether the list changed. If
    // the file is still there it answers false: a file renamed over another is told as two events, and no document
    // without the input's features may come between them; the next `loadInput` or `recheckAll` reads the file.
    bool dropInput(int inputId);

    // loadInput reads an input's file, judges and tells whether the list changed.
    bool loadInput(int inputId);

    // recheckAll reads each input again whose file isn't the one that was read, judges for `now` and tells whether the
    // list changed. So a change that no event told is found at the next evaluation.
    bool recheckAll(int64_t now);

    // writeFeatures writes the features document for `now` and its newline to `stream`. The result is the next instant
    // at which the list written would change by itself, 0 if there is none.
    int64_t writeFeatures(int64_t now, std::ostream& stream) const;

    // activeFeatureNames gives the names of the list as last judged, in the document's order.
    std::vector<std::string> activeFeatureNames() const;

private:
    // FeatureList is the list at one moment.
    struct FeatureList {
        std::vector<const Feature*> features;
        int64_t next = 0;
    };

    // Judgement is what one list is told from another by.
    struct Judgement {
        std::vector<std::string> names;
        std::string entries;
        int64_t next = 0;
    };

    FeatureList listAt(int64_t now) const;
    bool judge(int64_t now);

    std::array<FeatureSource, 2> m_aSources;
    Judgement m_oJudged;
};
