#include "LogClient.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cstdio>
#include <sstream>
#include <utility>

namespace {

// The layout has made the whole line already.
template <typename Sink>
void UseBareLines(Sink& sink) {
    sink.set_formatter(std::make_unique<spdlog::pattern_formatter>(
        "%v", spdlog::pattern_time_type::local, std::string()));
}

template <typename Sink>
void WriteLine(Sink& sink, const std::string& line) {
    try {
        sink.log(spdlog::details::log_msg("", spdlog::level::info, line));
        sink.flush();
    } catch (const spdlog::spdlog_ex&) {
        // The disk is full or the file is gone: the line is lost.
    }
}

}  // namespace

LogClient::LogClient() : layout_(std::make_unique<LogLayout>()) {}

void LogClient::SetLayout(std::unique_ptr<LogLayout> layout) {
    layout_ = std::move(layout);
}

void LogClient::Append(const LogEvent& event) {
    std::ostringstream line;
    layout_->Format(line, event);
    Write(line.str());
}

struct LogClientConsole::Sink {
    spdlog::sinks::stdout_sink_mt out;
};

LogClientConsole::LogClientConsole() : sink_(std::make_unique<Sink>()) {
    UseBareLines(sink_->out);
}

LogClientConsole::~LogClientConsole() = default;

void LogClientConsole::Write(const std::string& line) {
    WriteLine(sink_->out, line);
}

struct LogClientRollingFile::Sink {
    spdlog::sinks::rotating_file_sink_mt out;
};

LogClientRollingFile::LogClientRollingFile(const std::string& path, std::size_t sizeLimit,
                                           std::size_t fileCount) {
    try {
        // The sink counts the old files only.
        sink_.reset(new Sink{{path, sizeLimit, fileCount - 1}});
        UseBareLines(sink_->out);
    } catch (const spdlog::spdlog_ex& error) {
        std::fprintf(stderr, "The log file cannot be written: %s\n", error.what());
    }
}

LogClientRollingFile::~LogClientRollingFile() = default;

void LogClientRollingFile::Write(const std::string& line) {
    if (sink_) {
        WriteLine(sink_->out, line);
    }
}
