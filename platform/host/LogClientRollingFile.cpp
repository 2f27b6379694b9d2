#include <pthread.h>
#include <spdlog/formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <exception>
#include <memory>
#include <mutex>

#include "Console.h"
#include "LogClient.h"

namespace {

/// The layout has made the whole line already.
struct Unchanged : spdlog::formatter {
    void format(const spdlog::details::log_msg& line, spdlog::memory_buf_t& out) override {
        out.append(line.payload.begin(), line.payload.end());
    }
    std::unique_ptr<spdlog::formatter> clone() const override {
        return std::make_unique<Unchanged>();
    }
};

/// Looks again for a moment before it sleeps: a line is mostly written within that.
class Mutex {
public:
    void lock() { pthread_mutex_lock(&mutex_); }
    void unlock() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_ = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
};

}  // namespace

struct LogClientRollingFile::Sink {
    Mutex mutex;
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> file;  // none after a failure
};

LogClientRollingFile::LogClientRollingFile(const std::string& path, std::size_t sizeLimit,
                                           std::size_t fileCount)
    : path_(path), sizeLimit_(sizeLimit), fileCount_(fileCount), sink_(std::make_unique<Sink>()) {
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
    sink_->file =
        std::make_unique<spdlog::sinks::rotating_file_sink_st>(path_, sizeLimit_, fileCount_ - 1);
    sink_->file->set_formatter(std::make_unique<Unchanged>());
}

void LogClientRollingFile::Write(const std::string& line) {
    const std::lock_guard lock(sink_->mutex);
    try {
        if (!sink_->file) {
            if (std::chrono::steady_clock::now() - failed_ < kReopenPause) {
                return;
            }
            Open();
        }
        sink_->file->log(spdlog::details::log_msg("", spdlog::level::info, line));
        sink_->file->flush();
    } catch (const std::exception&) {
        // The disk is full, the file is gone, or there is no memory: the line is lost. The sink may
        // have been left without a file.
        sink_->file.reset();
        failed_ = std::chrono::steady_clock::now();
    }
}
