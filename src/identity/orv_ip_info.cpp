#include "identity/orv_ip_info.h"

#include <ifaddrs.h>
#include <libudev.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "runtime/orvlog.h"

namespace {

const log4cxx::LoggerPtr gs_pLogger = orvlog::getLogger(orvlog::append(orvlog::TOP_LOGGER_NAME, "ipinfo"));

struct UdevDeleter {
    void operator()(udev* library) const { udev_unref(library); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
};
using UdevUPtr = std::unique_ptr<udev, UdevDeleter>;
using UdevDeviceUPtr = std::unique_ptr<udev_device, UdevDeleter>;

// NameIndexDeleter is only called with a list: libc's if_freenameindex does not survive a null pointer, which
// unique_ptr never hands on.
struct NameIndexDeleter {
    void operator()(struct if_nameindex* names) const { if_freenameindex(names); }
};
using NameIndexUPtr = std::unique_ptr<struct if_nameindex, NameIndexDeleter>;

struct IfaddrsDeleter {
    void operator()(ifaddrs* addresses) const { freeifaddrs(addresses); }
};
using IfaddrsUPtr = std::unique_ptr<ifaddrs, IfaddrsDeleter>;

// QuerySocket is a socket for requests about interfaces; nothing is sent.
class QuerySocket {
public:
    QuerySocket() : m_nFd(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)) {}
    QuerySocket(const QuerySocket&) = delete;
    QuerySocket& operator=(const QuerySocket&) = delete;
    ~QuerySocket() {
        if (isOpen())
            close(m_nFd);
    }

    bool isOpen() const { return m_nFd != -1; }
    bool query(unsigned long request, void* argument) const { return ioctl(m_nFd, request, argument) != -1; }

private:
    const int m_nFd;
};

// MAX_CONFIGURED is how many interfaces one SIOCGIFCONF request has room for. More are found by their names.
constexpr size_t MAX_CONFIGURED = 16;

// NOT_BURNED_IN are the bits of an address's first byte that mark it as multicast or locally administered.
constexpr unsigned char NOT_BURNED_IN = 0x03;

int typeByAttribute(udev_device* device) {
    const char* attribute = udev_device_get_sysattr_value(device, "type");
    const std::string_view type = attribute ? attribute : "";
    if (type == "1")
        return ORVIPInfo::IfaceEthernet;
    if (type == "512")
        return ORVIPInfo::IfacePpp;
    return ORVIPInfo::IfaceNone;
}

int typeByDeviceType(std::string_view deviceType) {
    if (deviceType == "wlan")
        return ORVIPInfo::IfaceWlan;
    if (deviceType == "wwan")
        return ORVIPInfo::IfaceWwan;
    return ORVIPInfo::IfaceNone;
}

int interfaceType(udev* library, const std::string& name) {
    const UdevDeviceUPtr device(udev_device_new_from_syspath(library, ("/sys/class/net/" + name).c_str()));
    if (!device)
        return ORVIPInfo::IfaceNone;
    const char* deviceType = udev_device_get_devtype(device.get());
    if (!deviceType || !*deviceType)
        return typeByAttribute(device.get());
    return typeByDeviceType(deviceType);
}

// readHardwareAddress puts the interface's burned-in hardware address into `mac`. It returns false if there is none.
bool readHardwareAddress(const QuerySocket& socket, ifreq request, ORVIPInfo::MacAddress& mac) {
    if (!socket.query(SIOCGIFHWADDR, &request) || request.ifr_hwaddr.sa_family != ARPHRD_ETHER)
        return false;
    memcpy(mac.bytes.data(), request.ifr_hwaddr.sa_data, mac.bytes.size());
    return (mac.bytes[0] & NOT_BURNED_IN) == 0;
}

// toText writes `address`, of the family `family`, into `text` as numbers. It returns the result of getnameinfo; after
// a failure `text` is as it was.
int toText(const sockaddr* address, int family, std::string& text) {
    const socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    char host[NI_MAXHOST];
    const int result = getnameinfo(address, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST);
    if (result == 0)
        text = host;
    return result;
}

void toTextIfThere(const sockaddr* address, int family, std::string& text) {
    if (address)
        toText(address, family, text);
}

// addCompanions adds what belongs to the address of `entry`. What cannot be converted stays empty.
void addCompanions(const ifaddrs& entry, int family, ORVIPInfo::IPAddress& ip) {
    toTextIfThere(entry.ifa_netmask, family, ip.netmask);
    if (entry.ifa_flags & IFF_POINTOPOINT)
        toTextIfThere(entry.ifa_dstaddr, family, ip.destination);
    else if (entry.ifa_flags & IFF_BROADCAST)
        toTextIfThere(entry.ifa_broadaddr, family, ip.broadcast);
}

// Inventory fills the maps of one ORVIPInfo from the kernel's three views.
class Inventory {
public:
    Inventory(ORVIPInfo& info, udev* library) : m_oInfo(info), m_pUdev(library) {}

