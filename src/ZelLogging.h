#pragma once

#include <iosfwd>

#include "LogClient.h"
#include "LogLayout.h"

/// Sets up the agent's logging: its levels, its handler tree, console and log file. ZelLog is what
/// units log with.
class ZelLogging {
public:
    static constexpr char kLogFile[] = "/tmp/log/nativezel.log";

    /// Layout of the log file: time, two blanks, level padded to 8, thread id padded to 6, message,
    /// line feed.
    class ZelLogLayout : public LogLayout {
    public:
        void Format(std::ostream& out, const LogEvent& event) const override;
    };

    /// Registers the levels, wires the handlers and attaches console and log file. To be done
    /// before anything is logged; the clients live as long as the object.
    ZelLogging();
    ~ZelLogging();
    ZelLogging(const ZelLogging&) = delete;
    ZelLogging& operator=(const ZelLogging&) = delete;

private:
    LogClientConsole console_;
    LogClientRollingFile file_;
};
