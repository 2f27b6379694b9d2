#pragma once

#include <netinet/in.h>

#include <functional>
#include <memory>
#include <string>

#include "HeldMutex.h"
#include "SetNet.h"

/// Moves the box to another way of addressing on the wired network, at the request of a client that
/// talks to it. Thread-safe: a second switch beside one that is under way fails.
class ModeSwitch {
public:
    enum class Outcome {
        kDone,
        kFailed,       ///< could not be carried out
        kNotConfirmed  ///< no link, or no address of that kind, in time
    };

    /// While it lives the box still has the address that the client knows it by.
    using FormerAddress = std::shared_ptr<void>;

    /// Context and bring-up outlive the object. `onMoved` is called after every attempt: the box
    /// may be on another interface.
    ModeSwitch(const NetDevice::Context& context, SetNet& setNet, std::function<void()> onMoved)
        : context_(context), setNet_(setNet), onMoved_(std::move(onMoved)) {}

    /// Switches to the mode that clients name by that number (AddressModes::OfClient); takes up to
    /// half a minute. `asked` is the address at which the box was asked; when the box has lost it
    /// by the switch, it becomes an alias, which `former` holds. A switch that fails and has cost
    /// the box its address gives it a link-local one; one that came from the WLAN returns there,
    /// for which it tries as the bring-up does, up to some minutes.
    [[nodiscard]] Outcome Run(long number, in_addr asked, FormerAddress& former);

private:
    Outcome Switch(LanDevice& lan, AddressMode mode);
    bool HasAddress(AddressMode mode) const;
    void Recover(LanDevice& lan);
    FormerAddress AddAlias(in_addr address, const std::string& netmask);

    NetDevice::Context context_;
    SetNet& setNet_;
    std::function<void()> onMoved_;
    HeldMutex mutex_;
    bool onWlan_ = false;
    unsigned aliases_ = 0;
};
