#include "ManagerLocator.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <utility>

#include "Ipv4.h"
#include "LogText.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace {

constexpr std::chrono::milliseconds kUnicastTimeout{1000};
constexpr std::chrono::milliseconds kMulticastTimeout{2000};
constexpr int kUnicastAttempts = 3;
// Multicast attempts, counted from 0, after which a failure has a consequence.
constexpr int kOpeningAttempt = 0;
constexpr int kReportingAttempt = 3;

constexpr char kServiceMark[] = "Service=zel-manager";
constexpr char kAddressMark[] = "ClusterIP=";
constexpr char kAddressAttribute[] = "ClusterIP";

/// Whether it is the dotted address that a host can have.
bool IsHostAddress(const std::string& text) {
    const std::optional<in_addr> address = Ipv4::Parse(text);
    const std::uint32_t value = address ? ntohl(address->s_addr) : INADDR_ANY;
    return Ipv4::IsHost(value) && !IN_BADCLASS(value);
}

/// `value` without its first and last character, which enclose the address.
std::string Enclosed(const std::string& value) {
    constexpr std::size_t kEnclosing = 2;
    return value.size() <= kEnclosing ? "" : value.substr(1, value.size() - kEnclosing);
}

}  // namespace

ManagerLocator::ManagerLocator(ZelConfig& config, DiscoverModeCtrl& mode, const SlpBase& socket)
    : config_(config), mode_(mode), socket_(socket) {}

bool ManagerLocator::LocateManager() {
    ZEL_DEBUG("Locate ZEL-Manager");
    if (!TryUnicast() && !TryMulticast()) {
        return false;
    }
    config_.SetPersistent(StoreKeys::kFoundManager, ManagerAddress());
    if (!config_.Save()) {
        ZEL_ERROR("Can't save the manager's address");
    }
    return true;
}

bool ManagerLocator::TryUnicast() {
    const std::string remembered = config_.Get(StoreKeys::kManager);
    if (!remembered.empty() && !IsHostAddress(remembered)) {
        const std::lock_guard lock(mutex_);
        Complain("The remembered '" + LogText::Of(remembered) + "'");
    }
    for (int attempt = 0; attempt < kUnicastAttempts && !IsStopped(); ++attempt) {
        ZEL_DEBUG("discover manager using unicast to %s", LogText::Of(remembered).c_str());
        {
            const std::lock_guard lock(mutex_);
            managerFound_ = false;
        }
        if (Ask(remembered, kUnicastTimeout)) {
            return true;
        }
    }
    return false;
}

bool ManagerLocator::TryMulticast() {
    ZEL_DEBUG("discover manager using multicast");
    for (int attempt = 0; !IsStopped(); attempt = std::min(attempt + 1, kReportingAttempt + 1)) {
        if (Ask("", kMulticastTimeout)) {
            return true;
        }
        if (!IsStopped()) {
            OnMulticastFailure(attempt);
        }
    }
    return false;
}

void ManagerLocator::OnMulticastFailure(int attempt) {
    if (attempt == kOpeningAttempt) {
        ZEL_DEBUG("go to receive");
        config_.SetFixed(StoreKeys::kServing, "1");
    } else if (attempt == kReportingAttempt) {
        mode_.Event(DiscoverModeCtrl::Trigger::kNotFound);
    }
}

bool ManagerLocator::Ask(const std::string& address, std::chrono::milliseconds timeout) {
    AskManager(address);
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [this] { return managerFound_ || stopped_; });
    requestOutstanding_ = false;
    return managerFound_;
}

void ManagerLocator::AskManager(const std::string& address) {
    SlpRequest request;
    request.peerPort = kManagerPort;
    request.peerAddress = address.empty() ? SlpBase::kMulticastAddress : address;
    request.functionId = SlpFunction::kAttrRqst;
    request.languageTag = "en";
    request.scopeList = "default";
    request.url = "service:zel.manager";
    {
        const std::lock_guard lock(mutex_);
        requestOutstanding_ = true;
    }
    socket_.Send(request);
}

int ManagerLocator::OnAttributeReply(SlpReply& reply) {
    const std::lock_guard lock(mutex_);
    if (!requestOutstanding_ || managerFound_ || !reply.attrList ||
        reply.attrList->find(kServiceMark) == std::string::npos ||
        reply.attrList->find(kAddressMark) == std::string::npos) {
        return -1;
    }
    std::string value;
    static_cast<void>(
        SlpBase::FindAttribute(*reply.attrList, kAddressAttribute, value));  // else empty
    std::string address = Enclosed(value);
    if (!IsHostAddress(address)) {
        Complain("ClusterIP '" + LogText::Of(address) + "' of " + reply.peerAddress);
        return -1;
    }
    managerAddress_ = std::move(address);
    if (!mode_.SharesNetworkWith(managerAddress_)) {
        return -1;
    }
    managerFound_ = true;
    changed_.notify_all();
    ZEL_DEBUG("Contained ClusterIP %s", LogText::Of(managerAddress_).c_str());
    return 0;
}

void ManagerLocator::Complain(const std::string& what) {
    if (complaints_.size() < kMaxComplaints && complaints_.insert(what).second) {
        ZEL_ERROR("%s is no address that a manager can have, such as 192.168.68.2; searching on",
                  what.c_str());
    }
}

std::string ManagerLocator::ManagerAddress() const {
    const std::lock_guard lock(mutex_);
    return managerAddress_;
}

void ManagerLocator::Stop() {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
}

bool ManagerLocator::IsStopped() const {
    const std::lock_guard lock(mutex_);
    return stopped_;
}
