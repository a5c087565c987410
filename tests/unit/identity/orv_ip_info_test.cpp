// orv_ip_info_test.cpp: the inventory of network interfaces on machines that are made up, and the hardware address.
//
// This file replaces the calls through which the inventory asks the kernel and libudev: while a Machine answers, they
// are served from its lists, else by the system as usual.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <libudev.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "identity/orv_ip_info.h"
#include "runtime/orvlog.h"
#include "unit/record_collector.h"

// libudev's two types are its own secret, so they can be ours here.
struct udev {};
struct udev_device {
    std::optional<std::string> devtype;
    std::optional<std::string> type;
    std::string name;
};

namespace {

using namespace std::string_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using Bytes = std::vector<unsigned char>;

constexpr unsigned UP = IFF_UP | IFF_RUNNING | IFF_BROADCAST;
constexpr unsigned LINK_UP = IFF_UP | IFF_RUNNING | IFF_POINTOPOINT;
constexpr unsigned DOWN = IFF_BROADCAST;

template <typename Function>
Function* realCall(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <typename Address>
Bytes bytesOf(const Address& address) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&address);
    return {bytes, bytes + sizeof address};
}

// socketAddress returns the address that `text` names in exactly as many bytes as its family has; none for "".
Bytes socketAddress(const std::string& text, unsigned scope = 0) {
    if (text.empty()) {
        return {};
    }
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    if (inet_pton(AF_INET, text.c_str(), &ipv4.sin_addr) == 1) {
        return bytesOf(ipv4);
    }
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_scope_id = scope;
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &ipv6.sin6_addr), 1) << text;
    return bytesOf(ipv6);
}

// otherAddress returns an address of a family other than IP.
Bytes otherAddress(int family) {
    sockaddr address{};
    address.sa_family = static_cast<sa_family_t>(family);
    return bytesOf(address);
}

// Address is one IP address of an interface; `other` is its broadcast address or its peer's, as the flags tell.
struct Address {
    std::string address{};
    std::string netmask{};
    std::string other{};

    bool isIpv6() const { return address.find(':') != std::string::npos; }
};

// Interface is one row of a machine.
struct Interface {
    std::string name{};
    std::optional<std::string> devtype{};  // as udev reports it
    std::optional<std::string> type{"1"};  // the attribute in sysfs
    std::string mac{};                     // the kernel reports no hardware address if it is empty
    unsigned short family = ARPHRD_ETHER;  // of the hardware address
    unsigned flags = UP;
    std::vector<Address> addresses{};
};

// Entry is one entry of the list of addresses; an empty address is not there.
struct Entry {
    std::string name;
    unsigned flags = UP;
    Bytes address{};
    Bytes netmask{};
    Bytes other{};
};

Entry linkEntry(const std::string& name, unsigned flags = UP) {
    return {name, flags, otherAddress(AF_PACKET), {}, otherAddress(AF_PACKET)};
}

Entry ipEntry(const std::string& name, const Address& address, unsigned flags = UP) {
    return {name, flags, socketAddress(address.address), socketAddress(address.netmask), socketAddress(address.other)};
}

// IndexedName is one entry of the list of names. The list ends with the last of them.
struct IndexedName {
    unsigned index;
    std::optional<std::string> name;
};

const IndexedName NO_MORE_NAMES{0, std::nullopt};

// Machine answers all calls. It checks how they are made, keeps their names and watches over what it hands out.
class Machine {
public:
    // Machine makes the three views of the kernel from the interfaces. A test may change them.
    explicit Machine(const std::vector<Interface>& interfaces) {
        for (const Interface& interface : interfaces) {
            add(interface);
        }
        names.push_back(NO_MORE_NAMES);
        addAddresses(interfaces, false);
        addAddresses(interfaces, true);
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;
    ~Machine() { EXPECT_THAT(m_oHeld, IsEmpty()) << "everything is given back"; }

    std::map<std::string, Interface> devices;  // what udev finds
    std::map<std::string, Interface> hardware;
    std::vector<std::string> configured;  // the names for SIOCGIFCONF
    std::optional<int> configuredLength;  // what it reports as its length; that of its entries if empty
    std::vector<IndexedName> names;
    std::vector<Entry> entries;

    std::set<std::string> failing;                  // the calls that fail
    std::map<std::string, int> conversionFailures;  // getnameinfo's error by the address as text
    int failNth = 0;                                // the number of the one call that fails; 0 for none
    bool nthWasReached = false;
    std::function<void(const std::string&)> onCall = [](const std::string&) {};  // runs before the answer

    std::vector<std::string> calls;

    // callsWithout returns the calls without those that begin with `prefix`.
    std::vector<std::string> callsWithout(const std::string& prefix) const {
        std::vector<std::string> result;
        std::copy_if(calls.begin(), calls.end(), std::back_inserter(result),
                     [&](const std::string& call) { return !call.starts_with(prefix); });
        return result;
    }

    udev* newUdev() { return fails("udev_new") ? nullptr : hold(std::make_shared<udev>()); }
    void unrefUdev(udev* handle) { release("udev_unref", handle); }

    udev_device* newDevice(const udev* handle, const std::string& path) {
        EXPECT_TRUE(m_oHeld.contains(handle)) << "a device needs a udev that lives";
        const std::string folder = "/sys/class/net/";
        const bool isInterface = path.starts_with(folder);
        EXPECT_TRUE(isInterface) << path;
        const std::string name = isInterface ? path.substr(folder.size()) : "";
        const auto device = devices.find(name);
        if (fails("udev device " + name) || device == devices.end()) {
            return nullptr;
        }
        const Interface& interface = device->second;
        return hold(std::make_shared<udev_device>(udev_device{interface.devtype, interface.type, name}));
    }

    const char* deviceType(const udev_device* device) {
        return answer("udev devtype " + device->name, device->devtype);
    }

    const char* attribute(const udev_device* device, const std::string& attribute) {
        EXPECT_EQ(attribute, "type");
        return answer("udev attribute " + device->name, device->type);
    }

    void unrefDevice(udev_device* device) {
        EXPECT_NE(device, nullptr);
        release("udev unref " + device->name, device);
    }

    int openSocket(int domain, int type, int protocol) {
        EXPECT_EQ(domain, AF_INET);
        EXPECT_EQ(type & ~SOCK_CLOEXEC, SOCK_DGRAM);
        EXPECT_EQ(protocol, IPPROTO_UDP);
        if (fails("socket")) {
            errno = EMFILE;
            return -1;
        }
        EXPECT_EQ(m_nSocket, -1) << "one socket is enough";
        m_nSocket = open("/dev/null", O_RDONLY | O_CLOEXEC);
        hold(std::shared_ptr<int>(&m_nSocket, [](int* descriptor) { *descriptor = -1; }));
        return m_nSocket;
    }

    bool isSocket(int descriptor) const { return descriptor >= 0 && descriptor == m_nSocket; }
    void closeSocket() { release("close", &m_nSocket); }

    int control(int descriptor, unsigned long request, void* argument) {
        EXPECT_TRUE(isSocket(descriptor));
        if (request == SIOCGIFCONF) {
            return giveConfigured(*static_cast<ifconf*>(argument));
        }
        EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFHWADDR));
        return giveHardwareAddress(*static_cast<ifreq*>(argument));
    }

    struct if_nameindex* giveNames() {
        if (fails("if_nameindex")) {
            errno = ENOBUFS;
            return nullptr;
        }
        const auto list = std::make_shared<NameList>();
        list->names = names;
        for (IndexedName& name : list->names) {
            list->pointers.push_back({name.index, name.name ? name.name->data() : nullptr});
        }
        list->pointers.shrink_to_fit();
        return hold(list, list->pointers.data());
    }

    void freeNames(struct if_nameindex* list) {
        EXPECT_NE(list, nullptr) << "libc doesn't survive it";
        release("if_freenameindex", list);
    }

    int giveAddresses(ifaddrs** result) {
        if (fails("getifaddrs")) {
            errno = ENOMEM;
            return -1;
        }
        const auto list = std::make_shared<AddressList>(AddressList{entries, std::vector<ifaddrs>(entries.size())});
        for (size_t i = 0; i < entries.size(); i++) {
            fill(list->pointers[i], list->entries[i]);
            list->pointers[i].ifa_next = i + 1 < entries.size() ? &list->pointers[i + 1] : nullptr;
        }
        *result = entries.empty() ? nullptr : hold(list, list->pointers.data());
        return 0;
    }

    // freeAddresses takes null as libc does: that is the list without entries.
    void freeAddresses(ifaddrs* list) {
        if (list) {
            release("freeifaddrs", list);
        }
    }

    // convert lets the system convert. A failure leaves rubbish in the buffer.
    int convert(const sockaddr* address, socklen_t length, char* host, socklen_t hostLength, socklen_t serviceLength,
                int flags) {
        EXPECT_EQ(flags, NI_NUMERICHOST);
        EXPECT_EQ(hostLength, 1025U);
        EXPECT_EQ(serviceLength, 0U);
        if (!address) {
            return EAI_FAMILY;  // as libc does
        }
        EXPECT_EQ(length, address->sa_family == AF_INET ? 16U : 28U);
        std::array<char, NI_MAXHOST> text{};
        EXPECT_EQ(realCall<decltype(getnameinfo)>("getnameinfo")(address, length, text.data(), text.size(), nullptr, 0,
                                                                 flags),
                  0);
        const auto failure = conversionFailures.find(text.data());
        const bool failsNow = fails("getnameinfo "s + text.data());
        std::snprintf(host, hostLength, "%s",
                      failsNow || failure != conversionFailures.end() ? "rubbish" : text.data());
        if (failure != conversionFailures.end()) {
            return failure->second;
        }
        return failsNow ? EAI_MEMORY : 0;
    }

