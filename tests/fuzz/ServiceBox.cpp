#include "ServiceBox.h"

#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <ostream>
#include <set>

#include "Fuzzing.h"
#include "StoreSetup.h"
#include "ZelLog.h"

using Fuzzing::Require;

namespace {

constexpr char kOwner[] = "owner";
// What the log line of a command begins with.
constexpr char kCommandMark[] = "Open pipe '";

// What is run while the box is made may be run.
bool isLearning = true;
std::set<std::string>& KnownCommands() {
    static std::set<std::string> known;
    return known;
}

/// The text with "A" in the place of every dotted address.
std::string WithoutAddresses(std::string_view text) {
    constexpr std::string_view kDigitsAndDots = "0123456789.";
    std::string result;
    while (!text.empty()) {
        const std::size_t size = std::min(text.find_first_not_of(kDigitsAndDots), text.size());
        const std::string_view number = text.substr(0, size);
        result += std::count(number.begin(), number.end(), '.') == 3 ? "A" : number;
        text.remove_prefix(size);
        const std::size_t other = std::min(text.find_first_of(kDigitsAndDots), text.size());
        result += text.substr(0, other);
        text.remove_prefix(other);
    }
    return result;
}

}  // namespace

extern "C" int posix_spawn(pid_t*, const char*, const posix_spawn_file_actions_t*,
                           const posix_spawnattr_t*, char* const[], char* const[]) {
    return EAGAIN;
}

extern "C" pid_t fork() noexcept {
    errno = EAGAIN;
    return -1;
}

ModeSwitch::Outcome ModeSwitch::Run(long number, in_addr, FormerAddress&) {
    return AddressModes::OfClient(number) == AddressMode::kDhcp ? Outcome::kDone : Outcome::kFailed;
}

ServiceBox::Log::Log() {
    struct MessageOnly : LogLayout {
        void Format(std::ostream& out, const LogEvent& event) const override {
            out << event.GetLogMessage() << '\n';
        }
    };
    SetLayout(std::make_unique<MessageOnly>());
    ZelLog::Handler().AddClient(*this);
}

void ServiceBox::Log::Write(const std::string& line) {
    Require(!Fuzzing::HasControls(line, "\n"), "a log line holds no control characters");
    // Elsewhere in a line the mark may be what a peer has sent.
    if (!line.starts_with(kCommandMark)) {
        return;
    }
    const std::string command = WithoutAddresses(line);
    if (isLearning) {
        KnownCommands().insert(command);
    }
    Require(KnownCommands().contains(command),
            "a command holds nothing of a peer's but an address");
}

ServiceBox::ServiceBox() {
    SetUpStore(config, trigger15, [] { return std::string(); });
    for (const char* host : {"192.0.2.1", "0"}) {
        std::string handle;
        static_cast<void>(reservation.Reserve(kOwner, host, handle));
        reservation.ChangeHostLock(handle, host);
        static_cast<void>(reservation.Release(handle));
    }
    isLearning = false;
}

void ServiceBox::Set(bool isReserved, bool isStopped) {
    const auto set = [this](const char* key, const char* value) { config.SetFixed(key, value); };
    set("zel.state.current", isReserved ? DeviceReservation::kReserved : DeviceReservation::kFree);
    set("zel.state.owner", isReserved ? kOwner : "");
    set("zel.state.handle", isReserved ? kHandle : "");
    set("zel.state.hostlock", "0.0.0.0");
    set("zel.state.is_stopped", isStopped ? "1" : "0");
}

void ServiceBox::Check() const {
    const std::string state = config.Get("zel.state.current");
    const bool isFree = state == DeviceReservation::kFree;
    Require(isFree || state == DeviceReservation::kReserved, "the box is free or reserved");
    Require(config.Get("zel.state.handle").empty() == isFree, "who reserves has a handle");
    Require(!isFree || config.Get("zel.state.owner").empty(), "a free box has no owner");
}
