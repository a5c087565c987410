#include "identity/orv_serial.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "runtime/file_holder.h"

bool ORVSerial::ms_bLoaded = false;
std::string ORVSerial::ms_strSerialNumber;
bool ORVSerial::ms_bHasSerialNumber = false;
std::string ORVSerial::ms_strDeviceType;
bool ORVSerial::ms_bHasDeviceType = false;
std::string ORVSerial::ms_strUserSerialNumber;
bool ORVSerial::ms_bHasUserSerialNumber = false;
std::string ORVSerial::ms_strBoardSerialNumber;
bool ORVSerial::ms_bHasBoardSerialNumber = false;
std::string ORVSerial::ms_strSystemSerialNumber;
bool ORVSerial::ms_bHasSystemSerialNumber = false;
std::string ORVSerial::ms_strChassisSerialNumber;
bool ORVSerial::ms_bHasChassisSerialNumber = false;
std::string ORVSerial::ms_strMainNetIface;
bool ORVSerial::ms_bHasMainNetIface = false;
std::string ORVSerial::ms_strActiveNetIface;
bool ORVSerial::ms_bHasActiveNetIface = false;

namespace {

// One identifier: its text, its flag, and the text that fills in for a missing source.
struct Identifier {
    std::string& text;
    bool& has;
    const char* filler;

    void reset() const {
        has = false;
        text = filler;
    }

