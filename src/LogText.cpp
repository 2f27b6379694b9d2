#include "LogText.h"

#include <cstdint>

#include "Utf8.h"

namespace LogText {
namespace {

/// Also those beyond ASCII (U+0080 to U+009F, ISO/IEC 6429) and what Unicode calls the ends of a
/// line and of a paragraph: terminals obey the ones, editors break the line at the others.
bool IsControl(std::uint32_t code) {
    constexpr std::uint32_t kFirstPrintable = 0x20;
    constexpr std::uint32_t kDelete = 0x7f;
    constexpr std::uint32_t kLastControl = 0x9f;
    constexpr std::uint32_t kLineEnd = 0x2028;
    constexpr std::uint32_t kParagraphEnd = 0x2029;
    return code < kFirstPrintable || (code >= kDelete && code <= kLastControl) ||
           code == kLineEnd || code == kParagraphEnd;
}

std::string Escaped(char c) {
    switch (c) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            constexpr char kHexDigits[] = "0123456789abcdef";
            constexpr unsigned kDigitBits = 4;
            constexpr unsigned kDigitMask = 0xf;
            const auto code = static_cast<unsigned char>(c);
            return {'\\', 'x', kHexDigits[code >> kDigitBits], kHexDigits[code & kDigitMask]};
    }
}

/// Takes what is never cut in two off `text`: a character, escaped or not.
std::string TakePiece(std::string_view& text) {
    const Utf8::Character character = Utf8::First(text);
    std::string piece(text.substr(0, character.size));
    text.remove_prefix(character.size);
    if (character.isValid && !IsControl(character.code)) {
        return piece;
    }
    std::string escaped;
    for (const char c : piece) {
        escaped += Escaped(c);
    }
    return escaped;
}

}  // namespace

std::string Of(std::string_view text, std::size_t limit) {
    const std::size_t size = text.size();
    std::string out;
    while (!text.empty()) {
        const std::string piece = TakePiece(text);
        if (out.size() + piece.size() > limit) {
            return out + "... (" + std::to_string(size) + " bytes)";
        }
        out += piece;
    }
    return out;
}

}  // namespace LogText
