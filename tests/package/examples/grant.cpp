// grant.cpp: tells which features a signed document grants to this device.
#include <orvanta/foundation/json.h>
#include <orvanta/identity/orv_serial.h>
#include <orvanta/jose/jwa.h>
#include <orvanta/jose/jws.h>
#include <orvanta/runtime/orv_error.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

// readText returns the file's text without its last line break.
static std::string readText(const char* path) {
    std::ifstream file(path);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

int main() try {
    ORVSerial::load();
    if (!ORVSerial::ms_bHasSerialNumber) {
        std::fputs("this device has no serial number\n", stderr);
        return 1;
    }

    jwa::Key key;
    key.loadPublicKey(jwa::ES256, "/etc/orvanta/features.pem");

    // The key decides on the algorithm, never the document.
    JSON::root header, payload;
    if (!jws::verify(readText("/var/lib/orvanta/features.jws"), header, payload, key)) {
        std::fputs("the grant's signature is bad\n", stderr);
        return 1;
    }
    const std::string* serial = jsonText(payload->get("serial"));
    if (!serial || *serial != ORVSerial::ms_strSerialNumber) {
        std::fputs("the grant is for another device\n", stderr);
        return 1;
    }
    std::printf("granted to %s:\n", serial->c_str());
    if (const JSON* features = payload->get("features"))
        for (const JSON::root& feature : features->values())
            if (const std::string* name = jsonText(feature->get("name")))
                std::printf("%s\n", name->c_str());
    return 0;
} catch (const ORVError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
