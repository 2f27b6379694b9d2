#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "LogEvent.h"
#include "LogLayout.h"

/// End of the line: writes events to a sink. Append() may be called from several threads at once.
class LogClient {
public:
    virtual ~LogClient() = default;
    LogClient(const LogClient&) = delete;
    LogClient& operator=(const LogClient&) = delete;

    /// Replaces the layout (initially the base class LogLayout). Not to be called once the client
    /// has been added to a handler.
    void SetLayout(std::unique_ptr<LogLayout> layout);

    /// Formats `event` and writes it to the sink. Throws std::bad_alloc when there is no memory for
    /// the line; it is lost then.
    void Append(const LogEvent& event);

protected:
    LogClient();
    /// Writes one finished line (line end included). Never throws; an unwritable sink loses the
    /// line.
    virtual void Write(const std::string& line) = 0;

private:
    std::unique_ptr<LogLayout> layout_;
};

/// Writes to standard output. What cannot be written at once is lost.
class LogClientConsole : public LogClient {
public:
    LogClientConsole() = default;

private:
    void Write(const std::string& line) override;
};

/// Writes to a file that rolls over: when a line would make the file larger than `sizeLimit`
/// bytes, the file becomes the first old file (the number goes before the extension:
/// "name.1.log") and a new one is begun. Every line is flushed. Missing directories are created.
class LogClientRollingFile : public LogClient {
public:
    /// How long after a failure the file is opened anew; lines are lost until then.
    static constexpr std::chrono::seconds kReopenPause{1};

    /// `fileCount` (1 or more) is the number of files kept in all, the current one included.
    /// A file that cannot be opened is reported once on standard error.
    LogClientRollingFile(const std::string& path, std::size_t sizeLimit, std::size_t fileCount);
    ~LogClientRollingFile() override;

private:
    void Write(const std::string& line) override;
    void Open();

    struct Sink;
    const std::string path_;
    const std::size_t sizeLimit_;
    const std::size_t fileCount_;
    const std::unique_ptr<Sink> sink_;
    std::chrono::steady_clock::time_point failed_;
};
