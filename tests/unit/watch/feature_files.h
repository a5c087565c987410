// feature_files.h: the files of the device's features, at their real places. Tests with them run in the sandbox.
#pragma once

#include <filesystem>
#include <string>

#include "unit/record_collector.h"
#include "unit/watch/grant_signer.h"

inline const std::string INSTALLED = "/etc/orvanta/features.json";
inline const std::string GRANT = "/var/lib/orvanta/features.jws";
inline const std::string KEY = "/etc/orvanta/features.pem";

// putInstalled writes the installed features in place, `entries` being the texts in their list.
inline void putInstalled(const std::string& entries) {
    TempFolder::writeTo(INSTALLED, R"({"features":[)" + entries + "]}");
}

// putGrant writes a grant for the sandbox's device and the key that signed it.
inline void putGrant(const std::string& entries) {
    TempFolder::writeTo(KEY, signer::publicPEM(signer::keyOf("P-256")));
    TempFolder::writeTo(GRANT, signer::grant(R"({"serial":"0000abcd","features":[)" + entries + "]}"));
}

inline void removeFeatureFiles() {
    for (const std::string& path : {INSTALLED, GRANT, KEY})
        std::filesystem::remove_all(path);
}
