#pragma once

#include <string>

#include "Numbers.h"
#include "StoreKeys.h"
#include "ZelConfig.h"

/// How an access point is secured: the values of StoreKeys::kWlanSecurity and of the
/// manager's "securityLevel".
namespace WlanSecurity {

// Levels with the same name do not differ for the supplicant.
inline constexpr int kRsnPsk = 102;
inline constexpr int kOtherRsnPsk = 103;
inline constexpr int kOpen = 104;
inline constexpr int kThirdRsnPsk = 105;
inline constexpr int kEnterprise = 106;  ///< EAP-TLS, set up by the manager (WlanEnterprise)
inline constexpr int kWpaPsk = 107;
inline constexpr int kOtherEnterprise = 108;  ///< set up by hand
inline constexpr int kSetUpByHand = 109;

/// The number that the setting begins with, of a level or not.
inline int Configured(const ZelConfig& config) {
    return Numbers::Leading<int>(config.Get(StoreKeys::kWlanSecurity));
}

constexpr bool IsLevel(int number) {
    return number >= kRsnPsk && number <= kSetUpByHand;
}

constexpr bool IsPsk(int level) {
    return level == kRsnPsk || level == kOtherRsnPsk || level == kThirdRsnPsk || level == kWpaPsk;
}

constexpr bool IsEnterprise(int level) {
    return level == kEnterprise || level == kOtherEnterprise;
}

/// Whether the manager names this level: its digits and nothing else, Is("106", kEnterprise).
inline bool Is(const std::string& text, int level) {
    return text == std::to_string(level);
}

}  // namespace WlanSecurity