    void set(std::string_view value) const {
        text = value;
        has = true;
    }
};

constexpr const char* IDENTIFIERS_PATH = "/etc/orvanta/identifiers";
constexpr const char* NOT_DEFINED = "[not defined]";
constexpr const char* DEFAULT_NET_IFACE = "eth0";

const Identifier SERIAL_NUMBER = {ORVSerial::ms_strSerialNumber, ORVSerial::ms_bHasSerialNumber, NOT_DEFINED};
const Identifier DEVICE_TYPE = {ORVSerial::ms_strDeviceType, ORVSerial::ms_bHasDeviceType, NOT_DEFINED};
const Identifier USER_SERIAL_NUMBER = {ORVSerial::ms_strUserSerialNumber, ORVSerial::ms_bHasUserSerialNumber,
                                       NOT_DEFINED};
const Identifier BOARD_SERIAL_NUMBER = {ORVSerial::ms_strBoardSerialNumber, ORVSerial::ms_bHasBoardSerialNumber,
                                        NOT_DEFINED};
const Identifier SYSTEM_SERIAL_NUMBER = {ORVSerial::ms_strSystemSerialNumber, ORVSerial::ms_bHasSystemSerialNumber,
                                         NOT_DEFINED};
const Identifier CHASSIS_SERIAL_NUMBER = {ORVSerial::ms_strChassisSerialNumber, ORVSerial::ms_bHasChassisSerialNumber,
                                          NOT_DEFINED};
const Identifier MAIN_NET_IFACE = {ORVSerial::ms_strMainNetIface, ORVSerial::ms_bHasMainNetIface, DEFAULT_NET_IFACE};
const Identifier ACTIVE_NET_IFACE = {ORVSerial::ms_strActiveNetIface, ORVSerial::ms_bHasActiveNetIface,
                                     DEFAULT_NET_IFACE};

const Identifier* const ALL_IDENTIFIERS[] = {
    &SERIAL_NUMBER,        &DEVICE_TYPE,           &USER_SERIAL_NUMBER, &BOARD_SERIAL_NUMBER,
    &SYSTEM_SERIAL_NUMBER, &CHASSIS_SERIAL_NUMBER, &MAIN_NET_IFACE,     &ACTIVE_NET_IFACE,
};

// The keys of the identifier file.
const struct {
    const char* key;
    const Identifier* identifier;
} FILE_KEYS[] = {
    {"ORV_HW_TYPE", &DEVICE_TYPE},
    {"ORV_SN", &SERIAL_NUMBER},
    {"ORV_USER_SN", &USER_SERIAL_NUMBER},
    {"ORV_BOARD_SN", &BOARD_SERIAL_NUMBER},
    {"ORV_SYSTEM_SN", &SYSTEM_SERIAL_NUMBER},
    {"ORV_CHASSIS_SN", &CHASSIS_SERIAL_NUMBER},
    {"ORV_MAIN_IFACE_NAME", &MAIN_NET_IFACE},
};

// isOddFile returns whether something other than a regular file is at `path`: a FIFO would be waited for, and some
// devices never end. Its folder is the administrator's, so this guards against mistakes, not attacks.
bool isOddFile(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && !S_ISREG(status.st_mode);
}

// Hands each line of `file`, or each piece of a line that `BUFFER_SIZE` cannot hold, to `takeLine`. True if the stream
// had no fault and every line was good.
template <size_t BUFFER_SIZE, class TakeLine>
bool readLines(FILE* file, TakeLine takeLine) {
    char line[BUFFER_SIZE];
    bool good = true;
    while (fgets(line, sizeof line, file))
        good = takeLine(line) && good;
    return good && !ferror(file);
}

// Takes the value of a line "Key : value" of cpuinfo; false if there is none.
bool takeThirdWord(const char* line, const Identifier& identifier) {
    char word[64];
    if (sscanf(line, "%*s %*s %63s", word) != 1)
        return false;
    identifier.set(word);
    return true;
}

bool takeCpuInfoLine(const char* line) {
    const std::string_view text = line;
    if (text.starts_with("Hardware"))
        return takeThirdWord(line, DEVICE_TYPE);
    if (text.starts_with("Serial"))
        return takeThirdWord(line, SERIAL_NUMBER);
    return true;
}

bool isSpace(char byte) {
    return std::isspace(static_cast<unsigned char>(byte)) != 0;
}

std::string_view withoutLeadingSpace(std::string_view text) {
    const auto begin = std::find_if_not(text.begin(), text.end(), isSpace);
    return text.substr(static_cast<size_t>(begin - text.begin()));
}

std::string_view withoutTrailingSpace(std::string_view text) {
    const auto end = std::find_if_not(text.rbegin(), text.rend(), isSpace);
    return text.substr(0, static_cast<size_t>(text.rend() - end));
}

// Takes the quotes off a value that begins with one; false if the same quote does not end it.
bool unquote(std::string_view& value) {
    if (value.empty() || (value.front() != '"' && value.front() != '\''))
        return true;
    if (value.size() < 2 || value.back() != value.front())
        return false;
    value = value.substr(1, value.size() - 2);
    return true;
}

// Sets the identifier of `key`, unless it has a source already.
void setByFileKey(std::string_view key, std::string_view value) {
    for (const auto& entry : FILE_KEYS)
        if (!entry.identifier->has && key == entry.key)
            return entry.identifier->set(value);
}

bool takeIdentifierLine(const char* line) {
    const std::string_view text = withoutLeadingSpace(line);
    if (text.empty() || text.front() == '#')
        return true;
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos)
        return false;
    std::string_view value = withoutTrailingSpace(text.substr(equals + 1));
    if (!unquote(value))
        return false;
    setByFileKey(text.substr(0, equals), value);
    return true;
}

}  // namespace

bool ORVSerial::load() {
    ms_bLoaded = true;
    for (const Identifier* identifier : ALL_IDENTIFIERS)
        identifier->reset();
    const bool cpuInfoGood = loadCpuInfo();
    const bool identifiersGood = loadOrvantaIdentifiers();
    return cpuInfoGood && identifiersGood;
}

bool ORVSerial::loadCpuInfo() {
    const FileHolder file(fopen("/proc/cpuinfo", "rb"));
    return file && readLines<2048>(file.get(), takeCpuInfoLine);
}

bool ORVSerial::loadOrvantaIdentifiers() {
    if (isOddFile(IDENTIFIERS_PATH))
        return false;
    const FileHolder file(fopen(IDENTIFIERS_PATH, "rb"));
    if (!file)
        return errno == ENOENT;
    return readLines<128>(file.get(), takeIdentifierLine);
}

void ORVSerial::setActiveNetIface(const std::string& name) {
    ACTIVE_NET_IFACE.set(name);
}
