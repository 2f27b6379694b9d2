#include <cstdio>

#include "CommandLine.h"
#include "SafeText.h"

int main(int argc, char** argv) {
    const CommandLine::Parsed parsed = CommandLine::Parse(argc, argv);
    if (parsed.run == nullptr) {
        return static_cast<int>(parsed.status);
    }
    const Outcome outcome = parsed.run(parsed.options);
    std::fflush(stdout);
    if (outcome.Failed()) {
        std::fprintf(stderr, "zelctl: %s\n", SafeText::Line(outcome.text).c_str());
    }
    return static_cast<int>(outcome.status);
}
