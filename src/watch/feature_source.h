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
// A file of granted features is a JWS in compact form (RFC 7515, section 3.1) around that object, good only if it is
// signed with the key that the appliance trusts and names this device: `serial` must be there. The key's kind alone
// decides on the algorithm: ES256, ES384 or RS256.
//
// Apart from that `serial`, `validFrom`, `validUntil` and `params` are optional, unknown members are ignored. An entry
// that breaks the form is left out with a WARN that names the file, the entry's index and the reason; the others stand.
// A file that can't be used counts as empty, with one ERROR that names it and the reason; a missing file is no fault.
// Nothing of a file's content is logged beyond feature names.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "foundation/json.h"

// Feature is one entry of an input, good from `validFrom` on and until just before `validUntil`, both in whole seconds
// since the Unix epoch.
struct Feature {
    std::string name;
    int64_t validFrom = std::numeric_limits<int64_t>::min();
    int64_t validUntil = std::numeric_limits<int64_t>::max();

    // entry is the feature as the features document shows it.
    JSON::root entry;

    // isActive tells whether it is good at `now`, startsAfter whether it ever will be from a later instant on, ends
    // whether it has an end.
    bool isActive(int64_t now) const { return validFrom <= now && now < validUntil; }
    bool startsAfter(int64_t now) const { return now < validFrom && validFrom < validUntil; }
    bool ends() const { return validUntil != std::numeric_limits<int64_t>::max(); }
};

// FeatureSource reads one input file. It belongs to one thread.
class FeatureSource {
public:
    // FeatureSource stands for the file at `path`, whose features carry `label` as their source. An empty path means
    // that the input isn't in use: it never has features.
    FeatureSource(const std::string& path, const std::string& label);

    // FeatureSource with a `keyPath` stands for a file of granted features, verified with the public key in that PEM
    // file, which is read at each load.
    FeatureSource(const std::string& path, const std::string& label, const std::string& keyPath);

    // path gives the file's path.
    const std::string& path() const { return m_strPath; }

    // features gives what was read last, in the file's order.
    const std::vector<Feature>& features() const { return m_aFeatures; }

    // load reads the file.
    void load();

    // drop forgets what was read.
    void drop();

    // fileExists tells whether the file is there now.
    bool fileExists() const;

    // fileChanged tells whether the file, or the key's, is another one than was read last: replaced, written to,
    // appeared, gone, or dropped and still there.
    bool fileChanged() const;

private:
    // FileState tells one state of the file from another; an absent file is all zero.
    struct FileState {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        int64_t modifiedSeconds = 0;
        int64_t modifiedNanoseconds = 0;

        bool operator==(const FileState&) const = default;
    };

    static FileState stateOf(const std::string& path);
    bool isGrant() const { return !m_strKeyPath.empty(); }
    std::string readDocument(FILE* file);
    std::string takeDocument(JSON& document);
    void takeFeatures(JSON& list);

    std::string m_strPath;
    std::string m_strLabel;
    std::string m_strKeyPath;
    std::vector<Feature> m_aFeatures;
    FileState m_oLoadedState;
    FileState m_oLoadedKeyState;
};
