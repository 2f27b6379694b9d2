#pragma once

#include "StoreKeys.h"
#include "ZelConfig.h"

/// Which interface the box is on the network with ("net.current.networktype").
namespace NetworkType {

inline constexpr char kLan[] = "0";
inline constexpr char kWlan[] = "1";

inline bool IsLan(const ZelConfig& config) {
    return config.Get(StoreKeys::kNetworkType) == kLan;
}

// Keys of an interface's address and net mask.
constexpr const char* IpKey(bool isLan) {
    return isLan ? StoreKeys::kLanIp : StoreKeys::kWlanIp;
}
constexpr const char* NetmaskKey(bool isLan) {
    return isLan ? StoreKeys::kLanNetmask : StoreKeys::kWlanNetmask;
}

/// `type` is kLan or kWlan. Not saved: every start finds it out anew.
inline void Set(ZelConfig& config, const char* type) {
    config.SetFixed(StoreKeys::kNetworkType, type);
}

}  // namespace NetworkType
