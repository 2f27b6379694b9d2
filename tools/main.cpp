#include <algorithm>
#include <cstdio>
#include <string>

#include "CommandLine.h"
#include "SafeText.h"

int main(int argc, char** argv) {
    const CommandLine::Parsed parsed = CommandLine::Parse(argc, argv);
    if (parsed.run == nullptr) {
        return static_cast<int>(parsed.status);
    }
    Outcome outcome = parsed.run(parsed.options);
    const bool isWritten = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!isWritten && !outcome.Failed()) {
        outcome = {ExitStatus::kNotWritten, "standard output cannot be written; is the disk full?"};
    }
    if (outcome.Failed()) {
        constexpr std::size_t kMaxText = 1000;
        std::string text = outcome.text;
        std::replace(text.begin(), text.end(), '\n', ' ');
        text = SafeText::Shorten(SafeText::Line(text), kMaxText);
        std::fprintf(stderr, "zelctl: %s\n", text.c_str());
    }
    return static_cast<int>(outcome.status);
}