private:
    struct NameList {
        std::vector<IndexedName> names;
        std::vector<struct if_nameindex> pointers;
    };

    struct AddressList {
        std::vector<Entry> entries;
        std::vector<ifaddrs> pointers;
    };

    void add(const Interface& interface) {
        devices[interface.name] = interface;
        hardware[interface.name] = interface;
        names.push_back({static_cast<unsigned>(names.size() + 1), interface.name});
        entries.push_back(linkEntry(interface.name, interface.flags));
    }

    // addAddresses lists addresses after the links, those of IPv6 last, as libc does.
    void addAddresses(const std::vector<Interface>& interfaces, bool isIpv6) {
        for (const Interface& interface : interfaces) {
            for (const Address& address : interface.addresses) {
                if (address.isIpv6() == isIpv6) {
                    entries.push_back(ipEntry(interface.name, address, interface.flags));
                }
            }
            if (!isIpv6 && entries.back().name == interface.name && entries.back().address != otherAddress(AF_PACKET)) {
                configured.push_back(interface.name);
            }
        }
    }

    // fails takes a call down and returns whether it shall fail.
    bool fails(const std::string& call) {
        calls.push_back(call);
        onCall(call);
        const bool isNth = ++m_nFallible == failNth;
        nthWasReached = nthWasReached || isNth;
        return isNth || failing.contains(call);
    }

    const char* answer(const std::string& call, const std::optional<std::string>& text) {
        return fails(call) || !text ? nullptr : text->c_str();
    }

    // hold keeps what is handed out, until it is given back; `handle` is its name outside.
    template <typename Owned, typename Handle>
    Handle* hold(const std::shared_ptr<Owned>& owned, Handle* handle) {
        m_oHeld[handle] = owned;
        return handle;
    }
    template <typename Owned>
    Owned* hold(const std::shared_ptr<Owned>& owned) {
        return hold(owned, owned.get());
    }

    void release(const std::string& call, const void* handle) {
        calls.push_back(call);
        EXPECT_EQ(m_oHeld.erase(handle), 1U) << call << " gives back what was handed out, once";
    }

    int giveConfigured(ifconf& request) {
        const auto* buffer = reinterpret_cast<const unsigned char*>(request.ifc_buf);
        EXPECT_EQ(request.ifc_len, 640);
        EXPECT_EQ(std::count(buffer, buffer + request.ifc_len, 0), request.ifc_len) << "the buffer is zeroed";
        if (fails("SIOCGIFCONF")) {
            errno = EFAULT;
            return -1;
        }
        const size_t count = std::min(configured.size(), request.ifc_len / sizeof(ifreq));
        for (size_t i = 0; i < count; i++) {
            std::strncpy(request.ifc_req[i].ifr_name, configured[i].c_str(), IFNAMSIZ - 1);
            request.ifc_req[i].ifr_addr.sa_family = AF_INET;
        }
        request.ifc_len = configuredLength.value_or(static_cast<int>(count * sizeof(ifreq)));
        return 0;
    }

    int giveHardwareAddress(ifreq& request) {
        EXPECT_EQ(request.ifr_name[IFNAMSIZ - 1], '\0');
        const std::string name(request.ifr_name, strnlen(request.ifr_name, IFNAMSIZ));
        const auto found = hardware.find(name);
        std::array<unsigned, 6> mac{};
        if (fails("SIOCGIFHWADDR " + name) || found == hardware.end() ||
            std::sscanf(found->second.mac.c_str(), "%x:%x:%x:%x:%x:%x", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4],
                        &mac[5]) != 6) {
            errno = ENODEV;
            return -1;
        }
        request.ifr_hwaddr.sa_family = found->second.family;
        std::copy(mac.begin(), mac.end(), reinterpret_cast<unsigned char*>(request.ifr_hwaddr.sa_data));
        return 0;
    }

    static sockaddr* pointerTo(Bytes& address) {
        return address.empty() ? nullptr : reinterpret_cast<sockaddr*>(address.data());
    }

    static void fill(ifaddrs& pointers, Entry& entry) {
        pointers.ifa_name = entry.name.data();
        pointers.ifa_flags = entry.flags;
        pointers.ifa_addr = pointerTo(entry.address);
        pointers.ifa_netmask = pointerTo(entry.netmask);
        pointers.ifa_broadaddr = pointerTo(entry.other);
    }

    std::map<const void*, std::shared_ptr<void>> m_oHeld;
    int m_nSocket = -1;
    int m_nFallible = 0;
};

// The machine that answers; null leaves it to the system.
Machine* gs_pMachine = nullptr;

}  // namespace

extern "C" {

udev* udev_new() {
    return gs_pMachine ? gs_pMachine->newUdev() : realCall<decltype(udev_new)>("udev_new")();
}

udev* udev_unref(udev* handle) {
    if (!gs_pMachine) {
        return realCall<decltype(udev_unref)>("udev_unref")(handle);
    }
    gs_pMachine->unrefUdev(handle);
    return nullptr;
}

udev_device* udev_device_new_from_syspath(udev* handle, const char* path) {
    return gs_pMachine ? gs_pMachine->newDevice(handle, path)
                       : realCall<decltype(udev_device_new_from_syspath)>("udev_device_new_from_syspath")(handle, path);
}

const char* udev_device_get_devtype(udev_device* device) {
    return gs_pMachine ? gs_pMachine->deviceType(device)
                       : realCall<decltype(udev_device_get_devtype)>("udev_device_get_devtype")(device);
}

const char* udev_device_get_sysattr_value(udev_device* device, const char* attribute) {
    return gs_pMachine
               ? gs_pMachine->attribute(device, attribute)
               : realCall<decltype(udev_device_get_sysattr_value)>("udev_device_get_sysattr_value")(device, attribute);
}

udev_device* udev_device_unref(udev_device* device) {
    if (!gs_pMachine) {
        return realCall<decltype(udev_device_unref)>("udev_device_unref")(device);
    }
    gs_pMachine->unrefDevice(device);
    return nullptr;
}

int socket(int domain, int type, int protocol) noexcept {
    return gs_pMachine ? gs_pMachine->openSocket(domain, type, protocol)
                       : realCall<decltype(socket)>("socket")(domain, type, protocol);
}

int close(int descriptor) {
    if (gs_pMachine && gs_pMachine->isSocket(descriptor)) {
        gs_pMachine->closeSocket();
    }
    return realCall<decltype(close)>("close")(descriptor);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return gs_pMachine ? gs_pMachine->control(descriptor, request, argument)
                       : realCall<decltype(ioctl)>("ioctl")(descriptor, request, argument);
}

struct if_nameindex* if_nameindex() noexcept {
    return gs_pMachine ? gs_pMachine->giveNames() : realCall<decltype(if_nameindex)>("if_nameindex")();
}

void if_freenameindex(struct if_nameindex* list) noexcept {
    gs_pMachine ? gs_pMachine->freeNames(list) : realCall<decltype(if_freenameindex)>("if_freenameindex")(list);
}

int getifaddrs(ifaddrs** result) noexcept {
    return gs_pMachine ? gs_pMachine->giveAddresses(result) : realCall<decltype(getifaddrs)>("getifaddrs")(result);
}

void freeifaddrs(ifaddrs* list) noexcept {
    gs_pMachine ? gs_pMachine->freeAddresses(list) : realCall<decltype(freeifaddrs)>("freeifaddrs")(list);
}

int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostLength, char* service,
                socklen_t serviceLength, int flags) {
    return gs_pMachine ? gs_pMachine->convert(address, length, host, hostLength, serviceLength, flags)
                       : realCall<decltype(getnameinfo)>("getnameinfo")(address, length, host, hostLength, service,
                                                                        serviceLength, flags);
}

}  // extern "C"

