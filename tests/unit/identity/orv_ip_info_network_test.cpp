// orv_ip_info_network_test.cpp: the inventory of network interfaces on a kernel's real ones.
//
// It makes its interfaces with ip and needs a network of its own for that, with a fresh /sys: the sandbox.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "identity/orv_ip_info.h"
#include "unit/record_collector.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

const std::string MAC_0 = "00:11:22:33:44:50";
const std::string MAC_1 = "00:11:22:33:44:51";
const std::string LOCAL_MAC = "02:11:22:33:44:55";

bool hasIpv6() {
    return std::filesystem::exists("/proc/net/if_inet6");
}

std::vector<std::string> kernelNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net")) {
        if (entry.is_directory()) {
            names.push_back(entry.path().filename());
        }
    }
    return names;
}

size_t openDescriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

// Every test starts with the interfaces that a new network has, and takes away those that it made.
class OrvIpInfoNetwork : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists("/run/sandbox"))
            << "this changes the network; start it with scripts/sandbox";
        m_aAtStart = kernelNames();
        ASSERT_THAT(m_aAtStart, Contains("lo"));
    }

    // TearDown also follows a SetUp that refused; the interfaces then aren't ours to take away.
    void TearDown() override {
        if (!m_aAtStart.empty()) {
            deleteNewInterfaces();
            EXPECT_THAT(kernelNames(), testing::UnorderedElementsAreArray(m_aAtStart));
        }
    }

    // deleteNewInterfaces looks at each again, as one end of a pair takes the other away with it.
    void deleteNewInterfaces() const {
        for (const std::string& name : kernelNames()) {
            const bool isNew = std::find(m_aAtStart.begin(), m_aAtStart.end(), name) == m_aAtStart.end();
            if (isNew && std::filesystem::exists("/sys/class/net/" + name)) {
                ip("link delete " + name);
            }
        }
    }

    static void ip(const std::string& arguments) {
        ASSERT_EQ(std::system(("ip " + arguments).c_str()), 0) << "ip " << arguments;
    }

    // addPair makes two Ethernet interfaces with a cable between them. Neither makes itself an IPv6 address.
    static void addPair(const std::string& left, const std::string& leftMac, const std::string& right,
                        const std::string& rightMac) {
        ip("link add " + left + " address " + leftMac + " type veth peer name " + right + " address " + rightMac);
        if (hasIpv6()) {
            ip("link set " + left + " addrgenmode none");
            ip("link set " + right + " addrgenmode none");
        }
    }

    // addEth0 makes eth0, up, with a cable to a peer of a locally administered address, which is down.
    static void addEth0(const std::string& mac = MAC_0) {
        addPair("eth0", mac, "peer0", LOCAL_MAC);
        ip("link set eth0 up");
    }

    // waitForState waits until the kernel has noticed a change of the cable.
    static void waitForState(const std::string& name, const std::string& state) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (TempFolder::contentOf("/sys/class/net/" + name + "/operstate") != state + "\n") {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << name << " isn't " << state;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    std::vector<std::string> listedNames() {
        m_oInfo.init();
        std::vector<std::string> names;
        for (const auto& [name, interface] : m_oInfo.m_mapInterfaces) {
            names.push_back(name);
        }
        return names;
    }

    // listed takes a snapshot and returns `name` in it; a default interface, which has no kind, if it isn't listed.
    ORVIPInfo::IpInterface listed(const std::string& name) {
        m_oInfo.init();
        const auto found = m_oInfo.m_mapInterfaces.find(name);
        return found == m_oInfo.m_mapInterfaces.end() ? ORVIPInfo::IpInterface() : found->second;
    }

    std::vector<std::string> macs() const {
        std::vector<std::string> result;
        for (const auto& [mac, value] : m_oInfo.m_mapMacs) {
            result.push_back(mac.toString());
            EXPECT_EQ(value, "");
        }
        return result;
    }

    std::ptrdiff_t countOfRecords(const std::string& start) const {
        const std::vector<Record>& records = m_oCollector.records();
        return std::count_if(records.begin(), records.end(), [&](const Record& record) {
            return (record.level + " " + record.text).starts_with(start);
        });
    }

    ORVIPInfo m_oInfo;
    RecordCollector m_oCollector;

private:
    std::vector<std::string> m_aAtStart;
};

// inText writes an address down with "-" for each empty field.
std::string inText(const ORVIPInfo::IPAddress& address) {
    std::string text;
    for (const std::string* field : {&address.address, &address.netmask, &address.broadcast, &address.destination}) {
        text += (text.empty() ? "" : " ") + (field->empty() ? "-" : *field);
    }
    return text;
}

std::vector<std::string> inText(const std::vector<ORVIPInfo::IPAddress>& addresses) {
    std::vector<std::string> texts;
    for (const ORVIPInfo::IPAddress& address : addresses) {
        texts.push_back(inText(address));
    }
    return texts;
}

