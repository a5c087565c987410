// attestation_context_alloc_test.cpp: the attestation context under exhausted memory: std::bad_alloc comes out, and
// nothing is left. It replaces operator new.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "agent/attestation_context.h"
#include "unit/alloc_faults.h"

namespace {

const std::string LONG_BASE64(400, 'A');

// documentWith returns a context with every member, among them `nonce`, each of which needs memory of its own.
std::string documentWith(const std::string& nonce) {
    return R"({"cbData":")" + LONG_BASE64 + R"(","nonce":)" + nonce + R"(,"tpm2":{"ak":{"pubTpm2B":")" + LONG_BASE64 +
           R"(","privTpm2B":")" + LONG_BASE64 + R"(","actChall":")" + LONG_BASE64 + R"("}}})";
}

class ExhaustedContext : public testing::TestWithParam<AllocFaults::Mode> {
protected:
    // expectThrows has each allocation fail that parsing the document makes, which is accepted or not in the end.
    static void expectThrows(const std::string& document, bool accepted) {
        const JSON::root root = JSON::parse(document);
        ASSERT_NE(root, nullptr);
        const std::size_t faults = throwsAtEveryAllocation(GetParam(), [&] {
            AttestationContext context;
            EXPECT_EQ(context.parse(root), accepted);
        });
        EXPECT_LT(0u, faults);
    }
};

INSTANTIATE_TEST_SUITE_P(AttestationContext, ExhaustedContext,
                         testing::Values(AllocFaults::One, AllocFaults::AllFollowing),
                         [](const auto& test) { return test.param == AllocFaults::One ? "OneFault" : "AllFromThere"; });

TEST_P(ExhaustedContext, GoodDocumentThrowsAndLeavesNothing) {
    expectThrows(documentWith('"' + LONG_BASE64 + '"'), true);
}

TEST_P(ExhaustedContext, BadDocumentThrowsAndLeavesNothing) {
    expectThrows(documentWith("1"), false);
}

}  // namespace
