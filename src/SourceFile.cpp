#include "SourceFile.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "SocketGuard.h"

struct SourceFile::Opened {
    explicit Opened(const std::string& path) : file(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        struct statfs system {};
        // Some files of procfs can be read from their beginning only once.
        isKeepable = file.Get() >= 0 && fstat(file.Get(), &status) == 0 &&
                     S_ISREG(status.st_mode) && lseek(file.Get(), 0, SEEK_CUR) == 0;
        isOfKernel =
            isKeepable && fstatfs(file.Get(), &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
    }

    SocketGuard file;
    struct stat status {};
    bool isKeepable = false;
    bool isOfKernel = false;
};

std::shared_ptr<const SourceFile::Opened> SourceFile::Kept() {
    const std::lock_guard lock(mutex_);
    return kept_;
}

void SourceFile::Keep(std::shared_ptr<const Opened> opened) {
    const std::lock_guard lock(mutex_);
    kept_.swap(opened);
}

SourceFile::Reading::Reading(SourceFile& source) : source_(source), opened_(source.Kept()) {
    struct stat status {};
    if (opened_ && (opened_->isOfKernel || (stat(source.path_.c_str(), &status) == 0 &&
                                            status.st_dev == opened_->status.st_dev &&
                                            status.st_ino == opened_->status.st_ino))) {
        size_ = status.st_size;
        wasKept_ = true;
        return;
    }
    Open();
}

void SourceFile::Reading::Open() {
    const bool isOneKept = opened_ != nullptr;
    wasKept_ = false;
    opened_ = std::make_shared<const Opened>(source_.path_);
    if (opened_->file.Get() < 0) {
        opened_ = nullptr;
    } else if (opened_->isKeepable) {
        size_ = opened_->status.st_size;
        source_.Keep(opened_);
        return;
    }
    if (isOneKept) {
        source_.Keep(nullptr);
    }
}

ssize_t SourceFile::Reading::Read(std::span<char> block) const {
    const int file = opened_->file.Get();
    ssize_t count = 0;
    do {
        count = opened_->isKeepable ? pread(file, block.data(), block.size(), position_)
                                    : read(file, block.data(), block.size());
    } while (count < 0 && errno == EINTR);
    return count;
}

std::size_t SourceFile::Reading::Next(std::span<char> block) {
    if (!opened_ || (position_ > 0 && position_ == size_)) {
        return 0;
    }
    ssize_t count = Read(block);
    if (count < 0 && wasKept_ && position_ == 0) {
        Open();  // what its path names now, if there is anything
        count = opened_ ? Read(block) : 0;
    }
    count = std::max<ssize_t>(count, 0);
    position_ += count;
    return static_cast<std::size_t>(count);
}

bool SourceFile::ReadFirstLine(std::string& out) {
    constexpr std::size_t kMaxLine = 8190;
    out.clear();
    Reading reading(*this);
    std::array<char, kMaxLine> line;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    std::size_t size = 0;
    std::size_t end = std::string_view::npos;
    while (end == std::string_view::npos && size < line.size()) {
        const std::size_t count = reading.Next(std::span(line).subspan(size));
        if (count == 0) {
            break;
        }
        end = std::string_view(line.data(), size + count).find('\n', size);
        size += count;
    }
    const std::string_view text = std::string_view(line.data(), size).substr(0, end);
    out = text.substr(0, text.find('\0'));
    return reading.IsOpen() && end != 0;
}

bool SourceFile::ReadAll(std::string& out) {
    constexpr std::size_t kBlock = 4096;
    out.clear();
    Reading reading(*this);
    std::array<char, kBlock> block;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    while (out.size() < kMaxText) {
        const std::size_t count = reading.Next(block);
        if (count == 0) {
            break;
        }
        out.append(block.data(), count);
    }
    return reading.IsOpen();
}
