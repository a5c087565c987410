// orvlog_alloc_test.cpp: the set-ups of logging under exhausted memory: each throws std::bad_alloc, or reports a
// failure, or works; and whatever it was, the next one works. A program of its own, since it replaces operator new.

#include <gtest/gtest.h>
#include <log4cxx/appenderskeleton.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>

#include "runtime/orvlog.h"
#include "unit/alloc_faults.h"
#include "unit/logging_child.h"
#include "unit/record_collector.h"

// log4cxx's constructors leak what they made by then if one of their allocations fails.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:liblog4cxx";
}

namespace {

const char* const INI = "log4j.rootLogger=INFO, A\n"
                        "log4j.appender.A=org.apache.log4j.FileAppender\n"
                        "log4j.appender.A.File=a-file-with-a-name-of-some-length\n"
                        "log4j.appender.A.layout=org.apache.log4j.PatternLayout\n"
                        "log4j.appender.A.layout.ConversionPattern=%m%n\n";

class ExhaustedSetUp : public testing::TestWithParam<AllocFaults::Mode> {
protected:
    void SetUp() override {
        std::filesystem::current_path(m_oFolder.path());
        m_oFolder.write("ini", INI);
    }
    void TearDown() override {
        orvlog::fini();
        std::filesystem::current_path("/");
    }

    // expectNextOneWorks has each allocation of a set-up fail, and sets up again without a fault each time.
    static void expectNextOneWorks(const std::function<bool()>& setUp) {
        ASSERT_TRUE(setUp());
        for (std::size_t n = 0;; ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            bool done = false;
            const bool thrown = failingAt(n, GetParam(), [&] { done = setUp(); });
            EXPECT_FALSE(thrown && done);
            const bool wasHit = gs_oAllocFaults.hit;
            EXPECT_TRUE(setUp());
            EXPECT_FALSE(log4cxx::Logger::getRootLogger()->getAllAppenders().empty());
            if (!wasHit || HasFailure()) {
                EXPECT_LT(0u, n);
                return;
            }
        }
    }

    TempFolder m_oFolder;
};

INSTANTIATE_TEST_SUITE_P(Logging, ExhaustedSetUp, testing::Values(AllocFaults::One, AllocFaults::AllFollowing),
                         [](const auto& test) { return test.param == AllocFaults::One ? "OneFault" : "AllFromThere"; });

TEST_P(ExhaustedSetUp, Basic) {
    expectNextOneWorks([] { return orvlog::configureBasic(true, true); });
}

TEST_P(ExhaustedSetUp, Default) {
    expectNextOneWorks([] { return orvlog::configureDefault(); });
}

TEST_P(ExhaustedSetUp, FromAnINIFile) {
    expectNextOneWorks([] { return orvlog::configureFromINI("ini"); });
}

TEST_P(ExhaustedSetUp, Reset) {
    ASSERT_TRUE(orvlog::configureDefault());
    expectNextOneWorks([] {
        orvlog::reset();
        return true;
    });
}

// Only a logger that is there already: log4cxx leaves one whose making failed without a parent.
TEST_P(ExhaustedSetUp, LoggerThatIsThere) {
    const std::string name = "orv.a-name-that-fits-into-no-short-string";
    const log4cxx::LoggerPtr logger = orvlog::getLogger(name);
    expectNextOneWorks([&] { return orvlog::configureBasic(true, true) && orvlog::getLogger(name) == logger; });
}

// A record that could not be made must leave the logger able to make the next one.
TEST_P(ExhaustedSetUp, Records) {
    ASSERT_TRUE(orvlog::configureFromINI("ini"));
    const log4cxx::LoggerPtr logger = orvlog::getLogger("orv.test");
    for (std::size_t n = 0;; ++n) {
        failingAt(n, GetParam(),
                  [&] { ORVLOG_ERROR(logger, "record %zu of some length, so that it needs memory", n); });
        const bool wasHit = gs_oAllocFaults.hit;
        ORVLOG_ERROR(logger, "next %zu", n);
        const std::string written = TempFolder::contentOf(m_oFolder / "a-file-with-a-name-of-some-length");
        EXPECT_TRUE(written.ends_with("next " + std::to_string(n) + "\n")) << "allocation " << n;
        if (!wasHit || HasFailure()) {
            EXPECT_LT(0u, n);
            return;
        }
    }
}

}  // namespace