namespace {

const std::string MAC_0 = "00:11:22:33:44:50";
const std::string MAC_1 = "00:11:22:33:44:51";
const std::string LOCAL_MAC = "02:11:22:33:44:55";

const Address HOME{"192.168.1.2", "255.255.255.0", "192.168.1.255"};
const Address SECOND{"10.0.0.2", "255.0.0.0", "10.255.255.255"};
const Address GLOBAL_6{"2001:db8::2", "ffff:ffff:ffff:ffff::", ""};

Interface ethernet(const std::string& name, const std::string& mac = MAC_0, std::vector<Address> addresses = {},
                   unsigned flags = UP) {
    return {.name = name, .mac = mac, .flags = flags, .addresses = std::move(addresses)};
}

Interface wlan(const std::string& name, const std::string& mac, std::vector<Address> addresses = {}) {
    return {.name = name, .devtype = "wlan", .mac = mac, .addresses = std::move(addresses)};
}

Interface ppp(const std::string& name, std::vector<Address> addresses) {
    return {.name = name,
            .type = "512",
            .mac = "00:00:00:00:00:00",
            .family = ARPHRD_PPP,
            .flags = LINK_UP,
            .addresses = std::move(addresses)};
}

Interface loopback() {
    return {.name = "lo",
            .type = "772",
            .mac = "00:00:00:00:00:00",
            .family = ARPHRD_LOOPBACK,
            .flags = IFF_UP | IFF_RUNNING | IFF_LOOPBACK,
            .addresses = {{"127.0.0.1", "255.0.0.0", ""}, {"::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", ""}}};
}

// many returns `count` Ethernet interfaces with an address each.
std::vector<Interface> many(int count) {
    std::vector<Interface> result;
    for (int i = 0; i < count; i++) {
        const std::string number = std::to_string(10 + i);
        result.push_back(ethernet("eth" + number, "00:11:22:33:44:" + number, {{"10.0.0." + number, "", ""}}));
    }
    return result;
}

// labelled returns the label followed by `text`, or nothing if `text` is empty.
std::string labelled(const std::string& label, const std::string& text) {
    return text.empty() ? "" : " " + label + " " + text;
}

void list(Lines& lines, const std::string& label, const std::vector<ORVIPInfo::IPAddress>& addresses) {
    for (const ORVIPInfo::IPAddress& address : addresses) {
        lines.push_back(label + address.address + labelled("mask", address.netmask) +
                        labelled("broadcast", address.broadcast) + labelled("to", address.destination));
    }
}

// listing writes the listed interfaces down, each with its addresses below.
Lines listing(const ORVIPInfo& info) {
    Lines lines;
    for (const auto& [name, interface] : info.m_mapInterfaces) {
        lines.push_back(name + " kind " + std::to_string(interface.type) + labelled("mac", interface.mac) +
                        (interface.running ? " running" : ""));
        list(lines, "  4: ", interface.ipv4);
        list(lines, "  6: ", interface.ipv6);
    }
    return lines;
}

// macs writes the hardware addresses down, and a value that isn't empty.
Lines macs(const ORVIPInfo& info) {
    Lines lines;
    for (const auto& [mac, value] : info.m_mapMacs) {
        lines.push_back(mac.toString() + labelled("=", value));
    }
    return lines;
}

std::vector<std::string> namesOf(const ORVIPInfo& info) {
    std::vector<std::string> names;
    for (const auto& [name, interface] : info.m_mapInterfaces) {
        names.push_back(name);
    }
    return names;
}

class OrvIpInfo : public testing::Test {
protected:
    // take has a snapshot taken of `machine` and returns the records of that.
    Lines take(Machine& machine) {
        m_oCollector.clear();
        gs_pMachine = &machine;
        m_oInfo.init();
        gs_pMachine = nullptr;
        Lines lines;
        for (const Record& record : m_oCollector.records()) {
            lines.push_back(record.level + " " + record.text);
        }
        return lines;
    }

    Lines listingOf(Machine& machine) {
        take(machine);
        return listing(m_oInfo);
    }

    ORVIPInfo m_oInfo;
    RecordCollector m_oCollector;
};

// The class.

static_assert(std::is_polymorphic_v<ORVIPInfo> && std::has_virtual_destructor_v<ORVIPInfo>);
static_assert(std::is_same_v<decltype(ORVIPInfo::m_mapMacs), std::map<ORVIPInfo::MacAddress, std::string>>);
static_assert(std::is_same_v<decltype(ORVIPInfo::m_mapInterfaces), std::map<std::string, ORVIPInfo::IpInterface>>);
static_assert(sizeof(ORVIPInfo::MacAddress) == 6);
static_assert(ORVIPInfo::IfaceNone == 0 && ORVIPInfo::IfaceEthernet == 1 && ORVIPInfo::IfacePpp == 2 &&
              ORVIPInfo::IfaceWlan == 3 && ORVIPInfo::IfaceWwan == 4);

TEST_F(OrvIpInfo, StartsEmpty) {
    EXPECT_THAT(m_oInfo.m_mapMacs, IsEmpty());
    EXPECT_THAT(m_oInfo.m_mapInterfaces, IsEmpty());
    EXPECT_THAT(m_oCollector.records(), IsEmpty());
}

TEST_F(OrvIpInfo, NewInterfaceHasTheDefaults) {
    const ORVIPInfo::IpInterface interface;
    EXPECT_FALSE(interface.running);
    EXPECT_EQ(interface.type, 0);
    EXPECT_EQ(interface.mac, "");
    EXPECT_THAT(interface.ipv4, IsEmpty());
    EXPECT_THAT(interface.ipv6, IsEmpty());
}

TEST_F(OrvIpInfo, DerivedClassTakesPartThroughTheBase) {
    struct Derived : ORVIPInfo {
        void init() override {
            ORVIPInfo::init();
            for (auto& [mac, value] : m_mapMacs) {
                value = "seen";
            }
        }
    };
    Machine machine({ethernet("eth0")});
    const std::unique_ptr<ORVIPInfo> info = std::make_unique<Derived>();
    gs_pMachine = &machine;
    info->init();
    gs_pMachine = nullptr;
    EXPECT_THAT(macs(*info), ElementsAre(MAC_0 + " = seen"));
}

// Whole machines.

TEST_F(OrvIpInfo, ListsAMachineOfManyKinds) {
    Machine machine({
        loopback(),
        ethernet("eth0", MAC_0, {HOME, SECOND, GLOBAL_6}),
        wlan("wlan0", LOCAL_MAC, {{"10.1.0.2", "255.255.0.0", "10.1.255.255"}}),
        {.name = "wwan0", .devtype = "wwan", .type = "519", .mac = "", .flags = IFF_UP, .addresses = {GLOBAL_6}},
        ppp("ppp0", {{"10.64.0.1", "255.255.255.255", "10.64.0.2"}}),
        {.name = "br0", .devtype = "bridge", .mac = MAC_1, .addresses = {HOME}},
    });
    EXPECT_THAT(listingOf(machine), ElementsAre("eth0 kind 1 mac " + MAC_0 + " running",                        //
                                                "  4: 192.168.1.2 mask 255.255.255.0 broadcast 192.168.1.255",  //
                                                "  4: 10.0.0.2 mask 255.0.0.0 broadcast 10.255.255.255",        //
                                                "  6: 2001:db8::2 mask ffff:ffff:ffff:ffff::",                  //
                                                "ppp0 kind 2 running",                                          //
                                                "  4: 10.64.0.1 mask 255.255.255.255 to 10.64.0.2",             //
                                                "wlan0 kind 3 running",                                         //
                                                "  4: 10.1.0.2 mask 255.255.0.0 broadcast 10.1.255.255",        //
                                                "wwan0 kind 4",                                                 //
                                                "  6: 2001:db8::2 mask ffff:ffff:ffff:ffff::"));
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0, MAC_1));
}

