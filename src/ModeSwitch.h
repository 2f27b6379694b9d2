#pragma once

#include <netinet/in.h>

#include <memory>
#include <string>

#include "HeldMutex.h"
#include "SetNet.h"

/// Moves the box to another way of addressing on the wired network, at the request of a client that
/// talks to it. Thread-safe: a second switch beside one that is under way fails.
class ModeSwitch {
public:
    // Ways of addressing, as clients name them.
    static constexpr long kConfigured = 1;
    static constexpr long kLinkLocal = 2;
    static constexpr long kDhcp = 3;

    /// The values are the error codes that clients know.
    enum class Outcome {
        kDone = 0,
        kFailed = 17,       ///< could not be carried out
        kNotConfirmed = 19  ///< no link, or no address of that kind, in time
    };

    /// While it lives the box still has the address that the client knows it by.
    using FormerAddress = std::shared_ptr<void>;

    /// Both outlive the object.
    ModeSwitch(const NetDevice::Context& context, SetNet& setNet)
        : context_(context), setNet_(setNet) {}

    /// Switches; takes up to half a minute. `asked` is the address at which the box was asked; when
    /// the box has lost it by the switch, it is lent again and `former` holds it. A switch that
    /// fails leaves the box with some address: that of the WLAN it came from, or a link-local one.
    Outcome Run(long mode, in_addr asked, FormerAddress& former);

private:
    Outcome Switch(LanDevice& lan, long mode);
    bool HasAddress(long mode) const;
    void Recover(LanDevice& lan);
    FormerAddress Lend(in_addr address, const std::string& netmask);

    NetDevice::Context context_;
    SetNet& setNet_;
    HeldMutex mutex_;
    bool onWlan_ = false;
    unsigned lent_ = 0;
};
