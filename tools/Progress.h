#pragma once

#include <memory>
#include <string>

/// Tells on standard error what is waited for: on a terminal a line that moves, with the seconds
/// since it said something else, which is gone with the object; otherwise a line for each text. An
/// interrupt (SIGINT, SIGTERM) clears the line and then does what it always does.
class Progress {
public:
    /// A quiet one says nothing.
    explicit Progress(bool isQuiet);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// From now on; the text that it says already changes nothing. What boxes say may be in it as
    /// it came.
    void Say(const std::string& text);

private:
    class Spinner;

    bool isQuiet_;
    std::string said_;
    std::unique_ptr<Spinner> spinner_;  ///< null when there is no terminal
};
