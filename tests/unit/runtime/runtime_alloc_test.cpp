// runtime_alloc_test.cpp: the runtime under exhausted memory: each operation throws std::bad_alloc or reports the
// failure as its header says, and leaves nothing. A program of its own, since it replaces operator new.

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>

#include "foundation/uri.h"
#include "runtime/apr_pool.h"
#include "runtime/async_reset_handler.h"
#include "runtime/orv_error.h"
#include "runtime/orvlog.h"
#include "runtime/orvthread.h"
#include "runtime/protocol_errors.h"
#include "unit/alloc_faults.h"

namespace {

const std::string LONG_NAME(500, 'n');

class Exhausted : public testing::TestWithParam<AllocFaults::Mode> {
protected:
    // expectThrows expects std::bad_alloc for every allocation of `body`, of which there is at least one. What is made
    // at the first use only is made before.
    static void expectThrows(const std::function<void()>& body) {
        body();
        EXPECT_LT(0u, throwsAtEveryAllocation(GetParam(), body));
    }

    // expectThrowsFrom is `expectThrows` for a function that ends with an ORVError.
    static void expectThrowsFrom(const std::function<void()>& function) {
        expectThrows([&] {
            try {
                function();
                ADD_FAILURE() << "nothing was thrown";
            } catch (const ORVError&) {
            }
        });
    }
};

INSTANTIATE_TEST_SUITE_P(Runtime, Exhausted, testing::Values(AllocFaults::One, AllocFaults::AllFollowing),
                         [](const auto& test) { return test.param == AllocFaults::One ? "OneFault" : "AllFromThere"; });

TEST_P(Exhausted, MakingAnErrorThrows) {
    expectThrows([] { const ORVError error(ORVError::FileNotFound); });
    expectThrows([] { const ORVError error(ORVError::FileNotFound, LONG_NAME); });
    expectThrows([] { ORVError::toString(ORVError::FileNotFound, LONG_NAME); });
    expectThrows([] { ORVError::truncateName(LONG_NAME, 100); });
    expectThrows([] { ORVError::convertAPRError(ENOENT, LONG_NAME.c_str()); });
    expectThrows([] { ORVError::convertAPRError(EXDEV, LONG_NAME.c_str()); });
    expectThrows([] { ORVError::convertPosixError(ORVError::FileReadError, EIO, LONG_NAME.c_str()); });
}

TEST_P(Exhausted, CopyOfAnErrorNeedsNoMemory) {
    const ORVError error(ORVError::FileNotFound, LONG_NAME);
    EXPECT_FALSE(failingAt(0, GetParam(), [&] { const ORVError copy(error); }));
    EXPECT_FALSE(gs_oAllocFaults.hit);
}

TEST_P(Exhausted, ProtocolErrorsAreReplacedByTheExhaustion) {
    const URI uri = URI::fromString("http://server.example/a/path/that/fits/into/no/short/string");
    expectThrowsFrom([&] { ORVError::throwHTTPError(401, "GET", uri, LONG_NAME, "Unauthorized"); });
    expectThrowsFrom([&] { ORVError::throwHTTPError(500, "GET", uri, "", "Internal Server Error"); });
    expectThrowsFrom([&] { ORVError::throwCurlError(7, "GET", uri, LONG_NAME.c_str()); });
    expectThrowsFrom([&] { ORVError::throwFTPError(67, "RETR", uri, nullptr); });
}

TEST_P(Exhausted, PoolIsMadeWithoutATag) {
    const APRPool parent("parent");
    for (size_t n = 0;; ++n) {
        const std::ptrdiff_t before = gs_oAllocFaults.living;
        EXPECT_FALSE(failingAt(n, GetParam(), [&] {
            const APRPool pool(parent, LONG_NAME.c_str());
            EXPECT_NE(pool.get(), nullptr) << "allocation " << n;
            EXPECT_EQ(pool.tag().empty(), gs_oAllocFaults.hit) << "allocation " << n;
        }));
        EXPECT_EQ(before, gs_oAllocFaults.living) << "allocation " << n;
        if (!gs_oAllocFaults.hit) {
            EXPECT_LT(0u, n);
            break;
        }
    }
}

TEST_P(Exhausted, BorrowingAPoolNeedsNoMemory) {
    const APRPool parent("parent");
    EXPECT_FALSE(failingAt(0, GetParam(), [&] {
        const APRPool borrower(parent);
        APRPool other(parent);
        other = borrower;
    }));
    EXPECT_FALSE(gs_oAllocFaults.hit);
}

TEST_P(Exhausted, LoggerNameThrows) {
    expectThrows([] { orvlog::append(LONG_NAME, "below"); });
}

TEST_P(Exhausted, ResetHandlerIsEitherWholeOrNotMade) {
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
    EXPECT_TRUE(orvlog::AsyncResetHandler().start());  // makes what is made at the first use only
    int failures = 0;
    for (size_t n = 0;; ++n) {
        const std::ptrdiff_t before = gs_oAllocFaults.living;
        failures += failingAt(n, GetParam(), [] { const orvlog::AsyncResetHandler handler; });
        EXPECT_EQ(before, gs_oAllocFaults.living) << "allocation " << n;
        if (!gs_oAllocFaults.hit)
            break;
    }
    EXPECT_LT(0, failures);
}

// Worker is a thread that ends at once.
class Worker : public ORVThread {
public:
    Worker() : ORVThread("a name that fits into no short string") {}
    ~Worker() override { stop(); }

private:
    void run() override {}
};

TEST_P(Exhausted, FailedStartOfAThreadLeavesItIdle) {
    const log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
    root->setLevel(log4cxx::Level::getOff());
    for (size_t n = 0;; ++n) {
        Worker worker;
        const bool thrown = failingAt(n, GetParam(), [&] { worker.start(); });
        EXPECT_EQ(gs_oAllocFaults.hit, thrown) << "allocation " << n;
        worker.join();
        worker.start();  // again, or for the first time
        worker.join();
        if (!thrown) {
            EXPECT_LT(0u, n);
            break;
        }
    }
}

TEST_P(Exhausted, FailedStartOfTheResetHandlerIsFalse) {
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
    for (size_t n = 0;; ++n) {
        orvlog::AsyncResetHandler handler;
        bool started = false;
        EXPECT_FALSE(failingAt(n, GetParam(), [&] { started = handler.start(); })) << "allocation " << n;
        EXPECT_EQ(started, !gs_oAllocFaults.hit) << "allocation " << n;
        if (started) {
            EXPECT_LT(0u, n);
            break;
        }
        EXPECT_TRUE(handler.start());
    }
}

}  // namespace
