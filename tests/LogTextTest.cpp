#include <gtest/gtest.h>

#include "LogText.h"

using namespace std::string_literals;

TEST(LogTextTest, ValuesOfPeersStayWithinTheirLine) {
    struct Case {
        std::string text;
        std::size_t limit;
        const char* logged;
    };
    const Case kCases[] = {
        {"", 4, ""},
        {"Grün", 5, "Grün"},
        {"a\nb\r\t\x1b[2J\0\x7f"s, LogText::kMaxValue, R"(a\nb\r\t\x1b[2J\x00\x7f)"},
        {"12345", 4, "1234... (5 bytes)"},
        {"123ü", 4, "123... (5 bytes)"},                       // not within a character
        {"12\n\n", 5, R"(12\n... (4 bytes))"},                 // nor within an escape
        {"\x9f\xff\x80", LogText::kMaxValue, "\x9f\xff\x80"},  // broken UTF-8 as it is
        {std::string(8, '\x80'), 6, "\x80\x80\x80\x80... (8 bytes)"},
    };
    for (const Case& each : kCases) {
        EXPECT_EQ(LogText::Of(each.text, each.limit), each.logged);
    }
}
