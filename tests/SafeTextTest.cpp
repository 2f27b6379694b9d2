#include "SafeText.h"
#include "Support.h"

using namespace std::string_literals;

TEST(SafeTextTest, NothingThatSteersATerminalIsLeft) {
    for (const auto& [text, line, lines, json] :
         Table<std::string, const char*, const char*, const char*>{
             {"", "", "", "\"\""},
             {"Grün 雪 😀", "Grün 雪 😀", "Grün 雪 😀", "\"Grün 雪 😀\""},
             {"a\"b\\c/", "a\"b\\c/", "a\"b\\c/", R"("a\"b\\c/")"},
             {"\033[2J\007", "?[2J?", "?[2J?", R"("\u001b[2J\u0007")"},
             {"a\tb\r\nc\rd\n", "a?b??c?d?", "a\tb\nc?d\n",
              R"("a\u0009b\u000d\u000ac\u000dd\u000a")"},
             {"\0\177"s, "??", "??", R"("\u0000\u007f")"},
             {"\u009b[m", "?[m", "?[m", R"("\u009b[m")"},                // C1 as UTF-8
             {"\x9b[m", "?[m", "?[m", R"("\ufffd[m")"},                  // and as a byte
             {"a\u202eb\u2028", "a?b?", "a?b?", R"("a\u202eb\u2028")"},  // order, lines
             {"\xc0\x9b", "??", "??", R"("\ufffd\ufffd")"},              // overlong
             {"\xed\xa0\x80", "???", "???", R"("\ufffd\ufffd\ufffd")"},  // surrogate
             {"\xf4\x90\x80\x80", "????", "????", R"("\ufffd\ufffd\ufffd\ufffd")"},  // too large
             {"\xe9\x9b", "??", "??", R"("\ufffd\ufffd")"},                          // cut
             {"\xff\xfe", "??", "??", R"("\ufffd\ufffd")"}}) {
        EXPECT_EQ(SafeText::Line(text), line);
        EXPECT_EQ(SafeText::Lines(text), lines);
        EXPECT_EQ(SafeText::Json(text), json);
    }
}

TEST(SafeTextTest, ColumnsAreCountedAsATerminalShowsThem) {
    for (const auto& [text, width, shortened] : Table<const char*, std::size_t, const char*>{
             {"Grün", 4, "Grün"},
             {"Grünn", 5, "Grü…"},
             {"gru\u0308n", 4, "gru\u0308n"},   // a mark
             {"gru\u0308nn", 5, "gru\u0308…"},  // which stays with its letter
             {"東京", 4, "東京"},
             {"a東京", 5, "a東…"},
             {"東京a", 5, "東…"},                 // half a character is none
             {"ｱｲ😀", 4, "ｱｲ😀"},                   // narrow ones, and one of two columns
             {"\U0010ffff", 1, "\U0010ffff"}}) {  // unknown
        EXPECT_EQ(SafeText::Width(text), width) << text;
        EXPECT_EQ(SafeText::Shorten(text, 4), shortened);
    }
}
