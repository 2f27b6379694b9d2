#include "LogText.h"
#include "Support.h"

using namespace std::string_literals;

TEST(LogTextTest, ValuesOfPeersStayWithinTheirLine) {
    for (const auto& [text, limit, logged] : Table<std::string, std::size_t, const char*>{
             {"", 4, ""},
             {"Grün", 5, "Grün"},
             {"a\nb\r\t\x1b[2J\0\x7f"s, LogText::kMaxValue, R"(a\nb\r\t\x1b[2J\x00\x7f)"},
             {"12345", 4, "1234... (5 bytes)"},
             {"123ü", 4, "123... (5 bytes)"},                  // not within a character
             {"12\n\n", 5, R"(12\n... (4 bytes))"},            // nor within an escape
             {"\x9f\xff", LogText::kMaxValue, R"(\x9f\xff)"},  // no UTF-8
             {"\u0085\u2028", 15, R"(\xc2\x85... (5 bytes))"}}) {
        EXPECT_EQ(LogText::Of(text, limit), logged);
    }
}
