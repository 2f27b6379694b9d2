#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// What a shell offers when somebody asks it to complete a command line. The shells' own files only
/// hand over the words and take what is printed.
namespace Completion {

/// Prints what the last of `words` may become, a line each; a tab and a description may follow. A
/// line that begins with a tab asks the shell for names of files. `words` are those behind the
/// tool's name; the last one is being written and may be empty. `usage` has what the command needs
/// besides options, as "[BOX] MODE". Where a box can be named the network is searched, for a third
/// of a second.
void Print(const CLI::App& app, const std::string& usage, const std::vector<std::string>& words);

}  // namespace Completion
