#include "agent/device_report.h"

#include <glib.h>

#include <cerrno>
#include <iostream>

#include "agent/attestation_context.h"
#include "foundation/json.h"
#include "identity/orv_serial.h"
#include "watch/program.h"

namespace {

void setIdentifier(JSON& identifiers, const char* key, bool present, const std::string& value) {
    if (present)
        identifiers.set(key, JSON::String(value));
}

JSON::root otherIdentifiers() {
    JSON::root identifiers = JSON::Object();
    setIdentifier(*identifiers, "userSerial", ORVSerial::ms_bHasUserSerialNumber, ORVSerial::ms_strUserSerialNumber);
    setIdentifier(*identifiers, "boardSerial", ORVSerial::ms_bHasBoardSerialNumber, ORVSerial::ms_strBoardSerialNumber);
    setIdentifier(*identifiers, "systemSerial", ORVSerial::ms_bHasSystemSerialNumber,
                  ORVSerial::ms_strSystemSerialNumber);
    setIdentifier(*identifiers, "chassisSerial", ORVSerial::ms_bHasChassisSerialNumber,
                  ORVSerial::ms_strChassisSerialNumber);
    return identifiers;
}

bool loadIdentifiers() {
    if (ORVSerial::load() && ORVSerial::ms_bHasSerialNumber)
        return true;
    ORVLOG_ERROR(gs_pAppLogger, "failed to load serial number");
    return false;
}

bool print(const JSON& report) {
    std::string text;
    report.stringify(text, 0);
    std::cout << text << '\n' << std::flush;
    if (std::cout)
        return true;
    ORVLOG_ERROR(gs_pAppLogger, "failed to write the device report: %s", g_strerror(errno));
    return false;
}

}  // namespace

bool printDeviceInfo(const char* attestationFile) {
    AttestationContext context;
    if (attestationFile != nullptr && !context.parseFile(attestationFile))
        return false;
    if (!loadIdentifiers())
        return false;
    const JSON::root report = JSON::Object();
    report->set("serial", JSON::String(ORVSerial::ms_strSerialNumber));
    report->set("altSerial", otherIdentifiers());
    if (!context.cbData.empty())
        report->set("cbData", JSON::String(context.cbData));
    return print(*report);
}
