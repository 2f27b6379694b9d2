#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>

/// A file that the kernel, the board or one of its tools writes anew while the agent runs, and that
/// is read again for every answer that tells of it.
///
/// It is kept open between readings, but never read for what it was: a reading looks up first
/// whether the path still names the same file, and opens it anew when it does not. Files of procfs
/// need no look: the kernel makes what they hold at each reading, and where it has taken one away
/// the reading fails and is begun anew. What is no regular file (a pipe, a device) is opened at
/// each reading. Thread-safe.
class SourceFile {
public:
    /// Nothing is opened yet.
    explicit SourceFile(std::string path) : path_(std::move(path)) {}
    SourceFile(const SourceFile&) = delete;
    SourceFile& operator=(const SourceFile&) = delete;

    /// Most bytes that ReadAll() gives.
    static constexpr std::size_t kMaxText = std::size_t{1024} * 1024;

    /// Sets `out` to the first line, without its line end and cut at 8190 bytes or its first zero
    /// byte. False when the file cannot be opened or begins with a line end; an empty file gives
    /// true and an empty text.
    bool ReadFirstLine(std::string& out);

    /// Sets `out` to what the file holds. False when it cannot be opened.
    bool ReadAll(std::string& out);

private:
    struct Opened;

public:
    /// One reading, from the beginning of the file on.
    class Reading {
    public:
        /// `source` must outlive the reading.
        explicit Reading(SourceFile& source);
        /// What it says after Next() counts: a file may turn out to be gone.
        bool IsOpen() const { return opened_ != nullptr; }
        /// Fills the beginning of `block`. Returns the number of bytes, 0 at the end of the file
        /// and where it cannot be read.
        std::size_t Next(std::span<char> block);

    private:
        void Open();
        ssize_t Read(std::span<char> block) const;

        SourceFile& source_;
        std::shared_ptr<const Opened> opened_;
        bool wasKept_ = false;
        off_t position_ = 0;
        off_t size_ = 0;  // 0 when it is not known
    };

private:
    std::shared_ptr<const Opened> Kept();
    void Keep(std::shared_ptr<const Opened> opened);

    const std::string path_;
    std::mutex mutex_;  // nothing is read while it is held
    std::shared_ptr<const Opened> kept_;
};
