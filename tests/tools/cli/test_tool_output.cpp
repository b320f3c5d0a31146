// What the tool writes where one line must stay one line: the escaping of
// names in messages on standard error and in the detection lines.
#include <gtest/gtest.h>

#include "cli/tool_output.h"

namespace ostrel_tool {
namespace {

TEST(PrintableText, ControlCharactersAndBrokenUtf8BecomeEscapes) {
    EXPECT_EQ(printable_text("a\nb\rc\td", false), "a\\nb\\rc\\td");
    EXPECT_EQ(printable_text(std::string("e\x1b[2Jf\x7f", 7), false), "e\\x1b[2Jf\\x7f");
    EXPECT_EQ(printable_text("bad\xff.jpg", false), "bad\\xff.jpg");
    EXPECT_EQ(printable_text("c1\xc2\x9b", false), "c1\\xc2\\x9b");  // U+009B, the 8-bit CSI
}

TEST(PrintableText, ReadableTextIsKeptAsItIs) {
    EXPECT_EQ(printable_text("Blutk\xc3\xb6rperchen \xe7\x8c\xab.jpg", false),
              "Blutk\xc3\xb6rperchen \xe7\x8c\xab.jpg");
    EXPECT_EQ(printable_text("", true), "");
}

TEST(PrintableText, BackslashesAreEscapedOnlyWhereAsked) {
    EXPECT_EQ(printable_text("C:\\data\\x.jpg", false), "C:\\data\\x.jpg");
    EXPECT_EQ(printable_text("C:\\data\\x.jpg", true), "C:\\\\data\\\\x.jpg");
}

TEST(Complain, WritesOneLineWhateverTheMessageHolds) {
    testing::internal::CaptureStderr();
    complain("cannot open picture 'evil\nostrel: all good.jpg'");
    warn("tab\there");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ostrel: cannot open picture 'evil\\nostrel: all good.jpg'\n"
              "ostrel: warning: tab\\there\n");
}

}  // namespace
}  // namespace ostrel_tool