    void takeConfigured(const QuerySocket& socket);
    void takeNamed(const QuerySocket& socket);
    void takeAddresses();

private:
    void takeHardware(const QuerySocket& socket, const ifreq& request);
    bool takeEntry(const ifaddrs& entry);
    bool takeAddress(const ifaddrs& entry, ORVIPInfo::IpInterface& interface);

    ORVIPInfo& m_oInfo;
    udev* m_pUdev;
};

void Inventory::takeConfigured(const QuerySocket& socket) {
    ifreq entries[MAX_CONFIGURED];
    memset(entries, 0, sizeof entries);
    ifconf list{};
    list.ifc_len = sizeof entries;
    list.ifc_req = entries;
    if (!socket.query(SIOCGIFCONF, &list) || list.ifc_len < 0)
        return;
    const size_t count = static_cast<size_t>(list.ifc_len) / sizeof(ifreq);
    for (size_t i = 0; i < count; ++i) {
        ORVLOG_DEBUG(gs_pLogger, "Name: %s", entries[i].ifr_name);
        takeHardware(socket, entries[i]);
    }
}

// takeNamed finds the interfaces that did not fit into the list of takeConfigured, and those without an address.
void Inventory::takeNamed(const QuerySocket& socket) {
    const NameIndexUPtr names(::if_nameindex());
    for (const struct if_nameindex* entry = names.get(); entry && entry->if_name && entry->if_index != 0; ++entry) {
        ORVLOG_DEBUG(gs_pLogger, "More Name: %s", entry->if_name);
        ifreq request{};
        strncpy(request.ifr_name, entry->if_name, sizeof request.ifr_name - 1);
        takeHardware(socket, request);
    }
}

void Inventory::takeHardware(const QuerySocket& socket, const ifreq& request) {
    ORVIPInfo::MacAddress mac;
    if (!readHardwareAddress(socket, request, mac))
        return;
    m_oInfo.m_mapMacs[mac].clear();
    ORVIPInfo::IpInterface interface;
    interface.type = interfaceType(m_pUdev, request.ifr_name);
    interface.mac = mac.toString();
    if (interface.type != ORVIPInfo::IfaceNone)
        m_oInfo.m_mapInterfaces[request.ifr_name] = interface;
}

void Inventory::takeAddresses() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == -1) {
        ORVLOG_WARN(gs_pLogger, "getifaddrs() failed");
        return;
    }
    const IfaddrsUPtr addresses(list);
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next)
        if (!takeEntry(*entry))
            return;
}

// takeEntry also meets interfaces without an IP address, because each has an entry for its link layer. It returns false
// to end the list.
bool Inventory::takeEntry(const ifaddrs& entry) {
    if (!entry.ifa_addr)
        return true;
    const int type = interfaceType(m_pUdev, entry.ifa_name);
    if (type == ORVIPInfo::IfaceNone)
        return true;
    if (!(entry.ifa_flags & IFF_UP)) {
        m_oInfo.m_mapInterfaces.erase(entry.ifa_name);
        return true;
    }
    if (entry.ifa_addr->sa_family != AF_INET && entry.ifa_addr->sa_family != AF_INET6)
        return true;
    ORVIPInfo::IpInterface& interface = m_oInfo.m_mapInterfaces[entry.ifa_name];
    interface.type = type;
    interface.running = (entry.ifa_flags & IFF_RUNNING) != 0;
    return takeAddress(entry, interface);
}

bool Inventory::takeAddress(const ifaddrs& entry, ORVIPInfo::IpInterface& interface) {
    const int family = entry.ifa_addr->sa_family;
    ORVIPInfo::IPAddress ip;
    if (const int error = toText(entry.ifa_addr, family, ip.address); error != 0) {
        ORVLOG_WARN(gs_pLogger, "getnameinfo() failed: %s", gai_strerror(error));
        return false;
    }
    addCompanions(entry, family, ip);
    const bool isIPv4 = family == AF_INET;
    (isIPv4 ? interface.ipv4 : interface.ipv6).push_back(ip);
    ORVLOG_DEBUG(gs_pLogger, "%s: %s", isIPv4 ? "AF_INET" : "AF_INET6", ip.address.c_str());
    return true;
}

}  // namespace

std::string ORVIPInfo::MacAddress::toString() const {
    char text[sizeof "00:00:00:00:00:00"];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
             bytes[5]);
    return text;
}

bool ORVIPInfo::MacAddress::set(const std::string& text) {
    bytes.fill(0);
    unsigned int fields[6];
    if (sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &fields[0], &fields[1], &fields[2], &fields[3], &fields[4],
               &fields[5]) != 6)
        return false;
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(fields[i]);
    // sscanf is lenient: blanks, signs, prefixes, any number of digits, anything after them.
    if (toString() == text)
        return true;
    bytes.fill(0);
    return false;
}

void ORVIPInfo::init() {
    m_mapMacs.clear();
    m_mapInterfaces.clear();
    const UdevUPtr library(udev_new());
    if (!library) {
        ORVLOG_WARN(gs_pLogger, "udev_new() failed");
        return;
    }
    Inventory inventory(*this, library.get());
    if (const QuerySocket socket; socket.isOpen()) {
        inventory.takeConfigured(socket);
        inventory.takeNamed(socket);
    }
    inventory.takeAddresses();
}
