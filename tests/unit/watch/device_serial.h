// device_serial.h: the serial number of the device in tests, whatever machine they run on.
//
// The one source of a test program that includes this replaces fopen: the machine's own identifiers are not there.
#pragma once

#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "identity/orv_serial.h"

extern "C" FILE* fopen(const char* path, const char* mode) {
    if (path == std::string("/proc/cpuinfo") || path == std::string("/etc/orvanta/identifiers")) {
        errno = ENOENT;
        return nullptr;
    }
    return reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"))(path, mode);
}

// setSerial makes `serial` the device's serial number.
inline void setSerial(const std::string& serial) {
    ORVSerial::ms_strSerialNumber = serial;
    ORVSerial::ms_bHasSerialNumber = true;
    ORVSerial::ms_bLoaded = true;
}

// clearSerial makes the device one without a serial number.
inline void clearSerial() {
    ORVSerial::load();
}
