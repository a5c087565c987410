// orv_serial.h: the identifiers of this device.
//
// They come from the kernel's /proc/cpuinfo and from the appliance's own file /etc/orvanta/identifiers, a list of lines
// `KEY=value` in the manner of a shell variable file. Reading is all that is done here; nothing is judged or logged.
#pragma once

#include <string>

// ORVSerial holds the one set of identifiers of the process. Each is a text and a flag that is true exactly when a
// source supplied the text; callers test the flag, because a text without a source is only a placeholder. Before the
// first `load` all texts are empty and all flags false.
//
// The members are not protected: `load` is called on the main thread, and readers come after it has returned.
class ORVSerial {
public:
    ORVSerial() = delete;

    // load forgets everything, a name set by `setActiveNetIface` included, puts the placeholders in place and reads
    // both sources, the second even if the first failed. It returns true if both were read without a fault. After false
    // the members hold what could be read.
    static bool load();

    // loadCpuInfo reads the lines "Serial" and "Hardware" of /proc/cpuinfo, the last of each. The value is the third
    // word of the line, at most 63 bytes. It returns false if the file cannot be read, or if such a line has no value.
    static bool loadCpuInfo();

    // loadOrvantaIdentifiers reads /etc/orvanta/identifiers. It sets only what has no source yet, so that the kernel's
    // values win, and among the lines the first. Values may be in single or double quotes, without escapes; lines
    // that begin with "#" and unknown keys are ignored. A line of 128 bytes or more counts as several, and one with a
    // NUL byte ends there. It returns true if there is no file, and false if it cannot be read, isn't a regular file
    // or has a malformed line; the other lines count all the same.
    static bool loadOrvantaIdentifiers();

    // setActiveNetIface sets the name of the network interface in use, until the next `load`.
    static void setActiveNetIface(const std::string& name);

    // ms_bLoaded is true once `load` has run.
    static bool ms_bLoaded;

    // ms_strSerialNumber is cpuinfo's `Serial` or else the file's `ORV_SN`; without a source "[not defined]".
    static std::string ms_strSerialNumber;
    static bool ms_bHasSerialNumber;

    // ms_strDeviceType is cpuinfo's `Hardware` or else the file's `ORV_HW_TYPE`; without a source "[not defined]".
    static std::string ms_strDeviceType;
    static bool ms_bHasDeviceType;

    // ms_strUserSerialNumber is the file's `ORV_USER_SN`; without a source "[not defined]".
    static std::string ms_strUserSerialNumber;
    static bool ms_bHasUserSerialNumber;

    // ms_strBoardSerialNumber is the file's `ORV_BOARD_SN`; without a source "[not defined]".
    static std::string ms_strBoardSerialNumber;
    static bool ms_bHasBoardSerialNumber;

    // ms_strSystemSerialNumber is the file's `ORV_SYSTEM_SN`; without a source "[not defined]".
    static std::string ms_strSystemSerialNumber;
    static bool ms_bHasSystemSerialNumber;

    // ms_strChassisSerialNumber is the file's `ORV_CHASSIS_SN`; without a source "[not defined]".
    static std::string ms_strChassisSerialNumber;
    static bool ms_bHasChassisSerialNumber;

    // ms_strMainNetIface is the file's `ORV_MAIN_IFACE_NAME`; without a source "eth0".
    static std::string ms_strMainNetIface;
    static bool ms_bHasMainNetIface;

    // ms_strActiveNetIface is the name given to `setActiveNetIface`; without one "eth0".
    static std::string ms_strActiveNetIface;
    static bool ms_bHasActiveNetIface;
};
