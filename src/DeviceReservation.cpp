#include "DeviceReservation.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <ctime>
#include <random>

#include "Shell.h"
#include "SocketGuard.h"

namespace {

constexpr char kStateKey[] = "zel.state.current";
constexpr char kOwnerKey[] = "zel.state.owner";
constexpr char kHandleKey[] = "zel.state.handle";
constexpr char kUuidKey[] = "zel.state.uuid";
constexpr char kHostLockKey[] = "zel.state.hostlock";

constexpr char kAnyHost[] = "0.0.0.0";
constexpr char kMarkerFile[] = "/tmp/forceconnect";
constexpr mode_t kMarkerMode = 0644;
constexpr int kDiagnosticPorts[] = {6801, 6802, 52410, 52411};

std::string ToDottedAddress(const std::string& text) {
    in_addr address{};
    if (inet_aton(text.c_str(), &address) == 0) {
        address.s_addr = INADDR_NONE;
    }
    char dotted[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, dotted, sizeof dotted);
}

/// `action` is the packet filter's option: "-A" adds the rules, "-D" deletes them.
void FilterPorts(const char* action, const std::string& host, int forwarding) {
    const std::string source = host == kAnyHost ? "" : "-s " + host;
    std::string output;
    for (const int port : kDiagnosticPorts) {
        Shell::RunSystemWithResult(output, "/sbin/iptables %s INPUT -p tcp %s --dport %d -j ACCEPT",
                                   action, source.c_str(), port);
    }
    Shell::RunSystemWithResult(output, "/bin/echo %d > /proc/sys/net/ipv4/ip_forward", forwarding);
}

}  // namespace

bool DeviceReservation::Reserve(const std::string& owner, const std::string& hostLock,
                                std::string& handle) {
    const std::lock_guard lock(mutex_);
    const std::string drawn = DrawHandle();
    handle = "0";
    std::string state;
    if (!config_.Get(kStateKey, state) || state == kReserved) {
        return false;
    }
    handle = drawn;
    config_.Set(kHandleKey, handle, ZelConfig::Kind::kFixed);
    config_.Set(kOwnerKey, owner, ZelConfig::Kind::kFixed);
    SetHostLock(hostLock.empty() ? "0" : hostLock);
    config_.Set(kUuidKey, kReservedUuid, ZelConfig::Kind::kFixed);
    config_.Set(kStateKey, kReserved, ZelConfig::Kind::kFixed);
    const SocketGuard marker(
        open(kMarkerFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kMarkerMode));
    return true;
}

bool DeviceReservation::Release(const std::string& handle) {
    const std::lock_guard lock(mutex_);
    if (config_.Get(kHandleKey) != handle) {
        return false;
    }
    ClearHostLock();
    config_.Set(kOwnerKey, "", ZelConfig::Kind::kFixed);
    config_.Set(kStateKey, kFree, ZelConfig::Kind::kFixed);
    config_.Set(kHandleKey, "", ZelConfig::Kind::kFixed);
    config_.Set(kUuidKey, kFreeUuid, ZelConfig::Kind::kFixed);
    return true;
}

DeviceReservation::Session DeviceReservation::ChangeHostLock(const std::string& handle,
                                                             const std::string& hostLock) {
    const std::lock_guard lock(mutex_);
    if (config_.Get(kHandleKey) != handle) {
        return Session::kWrongHandle;
    }
    if (!IsReserved()) {
        return Session::kNotReserved;
    }
    ClearHostLock();
    SetHostLock(hostLock);
    return Session::kValid;
}

DeviceReservation::Session DeviceReservation::CheckSession(const std::string& handle) const {
    const std::lock_guard lock(mutex_);
    if (!IsReserved()) {
        return Session::kNotReserved;
    }
    return config_.Get(kHandleKey) == handle ? Session::kValid : Session::kWrongHandle;
}

bool DeviceReservation::IsReserved() const {
    return config_.Get(kStateKey) == kReserved;
}

void DeviceReservation::SetHostLock(const std::string& hostLock) {
    const std::string host = ToDottedAddress(hostLock);
    config_.Set(kHostLockKey, host, ZelConfig::Kind::kFixed);
    FilterPorts("-A", host, 1);
}

void DeviceReservation::ClearHostLock() {
    FilterPorts("-D", config_.Get(kHostLockKey), 0);
}

std::string DeviceReservation::DrawHandle() {
    // The counter makes two handles of the same second differ.
    const std::uint64_t seed = static_cast<std::uint64_t>(std::time(nullptr)) + ++reservations_;
    std::seed_seq seeds{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32)};
    std::mt19937 random(seeds);
    const std::uint64_t high = random();
    const std::uint64_t low = random();
    return std::to_string(static_cast<std::int64_t>(high << 32 | low));
}
