#include "Console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <new>
#include <span>

#include "HeldMutex.h"

namespace Console {
namespace {

// What a pipe takes without waiting once it is ready at all.
constexpr std::size_t kReadyBytes = 512;

class Stream {
public:
    explicit Stream(int descriptor) : descriptor_(descriptor) {}

    void Write(std::string_view line) noexcept {
        const std::lock_guard lock(mutex_);
        FollowRedirection();
        std::array<char, 48> told{};
        std::size_t toldSize = 0;
        if (lost_ > 0) {
            toldSize = static_cast<std::size_t>(std::snprintf(
                told.data(), told.size(), "%s%lu lines lost\n", cut_ ? "...\n" : "", lost_));
        }
        // In one go: the short text alone would go on fitting where no line does.
        const std::size_t written =
            Put({iovec{told.data(), toldSize}, iovec{const_cast<char*>(line.data()), line.size()}});
        if (written >= toldSize) {
            lost_ = 0;
        }
        if (written < toldSize + line.size()) {
            ++lost_;
            cut_ = written == 0 ? cut_ : written != toldSize;
        }
    }

private:
    enum class Way { kNone, kPlain, kOwn, kSocket, kWhenReady };

    /// The descriptor's file description is shared with other processes and must stay as it is, so
    /// pipes and terminals are opened once more, for writing without waiting.
    void FollowRedirection() {
        struct stat status {};
        if (fstat(descriptor_, &status) != 0) {
            way_ = Way::kNone;
            return;
        }
        if (way_ != Way::kNone && status.st_dev == device_ && status.st_ino == inode_) {
            return;
        }
        device_ = status.st_dev;
        inode_ = status.st_ino;
        if (own_ >= 0) {
            close(own_);
            own_ = -1;
        }
        if (S_ISREG(status.st_mode)) {
            way_ = Way::kPlain;
        } else if (S_ISSOCK(status.st_mode)) {
            way_ = Way::kSocket;
        } else {
            std::array<char, 32> path{};
            std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", descriptor_);
            own_ = open(path.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
            way_ = own_ >= 0 ? Way::kOwn : Way::kWhenReady;
        }
    }

    ssize_t PutSome(std::span<iovec> parts) const {
        const int count = static_cast<int>(parts.size());
        switch (way_) {
            case Way::kPlain:
                return writev(descriptor_, parts.data(), count);
            case Way::kOwn:
                return writev(own_, parts.data(), count);
            case Way::kSocket: {
                msghdr message{};
                message.msg_iov = parts.data();
                message.msg_iovlen = parts.size();
                return sendmsg(descriptor_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
            }
            case Way::kWhenReady: {
                pollfd output{descriptor_, POLLOUT, 0};
                const iovec& part = parts[0].iov_len > 0 ? parts[0] : parts[1];
                if (poll(&output, 1, 0) == 1 && output.revents == POLLOUT) {
                    return write(descriptor_, part.iov_base, std::min(part.iov_len, kReadyBytes));
                }
                return 0;
            }
            case Way::kNone:
                break;
        }
        return 0;
    }

    /// Number of bytes that could be written.
    std::size_t Put(std::array<iovec, 2> parts) const {
        std::size_t total = 0;
        while (parts[0].iov_len + parts[1].iov_len > 0) {
            const ssize_t written = PutSome(parts);
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written <= 0) {
                break;
            }
            total += static_cast<std::size_t>(written);
            auto taken = static_cast<std::size_t>(written);
            for (iovec& part : parts) {
                const std::size_t step = std::min(taken, part.iov_len);
                part.iov_base = static_cast<char*>(part.iov_base) + step;
                part.iov_len -= step;
                taken -= step;
            }
        }
        return total;
    }

    HeldMutex mutex_;
    const int descriptor_;
    int own_ = -1;
    Way way_ = Way::kNone;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    unsigned long lost_ = 0;
    bool cut_ = false;
};

/// Never destroyed, since lines are written while the process ends, and without taking memory.
template <int kDescriptor>
Stream& StreamOf() {
    alignas(Stream) static std::array<std::byte, sizeof(Stream)> memory;
    static Stream& stream = *new (memory.data()) Stream(kDescriptor);
    return stream;
}

}  // namespace

void Print(std::string_view text) noexcept {
    StreamOf<STDOUT_FILENO>().Write(text);
}

void PrintError(std::string_view text) noexcept {
    StreamOf<STDERR_FILENO>().Write(text);
}

}  // namespace Console
