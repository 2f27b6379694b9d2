#include "DeviceReservation.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <ctime>
#include <new>
#include <random>

#include "Ipv4.h"
#include "SocketGuard.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace {

constexpr char kMarkerFile[] = "/tmp/forceconnect";
constexpr mode_t kMarkerMode = 0644;
constexpr char kRandomDevice[] = "/dev/urandom";

std::string ToDottedAddress(const std::string& text) {
    return Ipv4::Dotted(Ipv4::ParseAnyForm(text).value_or(in_addr{INADDR_NONE}));
}

std::uint64_t DrawFromKernel() {
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == sizeof number) {
        return number;
    }
    // An old kernel, or one that was started a moment ago: the device answers all the same.
    const SocketGuard device(open(kRandomDevice, O_RDONLY | O_CLOEXEC));
    if (read(device.Get(), &number, sizeof number) != sizeof number) {
        ZEL_ERROR("The kernel gives no random bytes, handles can be guessed");
    }
    return number;
}

}  // namespace

DeviceReservation::Lease::~Lease() {
    do {
        try {
            static_cast<void>(reservation_.Release(handle_));  // its owner may be gone already
            return;
        } catch (const std::bad_alloc&) {
            continue;
        }
    } while (triesAgain_());
}

void DeviceReservation::CloseLeftPorts() {
    ports_.CloseAll({.time = kStartLimit});
}

void DeviceReservation::Stop() {
    ports_.Shut();
    // Whoever is at work may be adding a rule.
    const std::unique_lock lock(mutex_, kStopTimeout);
    ports_.CloseAll({.time = kStopLimit, .runsInStop = true});
}

bool DeviceReservation::Reserve(const std::string& owner, const std::string& hostLock,
                                std::string& handle) {
    handle = "0";
    const std::unique_lock lock = Lock();
    if (!lock) {
        return false;
    }
    const std::string drawn = DrawHandle();
    std::string state;
    if (ports_.IsShut() || !config_.Get(StoreKeys::kState, state) || state == kReserved) {
        return false;
    }
    handle = drawn;
    config_.SetFixed(StoreKeys::kHandle, handle);
    config_.SetFixed(StoreKeys::kOwner, owner.substr(0, kMaxOwner));
    try {
        SetHostLock(hostLock.empty() ? "0" : hostLock);
        config_.SetFixed(StoreKeys::kUuid, kReservedUuid);
        config_.SetFixed(StoreKeys::kState, kReserved);
    } catch (const std::bad_alloc&) {
        // The box has stayed free.
        ports_.CloseAll({.time = DiagnosticPorts::kRetryLimit});
        throw;
    }
    const SocketGuard marker(
        open(kMarkerFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kMarkerMode));
    return true;
}

bool DeviceReservation::Release(const std::string& handle) {
    const std::unique_lock lock = Lock(handle);
    return lock && !handle.empty() && ReleaseWhere(StoreKeys::kHandle, handle);
}

bool DeviceReservation::ReleaseOwnedBy(const std::string& owner) {
    const std::unique_lock lock = Lock();
    return lock && ReleaseWhere(StoreKeys::kOwner, owner.substr(0, kMaxOwner));
}

bool DeviceReservation::ReleaseWhere(const char* key, const std::string& value) {
    if (!IsReserved() || config_.Get(key) != value) {
        return false;
    }
    ClearHostLock();
    config_.SetFixed(StoreKeys::kOwner, "");
    config_.SetFixed(StoreKeys::kState, kFree);
    config_.SetFixed(StoreKeys::kHandle, "");
    config_.SetFixed(StoreKeys::kUuid, kFreeUuid);
    return true;
}

DeviceReservation::Session DeviceReservation::ChangeHostLock(const std::string& handle,
                                                             const std::string& hostLock) {
    const std::unique_lock lock = Lock(handle);
    if (!lock || config_.Get(StoreKeys::kHandle) != handle) {
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
    const std::unique_lock lock = Lock(handle);
    if (!lock) {
        return Session::kWrongHandle;
    }
    if (!IsReserved()) {
        return Session::kNotReserved;
    }
    return config_.Get(StoreKeys::kHandle) == handle ? Session::kValid : Session::kWrongHandle;
}

bool DeviceReservation::IsReserved() const {
    return config_.Get(StoreKeys::kState) == kReserved;
}

std::unique_lock<HeldMutex> DeviceReservation::Lock(const std::string& handle) const {
    const bool isOwner = !handle.empty() && config_.Get(StoreKeys::kHandle) == handle;
    std::unique_lock<HeldMutex> lock =
        isOwner ? std::unique_lock(mutex_, kTimeout) : mutex_.LockInTurn(kTimeout);
    if (!lock) {
        ZEL_ERROR("The reservation is being changed, request refused");
    }
    return lock;
}

void DeviceReservation::SetHostLock(const std::string& hostLock) {
    const std::string host = ToDottedAddress(hostLock);
    config_.SetFixed(StoreKeys::kHostLock, host);
    ports_.Open(host);
}

void DeviceReservation::ClearHostLock() {
    const std::string host = config_.Get(StoreKeys::kHostLock);
    if (!host.empty()) {
        ports_.Close(host);
    }
}

std::string DeviceReservation::DrawHandle() {
    // The counter makes two handles of the same second differ. Both can be guessed, what the kernel
    // adds cannot.
    const std::uint64_t seed = static_cast<std::uint64_t>(std::time(nullptr)) + ++reservations_;
    std::seed_seq seeds{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32)};
    std::mt19937 random(seeds);
    std::uint64_t handle = 0;
    while (handle == 0) {
        const std::uint64_t high = random();
        const std::uint64_t low = random();
        handle = (high << 32 | low) ^ DrawFromKernel();
    }
    return std::to_string(static_cast<std::int64_t>(handle));
}