TEST_F(OrvIpInfo, MachineWithoutInterfacesHasEmptyMaps) {
    Machine machine({});
    EXPECT_THAT(take(machine), IsEmpty());
    EXPECT_THAT(m_oInfo.m_mapMacs, IsEmpty());
    EXPECT_THAT(m_oInfo.m_mapInterfaces, IsEmpty());
}

TEST_F(OrvIpInfo, AsksInOrderAndGivesBackInOrder) {
    Machine machine({ethernet("eth0", MAC_0, {HOME})});
    take(machine);
    EXPECT_THAT(machine.callsWithout("udev "),
                ElementsAre("udev_new", "socket", "SIOCGIFCONF", "SIOCGIFHWADDR eth0", "if_nameindex",
                            "SIOCGIFHWADDR eth0", "if_freenameindex", "close", "getifaddrs", "getnameinfo 192.168.1.2",
                            "getnameinfo 255.255.255.0", "getnameinfo 192.168.1.255", "freeifaddrs", "udev_unref"));
}

TEST_F(OrvIpInfo, NamesEachInterfaceAndAddressInARecord) {
    Machine machine({loopback(), ethernet("eth0", MAC_0, {HOME, GLOBAL_6}), ethernet("eth1", MAC_1)});
    EXPECT_THAT(take(machine),
                ElementsAre("DEBUG Name: lo", "DEBUG Name: eth0", "DEBUG More Name: lo", "DEBUG More Name: eth0",
                            "DEBUG More Name: eth1", "DEBUG AF_INET: 192.168.1.2", "DEBUG AF_INET6: 2001:db8::2"));
}

TEST_F(OrvIpInfo, RecordsComeFromALoggerOfItsOwn) {
    Machine machine({ethernet("eth0", MAC_0, {HOME})});
    machine.failing = {"getifaddrs"};
    ASSERT_EQ(take(machine).size(), 3U);
    for (const Record& record : m_oCollector.records()) {
        EXPECT_EQ(record.logger, m_oCollector.records()[0].logger);
        EXPECT_TRUE(record.logger.starts_with(orvlog::TOP_LOGGER_NAME + "."s)) << record.logger;
        EXPECT_NE(record.logger, "orv.featurewatch");
        EXPECT_NE(record.file.find("orv_ip_info"), std::string::npos) << record.file;
        EXPECT_GT(record.line, 0);
    }
}

TEST_F(OrvIpInfo, NextSnapshotReplacesTheLast) {
    Machine before({ethernet("eth0", MAC_0, {HOME}), ethernet("eth1", MAC_1)});
    Machine after({ethernet("eth1", MAC_1, {SECOND})});
    take(before);
    m_oInfo.m_mapMacs.begin()->second = "a value of the derived class";
    take(after);
    const Lines expected{"eth1 kind 1 mac " + MAC_1 + " running",
                         "  4: 10.0.0.2 mask 255.0.0.0 broadcast 10.255.255.255"};
    EXPECT_EQ(listing(m_oInfo), expected);
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_1));

    take(after);
    EXPECT_EQ(listing(m_oInfo), expected) << "addresses aren't added to those of the snapshot before";
}

// Kinds.

struct KindRow {
    const char* what;
    std::optional<std::string> devtype;
    std::optional<std::string> type;
    int kind;
};

const KindRow KINDS[] = {
    {"Ethernet", std::nullopt, "1", 1},
    {"Ethernet with an empty device type", "", "1", 1},
    {"a dummy, which has no device type", std::nullopt, "1", 1},
    {"PPP", std::nullopt, "512", 2},
    {"PPP with an empty device type", "", "512", 2},
    {"WLAN", "wlan", "1", 3},
    {"WLAN in monitor mode", "wlan", "803", 3},
    {"WLAN without attribute", "wlan", std::nullopt, 3},
    {"WWAN", "wwan", "1", 4},
    {"WWAN that speaks plain IP", "wwan", "519", 4},
    {"WWAN without attribute", "wwan", std::nullopt, 4},
    {"WWAN with the attribute of PPP", "wwan", "512", 4},
    {"bridge", "bridge", "1", 0},
    {"VLAN", "vlan", "1", 0},
    {"bond", "bond", "1", 0},
    {"a dummy with a device type", "dummy", "1", 0},
    {"PPP with a device type", "ppp", "512", 0},
    {"a device type of one blank", " ", "1", 0},
    {"WLAN in capitals", "WLAN", "1", 0},
    {"a device type that begins like WLAN", "wlan0", "1", 0},
    {"a device type that ends too early", "wla", "1", 0},
    {"loopback", std::nullopt, "772", 0},
    {"a tunnel", std::nullopt, "65534", 0},
    {"no attribute", std::nullopt, std::nullopt, 0},
    {"no attribute and an empty device type", "", std::nullopt, 0},
    {"empty attribute", std::nullopt, "", 0},
    {"an attribute that begins like Ethernet", std::nullopt, "10", 0},
    {"an attribute that begins like PPP", std::nullopt, "5120", 0},
    {"an attribute with a nought in front", std::nullopt, "01", 0},
    {"an attribute with a blank after it", std::nullopt, "1 ", 0},
};

TEST_F(OrvIpInfo, KindDecidesWhatIsListedForItsHardware) {
    for (const KindRow& row : KINDS) {
        SCOPED_TRACE(row.what);
        Machine machine({{.name = "if0", .devtype = row.devtype, .type = row.type, .mac = MAC_0}});
        const Lines listed{"if0 kind " + std::to_string(row.kind) + " mac " + MAC_0};
        EXPECT_EQ(listingOf(machine), row.kind ? listed : Lines{});
        EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0)) << "the hardware is there whatever its kind";
    }
}

TEST_F(OrvIpInfo, KindDecidesWhatIsListedForItsAddress) {
    for (const KindRow& row : KINDS) {
        SCOPED_TRACE(row.what);
        Machine machine({{.name = "if0", .devtype = row.devtype, .type = row.type, .addresses = {{"10.0.0.1"}}}});
        const Lines listed{"if0 kind " + std::to_string(row.kind) + " running", "  4: 10.0.0.1"};
        EXPECT_EQ(listingOf(machine), row.kind ? listed : Lines{});
        EXPECT_THAT(macs(m_oInfo), IsEmpty());
    }
}

TEST_F(OrvIpInfo, AttributeIsOnlyReadWithoutADeviceType) {
    Machine machine({wlan("wlan0", MAC_0, {HOME}), ethernet("eth0", MAC_1)});
    take(machine);
    EXPECT_THAT(machine.calls, Not(Contains("udev attribute wlan0")));
    EXPECT_THAT(machine.calls, Contains("udev attribute eth0"));
}

TEST_F(OrvIpInfo, InterfaceUnknownToUdevHasNoKind) {
    Machine machine({ethernet("eth0", MAC_0, {HOME})});
    machine.devices.clear();
    EXPECT_THAT(listingOf(machine), IsEmpty());
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0));
}

// Hardware addresses.

struct HardwareRow {
    const char* mac;
    unsigned short family;
    bool taken;
};

