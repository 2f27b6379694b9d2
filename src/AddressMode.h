#pragma once

#include <optional>
#include <string>

#include "StoreKeys.h"
#include "ZelConfig.h"

/// How the box gets its IPv4 address. The numbers are those of the state machine
/// (DiscoverModeCtrl).
enum class AddressMode : unsigned {
    kConfigured = 0,  ///< as the store says, where nobody has looked yet
    kStatic = 1,
    kLinkLocal = 2,
    kDhcp = 3  ///< with a link-local address when there is no lease
};

namespace AddressModes {

/// The mode in the store: "202" is static, "2" and "201" are link-local, all others DHCP.
inline AddressMode Read(const ZelConfig& config) {
    const std::string mode = config.Get(StoreKeys::kAddressMode);
    if (mode == "2" || mode == "201") {
        return AddressMode::kLinkLocal;
    }
    return mode == "202" ? AddressMode::kStatic : AddressMode::kDhcp;
}

/// Makes `mode`, kLinkLocal or kDhcp, that of the next start. False when it cannot be saved.
[[nodiscard]] inline bool Save(ZelConfig& config, AddressMode mode) {
    config.SetPersistent(StoreKeys::kAddressMode, std::to_string(static_cast<unsigned>(mode)));
    return config.Save();
}

/// The mode that a client means by a number: 1 is configured, 2 link-local, 3 DHCP. Nothing for
/// others.
inline std::optional<AddressMode> OfClient(long number) {
    switch (number) {
        case 1:
            return AddressMode::kConfigured;
        case 2:
            return AddressMode::kLinkLocal;
        case 3:
            return AddressMode::kDhcp;
        default:
            return std::nullopt;
    }
}

}  // namespace AddressModes
