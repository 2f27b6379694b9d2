#include <cstdio>

#include "CommandLine.h"
#include "Report.h"

int main(int argc, char** argv) {
    const CommandLine::Parsed parsed = CommandLine::Parse(argc, argv);
    Outcome outcome = parsed.run == nullptr ? parsed.outcome : parsed.run(parsed.options);
    const bool isWritten = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!isWritten && !outcome.Failed()) {
        outcome = {ExitStatus::kNotWritten, "standard output cannot be written; is the disk full?"};
    }
    if (outcome.Failed()) {
        Report::PrintFailure(outcome, parsed.options.json);
    }
    return static_cast<int>(outcome.status);
}