const HardwareRow HARDWARE[] = {
    {"00:00:00:00:00:00", ARPHRD_ETHER, true},
    {"00:ff:ff:ff:ff:ff", ARPHRD_ETHER, true},
    {"04:11:22:33:44:55", ARPHRD_ETHER, true},
    {"fc:11:22:33:44:55", ARPHRD_ETHER, true},
    {"80:03:02:01:00:ff", ARPHRD_ETHER, true},
    {"01:00:5e:00:00:01", ARPHRD_ETHER, false},  // multicast
    {"02:11:22:33:44:55", ARPHRD_ETHER, false},  // locally administered
    {"03:11:22:33:44:55", ARPHRD_ETHER, false},
    {"fd:11:22:33:44:55", ARPHRD_ETHER, false},
    {"fe:11:22:33:44:55", ARPHRD_ETHER, false},
    {"ff:ff:ff:ff:ff:ff", ARPHRD_ETHER, false},
    {"", ARPHRD_ETHER, false},  // the call fails
    {"00:11:22:33:44:55", ARPHRD_PPP, false},
    {"00:11:22:33:44:55", ARPHRD_LOOPBACK, false},
    {"00:11:22:33:44:55", ARPHRD_EETHER, false},
    {"00:11:22:33:44:55", ARPHRD_IEEE80211, false},
    {"00:11:22:33:44:55", ARPHRD_IEEE80211_RADIOTAP, false},
    {"00:11:22:33:44:55", ARPHRD_NETROM, false},
    {"00:11:22:33:44:55", 0x0101, false},
    {"00:11:22:33:44:55", ARPHRD_VOID, false},
};

// The interface is seen with an address or without: the same holds for both.
TEST_F(OrvIpInfo, OnlyBurnedInEthernetHardwareIsTaken) {
    for (const HardwareRow& row : HARDWARE) {
        for (const bool isConfigured : {true, false}) {
            SCOPED_TRACE(row.mac + " family "s + std::to_string(row.family) + (isConfigured ? " configured" : ""));
            Machine machine({{.name = "eth0", .mac = row.mac, .family = row.family}});
            if (isConfigured) {
                machine.configured = {"eth0"};
                machine.names = {NO_MORE_NAMES};
            }
            EXPECT_EQ(listingOf(machine), row.taken ? Lines{"eth0 kind 1 mac "s + row.mac} : Lines{});
            EXPECT_EQ(macs(m_oInfo), row.taken ? Lines{row.mac} : Lines{});
        }
    }
}

TEST_F(OrvIpInfo, LaterLookReplacesTheEarlier) {
    Machine machine({wlan("if0", MAC_0, {HOME})});
    machine.entries.clear();
    machine.onCall = [&](const std::string& call) {
        if (call == "if_nameindex") {
            machine.devices["if0"] = machine.hardware["if0"] = ethernet("if0", MAC_1);
        }
    };
    EXPECT_THAT(listingOf(machine), ElementsAre("if0 kind 1 mac " + MAC_1));
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0, MAC_1));
}

TEST_F(OrvIpInfo, LaterLookThatFindsNoKindKeepsTheEarlier) {
    Machine machine({ethernet("if0", MAC_0, {HOME})});
    machine.entries.clear();
    machine.onCall = [&](const std::string& call) {
        if (call == "if_nameindex") {
            machine.devices["if0"].devtype = "bridge";
        }
    };
    EXPECT_THAT(listingOf(machine), ElementsAre("if0 kind 1 mac " + MAC_0));
}

TEST_F(OrvIpInfo, TwoInterfacesMayShareOneHardwareAddress) {
    Machine machine({ethernet("eth0", MAC_0), wlan("wlan0", MAC_0)});
    EXPECT_THAT(listingOf(machine), ElementsAre("eth0 kind 1 mac " + MAC_0, "wlan0 kind 3 mac " + MAC_0));
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0));
}

// The names.

TEST_F(OrvIpInfo, SixteenInterfacesFitTheFirstLookTheRestIsSeenInTheSecond) {
    static_assert(sizeof(ifreq) == 40);
    for (const int count : {15, 16, 17, 40}) {
        SCOPED_TRACE(count);
        Machine machine(many(count));
        const Lines records = take(machine);
        const auto countOf = [&](const std::string& prefix) {
            return std::count_if(records.begin(), records.end(),
                                 [&](const std::string& record) { return record.starts_with(prefix); });
        };
        EXPECT_EQ(countOf("DEBUG Name: eth"), std::min(count, 16));
        EXPECT_EQ(countOf("DEBUG More Name: eth"), count);
        EXPECT_EQ(m_oInfo.m_mapInterfaces.size(), static_cast<size_t>(count));
        EXPECT_EQ(m_oInfo.m_mapMacs.size(), static_cast<size_t>(count));
    }
}

struct LengthRow {
    int length;
    Lines records;
};

TEST_F(OrvIpInfo, FirstLookTakesWholeEntries) {
    const LengthRow rows[] = {
        {-1, {}},
        {0, {}},
        {39, {}},
        {40, {"DEBUG Name: eth10"}},
        {79, {"DEBUG Name: eth10"}},
        {80, {"DEBUG Name: eth10", "DEBUG Name: eth11"}},
    };
    for (const LengthRow& row : rows) {
        SCOPED_TRACE(row.length);
        Machine machine(many(2));
        machine.names = {NO_MORE_NAMES};
        machine.entries.clear();
        machine.configuredLength = row.length;
        EXPECT_EQ(take(machine), row.records);
        EXPECT_EQ(m_oInfo.m_mapInterfaces.size(), row.records.size());
        EXPECT_THAT(machine.calls, Contains("if_nameindex"));
    }
}

TEST_F(OrvIpInfo, SecondLookEndsAtTheFirstEntryWithoutNameOrIndex) {
    const std::vector<IndexedName> lists[] = {
        {{1, "eth0"}, {0, "eth1"}},
        {{1, "eth0"}, {2, std::nullopt}},
        {{1, "eth0"}, NO_MORE_NAMES},
        {{1, "eth0"}, NO_MORE_NAMES, {2, "eth1"}},
    };
    for (const std::vector<IndexedName>& names : lists) {
        Machine machine({ethernet("eth0", MAC_0), ethernet("eth1", MAC_1)});
        machine.names = names;
        EXPECT_THAT(take(machine), ElementsAre("DEBUG More Name: eth0"));
        EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0));
    }
}

TEST_F(OrvIpInfo, LongestNameIsTakenWhole) {
    const std::string longest = "abcdefghijklmno";
    Machine machine({ethernet(longest, MAC_0, {HOME})});
    EXPECT_THAT(take(machine),
                ElementsAre("DEBUG Name: " + longest, "DEBUG More Name: " + longest, "DEBUG AF_INET: " + HOME.address));
    EXPECT_THAT(namesOf(m_oInfo), ElementsAre(longest));
}

// No kernel has such names; they must not run over the request.
TEST_F(OrvIpInfo, NameTooLongForTheRequestIsCut) {
    for (const std::string& tooLong : {"abcdefghijklmnop"s, "abcdefghijklmnopq"s, std::string(4000, 'x')}) {
        Machine machine({ethernet(tooLong.substr(0, 15))});
        machine.names = {{1, tooLong}, NO_MORE_NAMES};
        machine.entries.clear();
        take(machine);
        EXPECT_THAT(machine.calls, Contains("SIOCGIFHWADDR " + tooLong.substr(0, 15)));
        EXPECT_THAT(namesOf(m_oInfo), ElementsAre(tooLong.substr(0, 15)));
    }
}

TEST_F(OrvIpInfo, LabelOfAnAddressIsNotAnInterface) {
    Machine machine({ethernet("eth0", MAC_0, {HOME})});
    machine.configured = {"eth0", "eth0:1"};
    machine.hardware["eth0:1"] = machine.hardware["eth0"];
    machine.entries.push_back(ipEntry("eth0:1", SECOND));
    EXPECT_THAT(take(machine), ElementsAre("DEBUG Name: eth0", "DEBUG Name: eth0:1", "DEBUG More Name: eth0",
                                           "DEBUG AF_INET: 192.168.1.2"));
    EXPECT_THAT(namesOf(m_oInfo), ElementsAre("eth0"));
}

// What is up and what is down.

