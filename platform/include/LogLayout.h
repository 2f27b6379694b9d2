#pragma once

#include <iosfwd>

#include "LogEvent.h"

/// Turns an event into the text that a client writes. The base class writes time, level, thread,
/// source and message, separated by blanks and ended by a line feed.
class LogLayout {
public:
    virtual ~LogLayout() = default;

    /// Writes the complete line, line end included. Called from any thread, possibly from several
    /// at once.
    virtual void Format(std::ostream& out, const LogEvent& event) const;
};
