#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

#include "DiscoverModeCtrl.h"
#include "ZelConfig.h"
#include "slpBase.h"

/// Finds the address of the central manager by SLP (RFC 2608): asks for the attributes of
/// "service:zel.manager" and takes the manager's address from the attribute "ClusterIP". One thread
/// locates while another one hands in the replies that the socket receives.
class ManagerLocator {
public:
    /// UDP port that managers listen on.
    static constexpr std::uint16_t kManagerPort = 11352;

    /// Most lines of the log in a start for values that no manager can have as its address, each
    /// once: anybody can send them.
    static constexpr std::size_t kMaxComplaints = 8;

    ManagerLocator(ZelConfig& config, DiscoverModeCtrl& mode, const SlpBase& socket);
    ManagerLocator(const ManagerLocator&) = delete;
    ManagerLocator& operator=(const ManagerLocator&) = delete;

    /// Asks the remembered address three times, one second each, then the multicast group every two
    /// seconds without end. The first multicast attempt that fails opens the box to clients
    /// ("zel.state.startup"), the fourth is reported to the discover-mode controller. Returns true
    /// once a manager has answered and its address is stored under StoreKeys::kFoundManager and
    /// saved, false when stopped.
    [[nodiscard]] bool LocateManager();

    /// Sends one request to a dotted address, or to the multicast group when it is empty. Replies
    /// count from now on until the wait for them has ended.
    void AskManager(const std::string& address);

    /// Judges a received AttrRply, whose list is cut into pieces on the way. Returns 0 when it
    /// names a manager that can be used. Returns -1 when nothing was asked, or a manager has been
    /// found since LocateManager began: the first one counts; when the reply is no manager's
    /// or names no address, which is what "ClusterIP" encloses in its first and last character: a
    /// dotted one that a host other than the box can have; or when the address is on another
    /// network than the box (DiscoverModeCtrl::SharesNetworkWith): it is then kept, but not taken
    /// as found.
    int OnAttributeReply(SlpReply& reply);

    /// The address named last, empty before the first.
    std::string ManagerAddress() const;

    /// Makes LocateManager return soon, now and from now on.
    void Stop();

private:
    [[nodiscard]] bool Ask(const std::string& address, std::chrono::milliseconds timeout);
    [[nodiscard]] bool TryUnicast();
    [[nodiscard]] bool TryMulticast();
    bool IsStopped() const;
    void OnMulticastFailure(int attempt);
    void Complain(const std::string& what);

    ZelConfig& config_;
    DiscoverModeCtrl& mode_;
    const SlpBase& socket_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string managerAddress_;
    std::set<std::string> complaints_;
    bool requestOutstanding_ = false;
    bool managerFound_ = false;
    bool stopped_ = false;
};