TEST_F(OrvIpInfo, EthernetThatIsUpWithoutAddressIsListed) {
    Machine machine({ethernet("eth0")});
    EXPECT_THAT(listingOf(machine), ElementsAre("eth0 kind 1 mac " + MAC_0));
    const ORVIPInfo::IpInterface& interface = m_oInfo.m_mapInterfaces.at("eth0");
    EXPECT_FALSE(interface.running) << "the link alone doesn't tell";
    EXPECT_THAT(interface.ipv4, IsEmpty());
    EXPECT_THAT(interface.ipv6, IsEmpty());
}

TEST_F(OrvIpInfo, InterfaceThatIsDownLeavesOnlyItsHardwareAddress) {
    for (const unsigned flags : {DOWN, DOWN | IFF_RUNNING}) {
        for (const std::vector<Address>& addresses : {std::vector<Address>{}, {HOME, GLOBAL_6}}) {
            Machine machine({ethernet("eth0", MAC_0, addresses, flags)});
            EXPECT_THAT(listingOf(machine), IsEmpty());
            EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0));
        }
    }
}

// Its kind is looked at first: what has none by then is passed over.
TEST_F(OrvIpInfo, OneThatIsDownAndHasNoKindAnyMoreStaysListed) {
    Machine machine({ethernet("if0", MAC_0, {}, DOWN)});
    machine.onCall = [&](const std::string& call) {
        if (call == "getifaddrs") {
            machine.devices["if0"].devtype = "bridge";
        }
    };
    EXPECT_THAT(listingOf(machine), ElementsAre("if0 kind 1 mac " + MAC_0));
}

TEST_F(OrvIpInfo, OneThatIsDownDoesNotTouchTheOthers) {
    Machine machine({ethernet("eth0", MAC_0, {}, DOWN), ethernet("eth1", MAC_1)});
    EXPECT_THAT(listingOf(machine), ElementsAre("eth1 kind 1 mac " + MAC_1));
}

TEST_F(OrvIpInfo, EntryWithoutAddressIsPassedOver) {
    Machine machine({ethernet("eth0")});
    machine.entries = {{"eth0", DOWN}, {"eth0", UP}};
    EXPECT_THAT(listingOf(machine), ElementsAre("eth0 kind 1 mac " + MAC_0)) << "not even being down counts";
    EXPECT_THAT(machine.callsWithout("udev "), Contains("getifaddrs"));
}

TEST_F(OrvIpInfo, BeingDownCountsForAddressesOfAnyFamily) {
    for (const Bytes& address : {otherAddress(AF_PACKET), otherAddress(AF_UNIX), socketAddress(HOME.address),
                                 socketAddress(GLOBAL_6.address)}) {
        Machine machine({ethernet("eth0")});
        machine.entries = {{"eth0", DOWN, address}};
        EXPECT_THAT(listingOf(machine), IsEmpty());
    }
}

TEST_F(OrvIpInfo, OtherFamiliesAddNothing) {
    for (const int family : {AF_UNSPEC, AF_UNIX, AF_PACKET, AF_X25}) {
        Machine machine({wlan("wlan0", LOCAL_MAC)});
        machine.entries = {{"wlan0", UP, otherAddress(family)}};
        EXPECT_THAT(listingOf(machine), IsEmpty());
        EXPECT_THAT(machine.calls, Contains("udev device wlan0"));
    }
}

TEST_F(OrvIpInfo, InterfaceThatComesUpAgainHasOnlyWhatTheAddressReports) {
    Machine machine({ethernet("eth0", MAC_0, {HOME})});
    machine.entries = {ipEntry("eth0", {"10.0.0.1"}), linkEntry("eth0", DOWN), ipEntry("eth0", {"10.0.0.2"})};
    EXPECT_THAT(listingOf(machine), ElementsAre("eth0 kind 1 running", "  4: 10.0.0.2"));
}

TEST_F(OrvIpInfo, KindOfTheLastAddressCounts) {
    Machine machine({ethernet("if0", MAC_0, {HOME})});
    machine.onCall = [&](const std::string& call) {
        if (call == "getifaddrs") {
            machine.devices["if0"].devtype = "wwan";
        }
    };
    take(machine);
    EXPECT_EQ(m_oInfo.m_mapInterfaces.at("if0").type, ORVIPInfo::IfaceWwan);
    EXPECT_EQ(m_oInfo.m_mapInterfaces.at("if0").mac, MAC_0);
}

TEST_F(OrvIpInfo, LastAddressDecidesWhetherTheLinkRuns) {
    const unsigned idle = UP & ~static_cast<unsigned>(IFF_RUNNING);
    for (const bool runs : {true, false}) {
        Machine machine({ethernet("eth0")});
        machine.entries = {ipEntry("eth0", {"10.0.0.1"}, runs ? idle : UP),
                           ipEntry("eth0", {"2001:db8::1"}, runs ? UP : idle), linkEntry("eth0", runs ? idle : UP)};
        take(machine);
        EXPECT_EQ(m_oInfo.m_mapInterfaces.at("eth0").running, runs);
    }
}

TEST_F(OrvIpInfo, LocallyAdministeredWlanIsListedOnceItHasAnAddress) {
    Machine without({wlan("wlan0", LOCAL_MAC)});
    EXPECT_THAT(listingOf(without), IsEmpty());
    Machine with({wlan("wlan0", LOCAL_MAC, {{"10.0.0.1"}})});
    EXPECT_THAT(listingOf(with), ElementsAre("wlan0 kind 3 running", "  4: 10.0.0.1"));
    EXPECT_THAT(macs(m_oInfo), IsEmpty());
}

TEST_F(OrvIpInfo, PppIsListedWithItsPeer) {
    Machine machine({ppp("ppp0", {{"10.64.0.1", "255.255.255.255", "10.64.0.2"}})});
    EXPECT_THAT(listingOf(machine),
                ElementsAre("ppp0 kind 2 running", "  4: 10.64.0.1 mask 255.255.255.255 to 10.64.0.2"));
    EXPECT_THAT(macs(m_oInfo), IsEmpty());
}

TEST_F(OrvIpInfo, LoopbackIsNeverListed) {
    Machine machine({loopback()});
    EXPECT_THAT(listingOf(machine), IsEmpty());
    EXPECT_THAT(macs(m_oInfo), IsEmpty());
}

// The system's own calls answer here, whatever the machine of the test has.
TEST_F(OrvIpInfo, LoopbackOfThisMachineIsNotListed) {
    m_oInfo.init();
    EXPECT_THAT(namesOf(m_oInfo), Not(Contains("lo")));
    for (const std::string& record : m_oCollector.lines()) {
        EXPECT_EQ(record.find("WARN"), std::string::npos) << record;
    }
}

// Addresses.

struct OtherRow {
    const char* what;
    unsigned flags;
    Address address;
    std::string line;
};

TEST_F(OrvIpInfo, FlagsDecideWhatTheOtherAddressIs) {
    const OtherRow rows[] = {
        {"broadcast", IFF_BROADCAST, HOME, "192.168.1.2 mask 255.255.255.0 broadcast 192.168.1.255"},
        {"a link", IFF_POINTOPOINT, HOME, "192.168.1.2 mask 255.255.255.0 to 192.168.1.255"},
        {"both", IFF_BROADCAST | IFF_POINTOPOINT, HOME, "192.168.1.2 mask 255.255.255.0 to 192.168.1.255"},
        {"neither", 0, HOME, "192.168.1.2 mask 255.255.255.0"},
        {"no broadcast address", IFF_BROADCAST, {"10.0.0.1", "255.0.0.0", ""}, "10.0.0.1 mask 255.0.0.0"},
        {"no peer", IFF_POINTOPOINT, {"10.0.0.1", "255.0.0.0", ""}, "10.0.0.1 mask 255.0.0.0"},
        {"no mask", IFF_BROADCAST, {"10.0.0.1", "", "10.255.255.255"}, "10.0.0.1 broadcast 10.255.255.255"},
        {"IPv6 peer", IFF_POINTOPOINT, {"2001:db8::1", "", "2001:db8::2"}, "2001:db8::1 to 2001:db8::2"},
        {"IPv6 has no broadcast", IFF_BROADCAST, GLOBAL_6, "2001:db8::2 mask ffff:ffff:ffff:ffff::"},
    };
    for (const OtherRow& row : rows) {
        SCOPED_TRACE(row.what);
        Machine machine({ethernet("eth0", MAC_0, {row.address}, IFF_UP | row.flags)});
        EXPECT_THAT(listingOf(machine),
                    ElementsAre("eth0 kind 1 mac " + MAC_0, (row.address.isIpv6() ? "  6: " : "  4: ") + row.line));
    }
}

