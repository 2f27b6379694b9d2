#include "SafeText.h"
#include "Support.h"

using namespace std::string_literals;

TEST(SafeTextTest, NothingThatSteersATerminalIsLeft) {
    for (const auto& [text, line, lines] : Table<std::string, const char*, const char*>{
             {"", "", ""},
             {"Grün 雪 😀", "Grün 雪 😀", "Grün 雪 😀"},
             {"\033[2J\007", "?[2J?", "?[2J?"},
             {"a\tb\r\nc\rd\n", "a?b??c?d?", "a\tb\nc?d\n"},
             {"\0\177"s, "??", "??"},
             {"\u009b[m", "?[m", "?[m"},            // C1 as UTF-8
             {"\x9b[m", "?[m", "?[m"},              // and as a byte
             {"a\u202eb\u2028", "a?b?", "a?b?"},    // order, lines
             {"\xc0\x9b", "??", "??"},              // overlong
             {"\xed\xa0\x80", "???", "???"},        // surrogate
             {"\xf4\x90\x80\x80", "????", "????"},  // too large
             {"\xe9\x9b", "??", "??"},              // cut
             {"\xff\xfe", "??", "??"}}) {
        EXPECT_EQ(SafeText::Line(text), line);
        EXPECT_EQ(SafeText::Lines(text), lines);
    }
}

TEST(SafeTextTest, ColumnsAreCountedAsATerminalShowsThem) {
    for (const auto& [text, width, shortened] : Table<const char*, std::size_t, const char*>{
             {"Grün", 4, "Grün"},
             {"Grünn", 5, "Grü…"},
             {"gru\u0308n", 4, "gru\u0308n"},   // a mark
             {"gru\u0308nn", 5, "gru\u0308…"},  // which stays with its letter
             {"i\u0308\u0308\u0308\u0308\u0308\u0308\u0308\u0308\u0308\u0308\u0308\u0308", 1,
              "i\u0308\u0308\u0308\u0308\u0308\u0308\u0308\u0308\u0308\u0308…"},  // a pile
             {"東京", 4, "東京"},
             {"a東京", 5, "a東…"},
             {"東京a", 5, "東…"},                 // half a character is none
             {"ｱｲ😀", 4, "ｱｲ😀"},                   // narrow ones, and one of two columns
             {"\U0010ffff", 1, "\U0010ffff"}}) {  // unknown
        EXPECT_EQ(SafeText::Width(text), width) << text;
        EXPECT_EQ(SafeText::Shorten(text, 4), shortened);
    }
}
