#include "SupplicantLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "SocketGuard.h"
#include "ZelLog.h"

namespace SupplicantLog {
namespace {

/// Moves the last bytes of a file of `size` bytes to its beginning and cuts it behind them.
void KeepEnd(int file, off_t size) {
    constexpr std::size_t kPiece = 4096;
    static_assert(kKept % kPiece == 0);
    std::array<char, kPiece> piece{};
    const off_t start = size - static_cast<off_t>(kKept);
    off_t done = 0;
    while (done < static_cast<off_t>(kKept)) {
        const ssize_t count = pread(file, piece.data(), piece.size(), start + done);
        if (count <= 0) {
            return;  // another thread has just cut it
        }
        if (pwrite(file, piece.data(), static_cast<std::size_t>(count), done) != count) {
            break;
        }
        done += count;
    }
    if (ftruncate(file, done) != 0) {
        ZEL_ERROR("Can't cut %s", kFile);
    }
}

}  // namespace

void Limit() {
    // Where the supplicant does not append but goes on at its own position, the file has a hole in
    // front of that: what counts is what the file takes.
    constexpr blkcnt_t kBlock = 512;
    struct stat status {};
    if (stat(kFile, &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_blocks <= static_cast<blkcnt_t>(kMaxSize) / kBlock ||
        status.st_size < static_cast<off_t>(kMaxSize)) {
        return;
    }
    const SocketGuard file(open(kFile, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (file.Get() >= 0) {
        KeepEnd(file.Get(), status.st_size);
    }
}

}  // namespace SupplicantLog
