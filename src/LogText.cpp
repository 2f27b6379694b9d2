#include "LogText.h"

namespace LogText {
namespace {

constexpr std::size_t kLongestPiece = 4;  // "\x1b", or a character in UTF-8

bool IsControl(char c) {
    constexpr unsigned char kFirstPrintable = 0x20;
    constexpr unsigned char kDelete = 0x7f;
    const auto code = static_cast<unsigned char>(c);
    return code < kFirstPrintable || code == kDelete;
}

bool ContinuesUtf8(char c) {
    constexpr unsigned kMask = 0xc0;
    constexpr unsigned kContinuation = 0x80;
    return (static_cast<unsigned char>(c) & kMask) == kContinuation;
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

/// Takes what is never cut in two off `text`: an escaped character, or a byte and what continues
/// it.
std::string TakePiece(std::string_view& text) {
    std::size_t size = 1;
    if (IsControl(text.front())) {
        std::string piece = Escaped(text.front());
        text.remove_prefix(size);
        return piece;
    }
    while (size < text.size() && size < kLongestPiece && ContinuesUtf8(text[size])) {
        ++size;
    }
    std::string piece(text.substr(0, size));
    text.remove_prefix(size);
    return piece;
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
