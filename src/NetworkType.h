#pragma once

#include "ZelConfig.h"

/// Which interface the box is on the network with ("net.current.networktype").
namespace NetworkType {

inline constexpr char kKey[] = "net.current.networktype";
inline constexpr char kLan[] = "0";
inline constexpr char kWlan[] = "1";

inline bool IsLan(const ZelConfig& config) {
    return config.Get(kKey) == kLan;
}

/// `type` is kLan or kWlan. Not saved: every start finds it out anew.
inline void Set(ZelConfig& config, const char* type) {
    config.Set(kKey, type, ZelConfig::Kind::kFixed);
}

}  // namespace NetworkType
