// orv_ip_info.h: the network interfaces of this device and its burned-in hardware addresses.
//
// The kernel is asked in three ways, because none of them sees everything: for the interfaces with an IPv4 address, for
// the names of all interfaces, and for the list of addresses. libudev knows what kind an interface is. The loopback,
// bridges, VLANs and the like are left out.
#pragma once

#include <array>
#include <compare>
#include <map>
#include <string>
#include <vector>

// ORVIPInfo holds a snapshot of the interfaces; a derived class calls `init` to take it. Both maps are empty before.
//
// No failure is fatal: what cannot be read is absent from the maps. A WARN record says that libudev could not be
// started, that the list of addresses could not be read, or that an interface's own address could not be converted.
// Each name seen and each address taken has a DEBUG record.
class ORVIPInfo {
public:
    // InterfaceType is the kind of an interface, by udev's device type (DEVTYPE) or, if it has none, the sysfs
    // attribute "type".
    enum InterfaceType {
        IfaceNone = 0,      // everything else, never listed
        IfaceEthernet = 1,  // no device type, attribute "1"
        IfacePpp = 2,       // no device type, attribute "512"
        IfaceWlan = 3,      // device type "wlan"
        IfaceWwan = 4,      // device type "wwan"
    };

    // MacAddress is a hardware address. A new one is all zeros.
    struct MacAddress {
        // toString returns the six bytes as two lower-case hexadecimal digits each, with colons between.
        std::string toString() const;

        // set takes the address from `text`, which must be exactly what `toString` returns for it. It
        // returns false for anything else and leaves zeros.
        bool set(const std::string& text);

        // operator<=> compares byte by byte, from the first.
        auto operator<=>(const MacAddress& other) const = default;

        // bytes holds the address in the order in which it is written.
        std::array<unsigned char, 6> bytes{};
    };

    // IPAddress is one address of an interface and what belongs to it, as numbers in text form; what is missing is
    // empty. A link-local IPv6 address ends in "%" and its zone.
    struct IPAddress {
        // address is the interface's own address.
        std::string address;

        // netmask is the mask of the network, in the form of an address.
        std::string netmask;

        // broadcast is only there for a link that can broadcast and is not point to point. For an IPv4 address that was
        // set without one, libc reports the address itself, or that of its peer.
        std::string broadcast;

        // destination is the other end's address, only there for a point-to-point link.
        std::string destination;
    };

    // IpInterface is one usable interface.
    struct IpInterface {
        // running is true if the link was in operation at the last address seen; false for an interface without
        // addresses.
        bool running = false;

        // type is the kind of interface, one of InterfaceType.
        int type = IfaceNone;

        // mac is the hardware address as MacAddress writes it. It is empty for an interface that has none, or none that
        // is burned in, and is listed for its addresses.
        std::string mac;

        // ipv4 and ipv6 hold the addresses in the order in which the system lists them. An IPv4 address with a label of
        // its own, such as "eth0:1", is left out: the system lists it under the label, which names no interface.
        std::vector<IPAddress> ipv4;
        std::vector<IPAddress> ipv6;
    };

    virtual ~ORVIPInfo() = default;

    // init takes a new snapshot in place of the old. An interface is listed if it is up, is of a kind other than
    // IfaceNone and has a burned-in hardware address or an IP address. A fault in the middle keeps what was found by
    // then; if the addresses could not be read, that includes interfaces that are down.
    virtual void init();

    // m_mapMacs has a key for every Ethernet hardware address found that is neither multicast nor locally administered,
    // whether or not its interface is listed. The values are empty; they are there for the derived class.
    std::map<MacAddress, std::string> m_mapMacs;

    // m_mapInterfaces has the listed interfaces by the kernel's name.
    std::map<std::string, IpInterface> m_mapInterfaces;
};
