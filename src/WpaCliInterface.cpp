#include "WpaCliInterface.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>

#include "Descriptors.h"

namespace {

constexpr std::chrono::milliseconds kReplyTime{100};
constexpr std::size_t kReplySize = 4096;

std::atomic<unsigned> openings = 0;

}  // namespace

int WpaCliInterface::Open(const std::string& path) {
    socket_.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket_.Get() < 0) {
        return 1;
    }
    if (!Connect(path)) {
        Close();
        return 1;
    }
    return 0;
}

bool WpaCliInterface::Connect(const std::string& path) {
    local_ = {};
    local_.sun_family = AF_UNIX;
    const int length = std::snprintf(local_.sun_path, sizeof local_.sun_path, "/tmp/wpa_ctrl_%d-%d",
                                     getpid(), static_cast<int>(openings++));
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof local_.sun_path ||
        bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&local_), sizeof local_) != 0) {
        return false;
    }
    sockaddr_un remote{};
    remote.sun_family = AF_UNIX;
    path.copy(remote.sun_path, sizeof remote.sun_path - 1);
    return connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&remote), sizeof remote) == 0;
}

int WpaCliInterface::Request(const std::string& command, std::string& reply) {
    if (command.empty()) {
        return -1;
    }
    reply.clear();
    // A full or closed socket shows as a missing reply.
    static_cast<void>(
        send(socket_.Get(), command.data(), command.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
    if (!Descriptors::WaitUntil(socket_.Get(), POLLIN, Descriptors::Clock::now() + kReplyTime)) {
        return 0;
    }
    std::array<char, kReplySize> buffer{};
    if (recv(socket_.Get(), buffer.data(), buffer.size() - 1, MSG_DONTWAIT) > 0) {
        reply = buffer.data();
    }
    return 0;
}

void WpaCliInterface::Close() {
    socket_.Reset();
    unlink(local_.sun_path);
}
