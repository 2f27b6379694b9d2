#include "Interruption.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace {

sigset_t Signals() {
    sigset_t signals{};
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

Interruption::Interruption() {
    const sigset_t signals = Signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    descriptor_.Reset(signalfd(-1, &signals, SFD_CLOEXEC));
}

bool Interruption::WithinTime(std::chrono::milliseconds time) const {
    std::array<pollfd, 2> polled{{{descriptor_.Get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    return poll(polled.data(), polled.size(), static_cast<int>(time.count())) > 0;
}

bool Interruption::AwaitOutput() const {
    constexpr int kForEver = -1;
    std::array<pollfd, 2> polled{{{descriptor_.Get(), POLLIN, 0}, {STDOUT_FILENO, POLLOUT, 0}}};
    return poll(polled.data(), polled.size(), kForEver) > 0 && polled[0].revents == 0;
}

void Interruption::Deliver() {
    const sigset_t signals = Signals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}
