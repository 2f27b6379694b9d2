#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <exception>

#include "Console.h"
#include "LogClient.h"

struct LogClientRollingFile::Sink {
    spdlog::sinks::rotating_file_sink_st out;
};

LogClientRollingFile::LogClientRollingFile(const std::string& path, std::size_t sizeLimit,
                                           std::size_t fileCount)
    : path_(path), sizeLimit_(sizeLimit), fileCount_(fileCount) {
    try {
        Open();
    } catch (const std::exception& error) {
        Console::PrintError("The log file cannot be written: " + std::string(error.what()) + "\n");
    }
}

LogClientRollingFile::~LogClientRollingFile() = default;

void LogClientRollingFile::Open() {
    failed_ = std::chrono::steady_clock::now();
    // The sink counts the old files only.
    sink_.reset(new Sink{{path_, sizeLimit_, fileCount_ - 1}});
    // The layout has made the whole line already.
    sink_->out.set_formatter(std::make_unique<spdlog::pattern_formatter>(
        "%v", spdlog::pattern_time_type::local, std::string()));
}

void LogClientRollingFile::Write(const std::string& line) {
    const std::lock_guard lock(mutex_);
    try {
        if (!sink_) {
            if (std::chrono::steady_clock::now() - failed_ < kReopenPause) {
                return;
            }
            Open();
        }
        sink_->out.log(spdlog::details::log_msg("", spdlog::level::info, line));
        sink_->out.flush();
    } catch (const std::exception&) {
        // The disk is full, the file is gone, or there is no memory: the line is lost. The sink may
        // have been left without a file.
        sink_.reset();
        failed_ = std::chrono::steady_clock::now();
    }
}
