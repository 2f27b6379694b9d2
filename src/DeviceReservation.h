#pragma once

#include <cstdint>
#include <string>

#include "HeldMutex.h"
#include "ZelConfig.h"

/// The reservation of the box: who may use it, under which handle, and to which host its
/// diagnostic ports are open. The state lives in the store ("zel.state.*"), where every service
/// reads it; it changes only here. Thread-safe: each operation is one critical section.
class DeviceReservation {
public:
    // Values of "zel.state.current".
    static constexpr char kFree[] = "4";
    static constexpr char kReserved[] = "5";
    // Values of "zel.state.uuid".
    static constexpr char kFreeUuid[] = "00000000-0000-0000-0000-000000000000";
    static constexpr char kReservedUuid[] = "00000000-0000-0001-0000-000000000001";

    /// What a request's handle is worth; the values are the error codes that clients know.
    enum class Session { kValid = 0, kWrongHandle = 7, kNotReserved = 9 };

    explicit DeviceReservation(ZelConfig& config) : config_(config) {}

    /// Reserves the free box for `owner` and opens its diagnostic ports to `hostLock` (see
    /// SetHostLock; empty means any host). Returns true with the new handle, a decimal number; or
    /// false with "0" when the box is reserved.
    bool Reserve(const std::string& owner, const std::string& hostLock, std::string& handle);

    /// Releases the box and closes its ports. Returns false, changing nothing, when `handle` is not
    /// the stored one.
    bool Release(const std::string& handle);

    /// Moves the diagnostic ports of the reserved box to another host. The handle is checked
    /// first, then the state.
    Session ChangeHostLock(const std::string& handle, const std::string& hostLock);

    /// The state is checked first, then the handle.
    Session CheckSession(const std::string& handle) const;

    bool IsReserved() const;

private:
    /// `hostLock` is what inet_aton accepts ("0" means any host); other text opens the ports to
    /// 255.255.255.255, that is, to nobody.
    void SetHostLock(const std::string& hostLock);
    void ClearHostLock();
    std::string DrawHandle();

    ZelConfig& config_;
    mutable HeldMutex mutex_;
    std::uint64_t reservations_ = 0;
};
