#include "SystemdNotifier.h"

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>

namespace {

constexpr char kVariable[] = "NOTIFY_SOCKET";
constexpr std::size_t kMaxMessage = 256;

}  // namespace

SystemdNotifier::SystemdNotifier() {
    const char* variable = std::getenv(kVariable);
    const std::string_view name = variable == nullptr ? "" : variable;
    const bool isAbstract = name.starts_with('@');
    if (isAbstract || name.starts_with('/')) {
        address_.sun_family = AF_UNIX;
        // A byte that stays 0 ends a path; what is longer is no address.
        const std::size_t room = sizeof address_.sun_path - (isAbstract ? 0 : 1);
        if (name.copy(address_.sun_path, room) == name.size()) {
            if (isAbstract) {
                address_.sun_path[0] = '\0';
            }
            addressSize_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
            socket_.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        }
    }
    unsetenv(kVariable);
}

void SystemdNotifier::SetActivity(const char* activity) {
    const std::lock_guard lock(mutex_);
    if (!isStopping_) {
        activity_ = activity;
        Send();
    }
}

void SystemdNotifier::SetState(const char* state, const char* field) {
    const std::lock_guard lock(mutex_);
    if (!isStopping_) {
        state_ = state;
        field_ = field;
        Send();
    }
}

void SystemdNotifier::SetStopping() {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
    state_ = "Stopping";
    field_ = "STOPPING=1";
    activity_ = "";
    Send();
}

void SystemdNotifier::Repeat() {
    const std::lock_guard lock(mutex_);
    if (isPending_) {
        Send();
    }
}

/// The whole state each time: whichever message arrives, the receiver knows it.
void SystemdNotifier::Send() {
    if (socket_.Get() < 0) {
        return;
    }
    std::array<char, kMaxMessage> message{};
    std::snprintf(message.data(), message.size(), "%s%sSTATUS=%s%s%s", field_,
                  *field_ == '\0' ? "" : "\n", state_, *activity_ == '\0' ? "" : ": ", activity_);
    const std::string_view text = message.data();
    isPending_ = sendto(socket_.Get(), text.data(), text.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&address_), addressSize_) < 0;
}
