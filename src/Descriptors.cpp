#include "Descriptors.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

namespace Descriptors {

int MillisecondsUntil(Clock::time_point time) {
    using Milliseconds = std::chrono::milliseconds;
    const auto left = std::chrono::ceil<Milliseconds>(time - Clock::now()).count();
    return static_cast<int>(
        std::clamp<Milliseconds::rep>(left, 0, std::numeric_limits<int>::max()));
}

bool WaitUntil(int descriptor, short events, Clock::time_point deadline) {
    pollfd waited{descriptor, events, 0};
    int ready = 0;
    do {
        ready = poll(&waited, 1, MillisecondsUntil(deadline));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

bool IsReady(int descriptor, short events) {
    return WaitUntil(descriptor, events, Clock::time_point());
}

bool WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    return true;
}

void ReadAway(int socket, std::size_t limit, Clock::time_point deadline) {
    std::array<char, 4096> part{};
    std::size_t total = 0;
    while (total < limit && Clock::now() < deadline && WaitUntil(socket, POLLIN, deadline)) {
        const ssize_t received = recv(socket, part.data(), part.size(), MSG_DONTWAIT);
        if (received < 1) {
            return;
        }
        total += static_cast<std::size_t>(received);
    }
}

}  // namespace Descriptors
