// identity_alloc_test.cpp: the identifiers and the network's inventory under exhausted memory: std::bad_alloc comes
// out, nothing is left, and what is there then is true. It replaces operator new, and needs files and a network of its
// own: the sandbox.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "identity/orv_ip_info.h"
#include "identity/orv_serial.h"
#include "runtime/orvlog.h"
#include "unit/alloc_faults.h"

namespace {

const std::string LONG_VALUE = "a-value-that-fits-into-no-short-string";
const std::string MAC = "00:11:22:33:44:50";

class ExhaustedIdentity : public testing::TestWithParam<AllocFaults::Mode> {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists("/run/sandbox")) << "start this with scripts/sandbox";
        log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
        std::ofstream("/run/sandbox/cpuinfo") << "Hardware : " << LONG_VALUE << "\nSerial : " << LONG_VALUE << "\n";
        std::ofstream("/etc/orvanta/identifiers") << "ORV_USER_SN='" << LONG_VALUE << "'\n"
                                                  << "ORV_MAIN_IFACE_NAME=" << LONG_VALUE << "\n";
    }

    // expectThrows has each allocation of `body` fail, expects std::bad_alloc, and checks each time.
    static void expectThrows(const std::function<void()>& body, const std::function<void()>& check) {
        body();
        for (std::size_t n = 0;; ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            EXPECT_EQ(failingAt(n, GetParam(), body), gs_oAllocFaults.hit);
            const bool wasHit = gs_oAllocFaults.hit;
            check();
            if (!wasHit || HasFailure()) {
                EXPECT_LT(0u, n);
                return;
            }
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Identity, ExhaustedIdentity, testing::Values(AllocFaults::One, AllocFaults::AllFollowing),
                         [](const auto& test) { return test.param == AllocFaults::One ? "OneFault" : "AllFromThere"; });

void expectTrueOrPlaceholder(bool has, const std::string& text, const std::string& placeholder) {
    EXPECT_EQ(text, has ? LONG_VALUE : placeholder);
}

// loadWithoutSpareRoom lets no text keep its memory, so that each needs some again.
void loadWithoutSpareRoom() {
    for (std::string* text : {&ORVSerial::ms_strSerialNumber, &ORVSerial::ms_strDeviceType,
                              &ORVSerial::ms_strUserSerialNumber, &ORVSerial::ms_strMainNetIface})
        std::string().swap(*text);
    ORVSerial::load();
}

TEST_P(ExhaustedIdentity, IdentifierIsTrueOrNotDefined) {
    expectThrows(loadWithoutSpareRoom, [] {
        const std::string none = "[not defined]";
        expectTrueOrPlaceholder(ORVSerial::ms_bHasSerialNumber, ORVSerial::ms_strSerialNumber, none);
        expectTrueOrPlaceholder(ORVSerial::ms_bHasDeviceType, ORVSerial::ms_strDeviceType, none);
        expectTrueOrPlaceholder(ORVSerial::ms_bHasUserSerialNumber, ORVSerial::ms_strUserSerialNumber, none);
        expectTrueOrPlaceholder(ORVSerial::ms_bHasMainNetIface, ORVSerial::ms_strMainNetIface, "eth0");
    });
    EXPECT_TRUE(ORVSerial::load());
    EXPECT_EQ(ORVSerial::ms_strSerialNumber, LONG_VALUE);
    EXPECT_EQ(ORVSerial::ms_strMainNetIface, LONG_VALUE);
}

TEST_P(ExhaustedIdentity, ActiveInterfaceStaysUnset) {
    ASSERT_TRUE(ORVSerial::load());
    ORVSerial::ms_strActiveNetIface.shrink_to_fit();
    EXPECT_TRUE(failingAt(0, GetParam(), [] { ORVSerial::setActiveNetIface(LONG_VALUE); }));
    EXPECT_FALSE(ORVSerial::ms_bHasActiveNetIface);
    EXPECT_EQ(ORVSerial::ms_strActiveNetIface, "eth0");
}

TEST_P(ExhaustedIdentity, HardwareAddressThrows) {
    ORVIPInfo::MacAddress mac;
    ASSERT_TRUE(mac.set(MAC));
    EXPECT_LT(0u, throwsAtEveryAllocation(GetParam(), [&] { EXPECT_EQ(mac.toString(), MAC); }));
    EXPECT_LT(0u, throwsAtEveryAllocation(GetParam(), [&] { EXPECT_TRUE(mac.set(MAC)); }));
}

TEST_P(ExhaustedIdentity, InventoryLeavesNothingAndIsWholeTheNextTime) {
    ASSERT_EQ(std::system("ip link show eth0 >/dev/null 2>&1 || { ip link add eth0 address 00:11:22:33:44:50 type veth"
                          " peer name peer0 && ip link set eth0 up && ip address add 192.0.2.1/24 dev eth0; }"),
              0);
    EXPECT_LT(0u, throwsAtEveryAllocation(GetParam(), [] {
                  ORVIPInfo info;
                  info.init();
                  EXPECT_EQ(info.m_mapInterfaces.count("eth0"), 1u);
              }));
    ORVIPInfo info;
    const auto expectWholeInventory = [&info] {
        info.init();
        ASSERT_EQ(info.m_mapInterfaces.count("eth0"), 1u);
        EXPECT_EQ(info.m_mapInterfaces["eth0"].mac, MAC);
        ASSERT_EQ(info.m_mapInterfaces["eth0"].ipv4.size(), 1u);
        EXPECT_EQ(info.m_mapInterfaces["eth0"].ipv4[0].address, "192.0.2.1");
    };
    expectThrows([&info] { info.init(); }, expectWholeInventory);
}

}  // namespace
