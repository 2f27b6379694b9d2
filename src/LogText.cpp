#include "LogText.h"

#include "Characters.h"
#include "Utf8.h"

namespace LogText {
namespace {

/// Whether a text is printable ASCII throughout, as most are.
bool IsPlain(std::string_view text) {
    for (const char c : text) {
        if (c < ' ' || c > '~') {
            return false;
        }
    }
    return true;
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
            return "\\x" + Characters::Hex(c);
    }
}

/// Takes what is never cut in two off `text`: a character, escaped or not.
std::string TakePiece(std::string_view& text) {
    const Utf8::Character character = Utf8::First(text);
    std::string piece(text.substr(0, character.size));
    text.remove_prefix(character.size);
    if (character.isValid && !Characters::IsControl(character.code)) {
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
    if (text.size() <= limit && IsPlain(text)) {
        return std::string(text);
    }
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