TEST_F(OrvIpInfoNetwork, OfLoopbackAloneIsEmpty) {
    EXPECT_THAT(kernelNames(), Contains("lo"));
    EXPECT_THAT(listedNames(), IsEmpty());
    EXPECT_THAT(macs(), IsEmpty());
    EXPECT_EQ(countOfRecords("DEBUG Name: lo"), 1) << "it has an address";
    EXPECT_EQ(countOfRecords("DEBUG More Name: lo"), 1);
}

TEST_F(OrvIpInfoNetwork, EthernetThatIsUpWithoutAddressIsListed) {
    addEth0();
    const ORVIPInfo::IpInterface eth0 = listed("eth0");
    EXPECT_EQ(eth0.type, ORVIPInfo::IfaceEthernet);
    EXPECT_EQ(eth0.mac, MAC_0);
    EXPECT_FALSE(eth0.running);
    EXPECT_THAT(eth0.ipv4, IsEmpty());
    EXPECT_THAT(eth0.ipv6, IsEmpty());
    EXPECT_THAT(macs(), ElementsAre(MAC_0));
    EXPECT_EQ(countOfRecords("DEBUG Name: eth0"), 0);
    EXPECT_EQ(countOfRecords("DEBUG More Name: eth0"), 1);
    EXPECT_EQ(countOfRecords("WARN"), 0);
}

TEST_F(OrvIpInfoNetwork, InterfaceThatIsDownLeavesOnlyItsHardwareAddress) {
    addEth0();
    ip("address add 10.1.0.1/24 dev eth0");
    EXPECT_THAT(listedNames(), ElementsAre("eth0"));
    ip("link set eth0 down");
    EXPECT_THAT(listedNames(), IsEmpty());
    EXPECT_THAT(macs(), ElementsAre(MAC_0));
}

TEST_F(OrvIpInfoNetwork, RunningFollowsTheCable) {
    addEth0();
    ip("address add 10.1.0.1/24 dev eth0");
    ip("link set peer0 up");
    waitForState("eth0", "up");
    EXPECT_TRUE(listed("eth0").running);

    ip("link set peer0 down");
    waitForState("eth0", "lowerlayerdown");
    EXPECT_EQ(listed("eth0").mac, MAC_0) << "it stays listed";
    EXPECT_FALSE(listed("eth0").running);
}

TEST_F(OrvIpInfoNetwork, WithoutAddressNothingRuns) {
    addEth0();
    ip("link set peer0 up");
    waitForState("eth0", "up");
    EXPECT_EQ(listed("eth0").mac, MAC_0);
    EXPECT_FALSE(listed("eth0").running);
}

TEST_F(OrvIpInfoNetwork, AddressesAreListedWithWhatBelongsToThem) {
    addEth0();
    ip("address add 10.1.0.9/24 broadcast + dev eth0");
    ip("address add 172.16.5.1/12 broadcast 172.31.255.255 dev eth0");
    EXPECT_THAT(inText(listed("eth0").ipv4), ElementsAre("10.1.0.9 255.255.255.0 10.1.0.255 -",  //
                                                         "172.16.5.1 255.240.0.0 172.31.255.255 -"));
    EXPECT_EQ(countOfRecords("DEBUG AF_INET: 10.1.0.9"), 1);
    EXPECT_EQ(countOfRecords("DEBUG AF_INET: 172.16.5.1"), 1);
}

// The kernel keeps the peer, but the interface is not a link from point to point: libc reports the peer as broadcast.
TEST_F(OrvIpInfoNetwork, PeerOnAnEthernetInterfaceIsNotADestination) {
    addEth0();
    ip("address add 10.1.0.1 peer 10.1.0.2 dev eth0");
    EXPECT_THAT(inText(listed("eth0").ipv4), ElementsAre("10.1.0.1 255.255.255.255 10.1.0.2 -"));
}

TEST_F(OrvIpInfoNetwork, AddressWithALabelOfItsOwnIsLeftOut) {
    addEth0();
    ip("address add 10.1.0.1/24 broadcast + dev eth0");
    ip("address add 10.2.0.1/24 broadcast + dev eth0 label eth0:1");
    EXPECT_THAT(inText(listed("eth0").ipv4), ElementsAre("10.1.0.1 255.255.255.0 10.1.0.255 -"));
    EXPECT_THAT(listedNames(), ElementsAre("eth0"));
    EXPECT_THAT(macs(), ElementsAre(MAC_0));
}

