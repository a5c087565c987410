// feature_source.h: one input file of the feature provider.
//
// The file is a JSON object with a list of features and, where the file is meant for one device only, its serial
// number:
//
//     { "serial": "0000abcd",
//       "features": [ { "name": "video-wall", "params": { "outputs": 4 },
//                       "validFrom": "2026-01-01T00:00:00Z",
//                       "validUntil": "2027-01-01T00:00:00Z" } ] }
//
// A file of granted features is a grant (grant.h) with that object as its payload. It must name this device: `serial`
// is required there.
//
// Otherwise `serial`, `validFrom`, `validUntil` and `params` are optional; unknown members are ignored. An entry that
// breaks the form is left out with a WARN that names the file, the entry's index and the reason, and the others are
// taken. After twenty such records of one reading a last one says how many more were left out.
//
// A file that can't be used counts as empty, with one ERROR that names it and the reason; a missing file is not a
// fault. Nothing of a file's content is logged.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "foundation/json.h"
#include "watch/whole_file.h"

// Feature is one entry of an input, good from `validFrom` on and until just before `validUntil`, both in whole seconds
// since the Unix epoch.
struct Feature {
    std::string name;
    int64_t validFrom = std::numeric_limits<int64_t>::min();
    int64_t validUntil = std::numeric_limits<int64_t>::max();

    // text is the entry as the features document shows it, from brace to brace. It is made once, when the file is read,
    // because each look at the list compares it.
    std::string text;

    // isActive returns whether the feature is good at `now`.
    bool isActive(int64_t now) const { return validFrom <= now && now < validUntil; }

    // startsAfter returns whether the feature begins after `now`; one that ends before it begins never does.
    bool startsAfter(int64_t now) const { return now < validFrom && validFrom < validUntil; }

    // ends returns whether the feature has an end.
    bool ends() const { return validUntil != std::numeric_limits<int64_t>::max(); }
};

// FeatureSource reads one input file. It belongs to one thread.
class FeatureSource {
public:
    // FeatureSource represents the file at `path`, whose features carry `label` as their source. An empty path means
    // that the input isn't in use: it never has features.
    FeatureSource(const std::string& path, const std::string& label);

    // FeatureSource with a `keyPath` represents a file of granted features, verified with the public key in that PEM
    // file, which is read at each load.
    FeatureSource(const std::string& path, const std::string& label, const std::string& keyPath);

    // path returns the file's path.
    const std::string& path() const { return m_strPath; }

    // features returns what was read last, in the file's order.
    const std::vector<Feature>& features() const { return m_aFeatures; }

    // reset forgets everything, as if nothing had ever been read.
    void reset();

    // load reads the file.
    void load();

    // drop forgets what was read.
    void drop();

    // wasDropped returns whether the input was dropped and has not been read since.
    bool wasDropped() const { return m_bDropped; }

    // fileExists returns whether the file is there now. One that can't be looked at counts as there.
    bool fileExists() const;

    // fileChanged returns whether the file, or the key's, isn't the one that was read last: replaced, written to,
    // appeared, gone, dropped and still there, or not read because of a fault that may pass, such as a serial number
    // that isn't known yet. The ERROR of such a fault is not repeated while reason and files stay the same.
    bool fileChanged() const;

private:
    // FileState distinguishes one state of a file from another; an absent file is all zero.
    struct FileState {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        int64_t modifiedSeconds = 0;
        int64_t modifiedNanoseconds = 0;

        bool operator==(const FileState&) const = default;
    };

    // Report is the last ERROR: its reason, and the files that it was about.
    struct Report {
        std::string reason;
        FileState file;
        FileState key;

        bool operator==(const Report&) const = default;
    };

    static FileState stateOf(const std::string& path);
    void forget();
    bool isGrant() const { return !m_strKeyPath.empty(); }
    std::optional<Refusal> readDocument();
    std::optional<Refusal> takeDocument(JSON& document);
    void takeFeatures(JSON& list);
    void report(const std::optional<Refusal>& refusal);

    std::string m_strPath;
    std::string m_strLabel;
    std::string m_strKeyPath;
    std::vector<Feature> m_aFeatures;
    FileState m_oLoadedState;
    FileState m_oLoadedKeyState;
    bool m_bDropped = false;
    bool m_bTryAgain = false;
    Report m_oReported;
};
