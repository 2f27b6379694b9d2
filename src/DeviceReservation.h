#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "DiagnosticPorts.h"
#include "HeldMutex.h"
#include "ZelConfig.h"

/// The reservation of the box: who may use it, under which handle, and to which host its
/// diagnostic ports are open. The state lives in the store ("zel.state.*"), where every service
/// reads it; it changes only here. Thread-safe: each operation is one critical section. An
/// operation waits for the one at work, which may have to wait for a tool of the board, for at most
/// kTimeout and is then refused; where many wait already, for less (HeldMutex::LockInTurn).
class DeviceReservation {
public:
    // Values of "zel.state.current".
    static constexpr char kFree[] = "4";
    static constexpr char kReserved[] = "5";
    // Values of "zel.state.uuid".
    static constexpr char kFreeUuid[] = "00000000-0000-0000-0000-000000000000";
    static constexpr char kReservedUuid[] = "00000000-0000-0001-0000-000000000001";

    /// What a request's handle is worth.
    enum class Session { kValid, kWrongHandle, kNotReserved };

    /// Releases the box at the end of a scope. Nobody else has the handle: where memory is lacking
    /// for it, `triesAgain` is asked whether to.
    class Lease {
    public:
        Lease(DeviceReservation& reservation, std::string handle, std::function<bool()> triesAgain)
            : reservation_(reservation),
              handle_(std::move(handle)),
              triesAgain_(std::move(triesAgain)) {}
        ~Lease();
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

    private:
        DeviceReservation& reservation_;
        std::string handle_;
        std::function<bool()> triesAgain_;
    };

    /// Bytes of an owner's name that are kept and compared: every information request is answered
    /// with it.
    static constexpr std::size_t kMaxOwner = std::size_t{32} * 1024;

    static constexpr std::chrono::seconds kTimeout{4};
    /// Time in which rules are removed at the start, whose number is not known.
    static constexpr std::chrono::seconds kStartLimit{60};
    /// What a stop waits for the operation at work, and the time in which it then removes rules.
    static constexpr std::chrono::milliseconds kStopTimeout{500};
    static constexpr std::chrono::milliseconds kStopLimit{1500};

    explicit DeviceReservation(ZelConfig& config) : config_(config) {}

    /// Closes the ports that an earlier run of the agent has left open, however it ended. For the
    /// start, before anything is served.
    void CloseLeftPorts();

    /// Closes the ports for good: the box cannot be reserved any more.
    void Stop();

    /// Reserves the free box for `owner` and opens its diagnostic ports to `hostLock` (see
    /// SetHostLock; empty means any host). Returns true with the new handle, a decimal number that
    /// cannot be guessed and is never 0; or false with "0" when the box is reserved or the agent is
    /// being stopped.
    [[nodiscard]] bool Reserve(const std::string& owner, const std::string& hostLock,
                               std::string& handle);

    /// Releases the reserved box and closes its ports. Returns false, changing nothing, when it is
    /// free or `handle` is not the stored one.
    [[nodiscard]] bool Release(const std::string& handle);

    /// The same for whoever names the stored owner.
    [[nodiscard]] bool ReleaseOwnedBy(const std::string& owner);

    /// Moves the diagnostic ports of the reserved box to another host. The handle is checked
    /// first, then the state. A refusal for want of time is told as a wrong handle.
    Session ChangeHostLock(const std::string& handle, const std::string& hostLock);

    /// The state is checked first, then the handle. A refusal for want of time is told as a wrong
    /// handle.
    Session CheckSession(const std::string& handle) const;

    /// Waits for nobody.
    bool IsReserved() const;

private:
    /// Holds nothing when the operation at work outlasts kTimeout. Others than the owner, who
    /// knows the handle, wait in turn.
    std::unique_lock<HeldMutex> Lock(const std::string& handle = "") const;
    /// Releases the reserved box if that entry of the store has that value.
    [[nodiscard]] bool ReleaseWhere(const char* key, const std::string& value);
    /// `hostLock` is what inet_aton accepts ("0" means any host); other text opens the ports to
    /// 255.255.255.255, that is, to nobody.
    void SetHostLock(const std::string& hostLock);
    void ClearHostLock();
    std::string DrawHandle();

    ZelConfig& config_;
    mutable HeldMutex mutex_;
    DiagnosticPorts ports_;
    std::uint64_t reservations_ = 0;
};