TEST_F(OrvIpInfo, LinkLocalAddressHasItsZone) {
    Machine machine({ethernet("eth0")});
    machine.entries = {{"eth0", UP, socketAddress("fe80::1", 2'000'000'000)}};
    EXPECT_THAT(listingOf(machine), ElementsAre("eth0 kind 1 mac " + MAC_0 + " running", "  6: fe80::1%2000000000"));
}

TEST_F(OrvIpInfo, AddressesKeepTheSystemsOrder) {
    Machine machine({ethernet("eth0")});
    machine.entries.clear();
    for (const char* address : {"10.0.0.9", "2001:db8::9", "10.0.0.1", "2001:db8::1", "10.0.0.9"}) {
        machine.entries.push_back(ipEntry("eth0", {address}));
    }
    EXPECT_THAT(listingOf(machine),
                ElementsAre("eth0 kind 1 mac " + MAC_0 + " running", "  4: 10.0.0.9", "  4: 10.0.0.1", "  4: 10.0.0.9",
                            "  6: 2001:db8::9", "  6: 2001:db8::1"));
}

// Failures. That everything is given back is what each Machine sees to in its end.

class OrvIpInfoFailure : public OrvIpInfo {
protected:
    OrvIpInfoFailure() {
        Machine earlier({ethernet("old0", "00:00:00:00:00:01", {HOME})});
        take(earlier);
    }

    Machine m_oMachine{{ethernet("eth0", MAC_0, {HOME}), ethernet("eth1", MAC_1, {}, DOWN)}};
};

TEST_F(OrvIpInfoFailure, OfUdevLeavesNothing) {
    m_oMachine.failing = {"udev_new"};
    EXPECT_THAT(take(m_oMachine), ElementsAre("WARN udev_new() failed"));
    EXPECT_THAT(m_oInfo.m_mapMacs, IsEmpty());
    EXPECT_THAT(m_oInfo.m_mapInterfaces, IsEmpty());
    EXPECT_THAT(m_oMachine.calls, ElementsAre("udev_new"));
}

TEST_F(OrvIpInfoFailure, OfTheSocketLeavesTheAddresses) {
    m_oMachine.failing = {"socket"};
    EXPECT_THAT(take(m_oMachine), ElementsAre("DEBUG AF_INET: 192.168.1.2"));
    EXPECT_THAT(listing(m_oInfo),
                ElementsAre("eth0 kind 1 running", "  4: 192.168.1.2 mask 255.255.255.0 broadcast 192.168.1.255"));
    EXPECT_THAT(macs(m_oInfo), IsEmpty());
    EXPECT_THAT(m_oMachine.callsWithout("udev "),
                ElementsAre("udev_new", "socket", "getifaddrs", "getnameinfo 192.168.1.2", "getnameinfo 255.255.255.0",
                            "getnameinfo 192.168.1.255", "freeifaddrs", "udev_unref"));
}

TEST_F(OrvIpInfoFailure, OfTheFirstLookLeavesTheSecond) {
    m_oMachine.failing = {"SIOCGIFCONF"};
    EXPECT_THAT(take(m_oMachine),
                ElementsAre("DEBUG More Name: eth0", "DEBUG More Name: eth1", "DEBUG AF_INET: 192.168.1.2"));
    EXPECT_EQ(m_oInfo.m_mapInterfaces.at("eth0").mac, MAC_0);
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0, MAC_1));
}

TEST_F(OrvIpInfoFailure, OfTheSecondLookLeavesTheFirst) {
    m_oMachine.failing = {"if_nameindex"};
    EXPECT_THAT(take(m_oMachine), ElementsAre("DEBUG Name: eth0", "DEBUG AF_INET: 192.168.1.2"));
    EXPECT_EQ(m_oInfo.m_mapInterfaces.at("eth0").mac, MAC_0);
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0));
    EXPECT_THAT(m_oMachine.calls, Not(Contains("if_freenameindex")));
}

TEST_F(OrvIpInfoFailure, OfAHardwareAddressLeavesTheAddresses) {
    m_oMachine.failing = {"SIOCGIFHWADDR eth0"};
    EXPECT_THAT(take(m_oMachine), ElementsAre("DEBUG Name: eth0", "DEBUG More Name: eth0", "DEBUG More Name: eth1",
                                              "DEBUG AF_INET: 192.168.1.2"));
    EXPECT_EQ(m_oInfo.m_mapInterfaces.at("eth0").mac, "");
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_1));
}

TEST_F(OrvIpInfoFailure, OfTheDeviceLeavesTheHardwareAddress) {
    m_oMachine.failing = {"udev device eth0"};
    EXPECT_THAT(take(m_oMachine), ElementsAre("DEBUG Name: eth0", "DEBUG More Name: eth0", "DEBUG More Name: eth1"));
    EXPECT_THAT(m_oInfo.m_mapInterfaces, IsEmpty());
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0, MAC_1));
}

TEST_F(OrvIpInfoFailure, OfTheAttributeLeavesTheHardwareAddress) {
    m_oMachine.failing = {"udev attribute eth0"};
    EXPECT_THAT(listingOf(m_oMachine), IsEmpty());
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0, MAC_1));
}

TEST_F(OrvIpInfoFailure, OfTheListOfAddressesLeavesWhatWasFound) {
    m_oMachine.failing = {"getifaddrs"};
    EXPECT_THAT(take(m_oMachine), ElementsAre("DEBUG Name: eth0", "DEBUG More Name: eth0", "DEBUG More Name: eth1",
                                              "WARN getifaddrs() failed"));
    EXPECT_THAT(listing(m_oInfo), ElementsAre("eth0 kind 1 mac " + MAC_0, "eth1 kind 1 mac " + MAC_1));
    EXPECT_THAT(macs(m_oInfo), ElementsAre(MAC_0, MAC_1));
    EXPECT_THAT(m_oMachine.calls, Not(Contains("freeifaddrs")));
}

TEST_F(OrvIpInfoFailure, OfAConversionEndsTheSnapshotThere) {
    for (const int error : {EAI_FAMILY, EAI_MEMORY, EAI_SYSTEM, EAI_OVERFLOW, EAI_AGAIN}) {
        Machine machine({ethernet("eth0", MAC_0, {{"10.0.0.1"}, {"10.0.0.2"}, {"10.0.0.3"}, {"2001:db8::1"}}),
                         ethernet("eth1", MAC_1, {HOME})});
        machine.entries.push_back(linkEntry("eth0", DOWN));
        machine.conversionFailures = {{"10.0.0.2", error}};
        const Lines records = take(machine);
        EXPECT_EQ(records.back(), "WARN getnameinfo() failed: "s + gai_strerror(error));
        EXPECT_EQ(*std::prev(records.end(), 2), "DEBUG AF_INET: 10.0.0.1");
        EXPECT_THAT(listing(m_oInfo),
                    ElementsAre("eth0 kind 1 mac " + MAC_0 + " running", "  4: 10.0.0.1", "eth1 kind 1 mac " + MAC_1));
    }
}

TEST_F(OrvIpInfoFailure, OfTheFirstConversionLeavesItsInterfaceWithoutAddress) {
    Machine machine({wlan("wlan0", LOCAL_MAC, {{"2001:db8::1"}})});
    machine.conversionFailures = {{"2001:db8::1", EAI_FAIL}};
    EXPECT_THAT(take(machine),
                ElementsAre("DEBUG More Name: wlan0", "WARN getnameinfo() failed: "s + gai_strerror(EAI_FAIL)));
    EXPECT_THAT(listing(m_oInfo), ElementsAre("wlan0 kind 3 running"));
}

struct FieldRow {
    const char* failing;
    unsigned flags;
    const char* line;
};

