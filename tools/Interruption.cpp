#include "Interruption.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>

Interruption::Interruption() {
    sigset_t signals{};
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    descriptor_.Reset(signalfd(-1, &signals, SFD_CLOEXEC));
}

bool Interruption::WithinTime(std::chrono::milliseconds time) const {
    pollfd polled{descriptor_.Get(), POLLIN, 0};
    return poll(&polled, 1, static_cast<int>(time.count())) > 0;
}