TEST_F(OrvIpInfoNetwork, Ipv6AddressesAreListedWithTheirZone) {
    addEth0();
    if (hasIpv6()) {
        ip("address add 2001:db8::1/64 dev eth0 nodad");
        ip("address add fe80::1/10 dev eth0 nodad");
    }
    const std::vector<std::string> expected{"2001:db8::1 ffff:ffff:ffff:ffff:: - -", "fe80::1%eth0 ffc0:: - -"};
    EXPECT_THAT(inText(listed("eth0").ipv6),
                testing::UnorderedElementsAreArray(hasIpv6() ? expected : std::vector<std::string>{}));
    EXPECT_THAT(listed("eth0").ipv4, IsEmpty());
}

TEST_F(OrvIpInfoNetwork, LocallyAdministeredInterfaceIsListedOnceItHasAnAddress) {
    addEth0("06:11:22:33:44:55");
    EXPECT_THAT(listedNames(), IsEmpty());
    ip("address add 10.1.0.1/24 broadcast + dev eth0");
    const ORVIPInfo::IpInterface eth0 = listed("eth0");
    EXPECT_EQ(eth0.type, ORVIPInfo::IfaceEthernet);
    EXPECT_EQ(eth0.mac, "");
    EXPECT_THAT(inText(eth0.ipv4), ElementsAre("10.1.0.1 255.255.255.0 10.1.0.255 -"));
    EXPECT_THAT(macs(), IsEmpty());
}

TEST_F(OrvIpInfoNetwork, BridgeLeavesOnlyItsHardwareAddress) {
    ip("link add bridge0 address " + MAC_1 + " type bridge");
    ip("link set bridge0 up");
    ip("address add 10.1.0.1/24 dev bridge0");
    EXPECT_THAT(listedNames(), IsEmpty());
    EXPECT_THAT(macs(), ElementsAre(MAC_1));
    EXPECT_EQ(countOfRecords("DEBUG Name: bridge0"), 1);
}

TEST_F(OrvIpInfoNetwork, MacvlanCountsAsEthernet) {
    addEth0();
    ip("link add link eth0 name macvlan0 address " + MAC_1 + " type macvlan");
    ip("link set macvlan0 up");
    EXPECT_EQ(listed("macvlan0").type, ORVIPInfo::IfaceEthernet);
    EXPECT_EQ(listed("macvlan0").mac, MAC_1);
    EXPECT_THAT(macs(), ElementsAre(MAC_0, MAC_1));
}

TEST_F(OrvIpInfoNetwork, MoreThanSixteenInterfacesAreAllListed) {
    const std::string places[] = {"a", "b"};
    std::vector<std::string> names;
    std::vector<std::string> allMacs;
    for (int i = 10; i < 20; i++) {
        const std::string number = std::to_string(i);
        for (const std::string& place : places) {
            names.push_back(place + number);
            allMacs.push_back("00:11:22:33:4" + place + ":" + number);
        }
        addPair("a" + number, "00:11:22:33:4a:" + number, "b" + number, "00:11:22:33:4b:" + number);
        for (const std::string& place : places) {
            ip("link set " + place + number + " up");
            ip("address add 10." + number + ".0." + (place == "a" ? "1" : "2") + "/24 dev " + place + number);
        }
    }
    EXPECT_THAT(listedNames(), testing::UnorderedElementsAreArray(names));
    EXPECT_THAT(macs(), testing::UnorderedElementsAreArray(allMacs));
    for (const auto& [name, interface] : m_oInfo.m_mapInterfaces) {
        EXPECT_EQ(interface.ipv4.size(), 1U) << name;
    }
    EXPECT_EQ(countOfRecords("DEBUG Name: "), 16);
    EXPECT_EQ(countOfRecords("DEBUG More Name: "), static_cast<std::ptrdiff_t>(kernelNames().size()));
}

TEST_F(OrvIpInfoNetwork, LongestNameIsTakenWhole) {
    const std::string longest = "abcdefghijklmno";
    static_assert(IFNAMSIZ == 16);
    addPair(longest, MAC_0, "peer0", LOCAL_MAC);
    ip("link set " + longest + " up");
    ip("address add 10.1.0.1/24 dev " + longest);
    EXPECT_THAT(listedNames(), ElementsAre(longest));
    EXPECT_EQ(m_oInfo.m_mapInterfaces.at(longest).mac, MAC_0);
    EXPECT_EQ(m_oInfo.m_mapInterfaces.at(longest).ipv4.size(), 1U);
}

TEST_F(OrvIpInfoNetwork, NextSnapshotForgetsWhatIsGone) {
    addEth0();
    ip("address add 10.1.0.1/24 dev eth0");
    EXPECT_THAT(listedNames(), ElementsAre("eth0"));
    ip("link delete eth0");
    EXPECT_THAT(listedNames(), IsEmpty());
    EXPECT_THAT(macs(), IsEmpty());
}

TEST_F(OrvIpInfoNetwork, SnapshotLeavesNoDescriptorOpen) {
    addEth0();
    const size_t before = openDescriptors();
    for (int i = 0; i < 20; i++) {
        EXPECT_THAT(listedNames(), ElementsAre("eth0"));
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