TEST_F(OrvIpInfoFailure, OfTheOtherConversionsLeavesTheFieldEmpty) {
    const FieldRow rows[] = {
        {"255.255.255.0", UP, "  4: 192.168.1.2 broadcast 192.168.1.255"},
        {"192.168.1.255", UP, "  4: 192.168.1.2 mask 255.255.255.0"},
        {"192.168.1.255", LINK_UP, "  4: 192.168.1.2 mask 255.255.255.0"},
    };
    for (const FieldRow& row : rows) {
        Machine machine({ethernet("eth0", MAC_0, {HOME, SECOND}, row.flags)});
        machine.conversionFailures = {{row.failing, EAI_MEMORY}};
        EXPECT_THAT(take(machine), ElementsAre("DEBUG Name: eth0", "DEBUG More Name: eth0",
                                               "DEBUG AF_INET: 192.168.1.2", "DEBUG AF_INET: 10.0.0.2"));
        EXPECT_EQ(listing(m_oInfo)[1], row.line);
        EXPECT_EQ(m_oInfo.m_mapInterfaces.at("eth0").ipv4.size(), 2U);
    }
}

// Whichever call fails: nothing is made up, at most one warning is given, and everything is given back.
TEST_F(OrvIpInfoFailure, OfAnyOneCallLosesDataOnly) {
    const std::vector<Interface> interfaces{ethernet("eth0", MAC_0, {HOME, GLOBAL_6}), wlan("wlan0", MAC_1, {SECOND}),
                                            ppp("ppp0", {{"10.64.0.1", "255.255.255.255", "10.64.0.2"}})};
    int nth = 0;
    for (bool wasReached = true; wasReached && nth < 1000;) {
        SCOPED_TRACE(++nth);
        Machine machine(interfaces);
        machine.failNth = nth;
        const Lines records = take(machine);
        wasReached = machine.nthWasReached;
        EXPECT_THAT(macs(m_oInfo), testing::IsSubsetOf({MAC_0, MAC_1}));
        EXPECT_THAT(namesOf(m_oInfo), testing::IsSubsetOf({"eth0", "wlan0", "ppp0"}));
        EXPECT_LE(std::count_if(records.begin(), records.end(),
                                [](const std::string& record) { return !record.starts_with("DEBUG "); }),
                  wasReached ? 1 : 0);
    }
    EXPECT_GT(nth, 40) << "as many calls can fail";
    EXPECT_LT(nth, 1000);
    EXPECT_EQ(m_oInfo.m_mapInterfaces.size(), 3U) << "the last one had no fault";
}

// The hardware address.

using MacAddress = ORVIPInfo::MacAddress;

MacAddress macOf(const std::array<unsigned char, 6>& bytes) {
    MacAddress mac;
    mac.bytes = bytes;
    return mac;
}

struct MacRow {
    std::array<unsigned char, 6> bytes;
    const char* text;
};

const MacRow MACS[] = {
    {{0, 0, 0, 0, 0, 0}, "00:00:00:00:00:00"},
    {{0, 0, 0, 0, 0, 1}, "00:00:00:00:00:01"},
    {{0, 0, 0, 0, 1, 0}, "00:00:00:00:01:00"},
    {{0, 0xff, 0xff, 0xff, 0xff, 0xff}, "00:ff:ff:ff:ff:ff"},
    {{1, 0, 0, 0, 0, 0}, "01:00:00:00:00:00"},
    {{0x01, 0x23, 0x45, 0x67, 0x89, 0xab}, "01:23:45:67:89:ab"},
    {{0x7f, 0xff, 0xff, 0xff, 0xff, 0xff}, "7f:ff:ff:ff:ff:ff"},
    {{0x80, 0, 0, 0, 0, 0}, "80:00:00:00:00:00"},
    {{0x80, 0, 0, 0, 0, 0x7f}, "80:00:00:00:00:7f"},
    {{0x80, 0, 0, 0, 0, 0x80}, "80:00:00:00:00:80"},
    {{0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}, "aa:bb:cc:dd:ee:ff"},
    {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, "ff:ff:ff:ff:ff:ff"},
};

TEST(MacAddress, IsAllZerosWhenNew) {
    EXPECT_EQ(MacAddress().toString(), "00:00:00:00:00:00");
}

TEST(MacAddress, IsWrittenAndReadInOneForm) {
    for (const MacRow& row : MACS) {
        EXPECT_EQ(macOf(row.bytes).toString(), row.text);
        MacAddress mac = macOf({9, 9, 9, 9, 9, 9});
        EXPECT_TRUE(mac.set(row.text)) << row.text;
        EXPECT_EQ(mac.bytes, row.bytes) << row.text;
    }
}

TEST(MacAddress, TakesEveryValueInEveryPlace) {
    for (size_t place = 0; place < 6; place++) {
        for (int value = 0; value < 256; value++) {
            MacAddress mac;
            mac.bytes[place] = static_cast<unsigned char>(value);
            MacAddress read;
            EXPECT_TRUE(read.set(mac.toString()));
            EXPECT_EQ(read, mac) << mac.toString();
        }
    }
}

TEST(MacAddress, RefusesEveryOtherFormAndIsZerosThen) {
    const std::string refused[] = {
        "",
        "a",
        "aa",
        ":::::",
        "aa:bb:cc:dd:ee",
        "aa:bb:cc:dd:ee:",
        "aa:bb:cc:dd:ee:f",
        "AA:BB:CC:DD:EE:FF",
        "aa:bb:cc:dd:ee:fF",
        "a:b:c:d:e:f",
        "0:0:0:0:0:0",
        "aa:bb:cc:dd:ee:ff:00",
        "aa:bb:cc:dd:ee:ff:",
        "aa:bb:cc:dd:ee:ff ",
        "aa:bb:cc:dd:ee:ff\n",
        "aa:bb:cc:dd:ee:ff\0"s,
        "aa:bb:cc:dd:ee:ff\0aa"s,
        "\0aa:bb:cc:dd:ee:ff"s,
        " aa:bb:cc:dd:ee:ff",
        "\taa:bb:cc:dd:ee:ff",
        "aa: bb:cc:dd:ee:ff",
        "aa :bb:cc:dd:ee:ff",
        " a: b: c: d: e: f",
        "aa-bb-cc-dd-ee-ff",
        "aabb.ccdd.eeff",
        "aabbccddeeff",
        "aa::bb:cc:dd:ee:ff",
        "gg:bb:cc:dd:ee:ff",
        "aa:bb:cc:dd:ee:gg",
        "aa:bb:cc:dd:ee:fg",
        "0xaa:bb:cc:dd:ee:ff",
        "0x:bb:cc:dd:ee:ff",
        "+a:bb:cc:dd:ee:ff",
        "-1:-1:-1:-1:-1:-1",
        "1aa:bb:cc:dd:ee:ff",
        "0aa:bb:cc:dd:ee:ff",
        "aa:bb:cc:dd:ee:100",
        "ffffffff:bb:cc:dd:ee:ff",
        "fffffffffffffffffffffffff:bb:cc:dd:ee:ff",
        std::string(100'000, 'a'),
    };
    for (const std::string& text : refused) {
        MacAddress mac = macOf({9, 9, 9, 9, 9, 9});
        EXPECT_FALSE(mac.set(text)) << testing::PrintToString(text.substr(0, 40));
        EXPECT_EQ(mac, MacAddress()) << testing::PrintToString(text.substr(0, 40));
    }
}

// The rows of MACS rise.
TEST(MacAddress, IsOrderedByItsBytes) {
    for (const MacRow& left : MACS) {
        for (const MacRow& right : MACS) {
            const int expected = std::memcmp(left.bytes.data(), right.bytes.data(), 6);
            EXPECT_EQ(macOf(left.bytes) < macOf(right.bytes), expected < 0) << left.text << " " << right.text;
            EXPECT_EQ(macOf(left.bytes) == macOf(right.bytes), expected == 0) << left.text << " " << right.text;
            EXPECT_EQ(macOf(left.bytes) > macOf(right.bytes), expected > 0) << left.text << " " << right.text;
            EXPECT_EQ(expected < 0, &left < &right);
        }
    }
}

}  // namespace
