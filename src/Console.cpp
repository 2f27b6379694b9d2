#include "Console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <mutex>

#include "HeldMutex.h"

namespace Console {
namespace {

// What a pipe takes without waiting once it is ready at all.
constexpr std::size_t kReadyBytes = 512;

class Stream {
public:
    explicit constexpr Stream(int descriptor) : descriptor_(descriptor) {}

    void Write(std::string_view line) noexcept {
        const std::lock_guard lock(mutex_);
        FollowRedirection();
        if (!TellLost() || !Put(line)) {
            ++lost_;
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

    ssize_t PutSome(std::string_view text) const {
        switch (way_) {
            case Way::kPlain:
                return write(descriptor_, text.data(), text.size());
            case Way::kOwn:
                return write(own_, text.data(), text.size());
            case Way::kSocket:
                return send(descriptor_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            case Way::kWhenReady: {
                pollfd output{descriptor_, POLLOUT, 0};
                if (poll(&output, 1, 0) == 1 && output.revents == POLLOUT) {
                    return write(descriptor_, text.data(), std::min(text.size(), kReadyBytes));
                }
                return -1;
            }
            case Way::kNone:
                break;
        }
        return -1;
    }

    bool Put(std::string_view text) {
        while (!text.empty()) {
            const ssize_t written = PutSome(text);
            if (written > 0) {
                text.remove_prefix(static_cast<std::size_t>(written));
                cut_ = !text.empty();
            } else if (written == 0 || errno != EINTR) {
                return false;
            }
        }
        return true;
    }

    bool TellLost() {
        if (lost_ == 0) {
            return true;
        }
        std::array<char, 48> text{};
        const int length = std::snprintf(text.data(), text.size(), "%s%lu lines lost\n",
                                         cut_ ? "...\n" : "", lost_);
        const bool told = Put({text.data(), static_cast<std::size_t>(length)});
        if (told) {
            lost_ = 0;
        }
        return told;
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

// Lines are written while the process ends: these are never destroyed.
constinit Stream output(STDOUT_FILENO);
constinit Stream error(STDERR_FILENO);

}  // namespace

void Print(std::string_view text) noexcept {
    output.Write(text);
}

void PrintError(std::string_view text) noexcept {
    error.Write(text);
}

}  // namespace Console
