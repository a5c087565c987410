// record_text_test.cpp: text from outside in records.

#include <gtest/gtest.h>

#include "watch/record_text.h"

namespace {

using namespace std::string_literals;

TEST(RecordText, ControlBytesAreShownAsHexadecimalNumbers) {
    EXPECT_EQ(recordText("a\nb"), "a\\x0ab");
    EXPECT_EQ(recordText("\r\t\x1b[2J\x7f"), "\\x0d\\x09\\x1b[2J\\x7f");
    EXPECT_EQ(recordText("\0\x01\x1f"s), "\\x00\\x01\\x1f");
}

TEST(RecordText, AllOtherBytesStayAsTheyAre) {
    std::string text;
    for (int byte = 0x20; byte <= 0xff; ++byte)
        if (byte != 0x7f)
            text += static_cast<char>(byte);
    EXPECT_EQ(recordText(text), text);
    EXPECT_EQ(recordText(""), "");
}

}  // namespace
