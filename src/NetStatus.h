#pragma once

/// What a change of the network, or a question about it, has come to. Who overlooks it does not
/// compile. The log shows the numbers.
enum class [[nodiscard]] NetStatus{
    kDone = 0,
    kFailed = -1,  ///< one of its steps has, or there was no socket to ask the kernel through
    // What the kernel says.
    kNoSuchDevice = -2,
    kNotSupported = -3,
    kAddressNotAvailable = -4,
    kRefused = -5,  ///< for another reason
    // The adapter's interface is not there.
    kInactive = -6,  ///< the card is
    kNoCard = -7,
};

/// if (Failed(device.EnableInterface())) ...
[[nodiscard]] constexpr bool Failed(NetStatus status) {
    return status != NetStatus::kDone;
}
