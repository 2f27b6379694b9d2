#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Options.h"
#include "Outcome.h"

/// The command line: what it may say, its help, and what it says.
namespace CommandLine {

using Run = Outcome (*)(const Options& options);

struct Parsed {
    /// Null when there is nothing to run: help was shown, or the line is wrong and `outcome` says
    /// why.
    Run run = nullptr;
    Outcome outcome;
    Options options;
};

/// Prints the help when it is asked for. Whether JSON is wanted is known of a wrong line, too.
Parsed Parse(int argc, const char* const* argv);

/// Gives the words of a command that needs `count` of them: the box's name may stand before them,
/// parameters (with an equals sign) behind. False when they are too many or too few.
bool TakeWords(std::vector<std::string> words, std::size_t count, bool hasParameters,
               Options& options);

}  // namespace CommandLine
