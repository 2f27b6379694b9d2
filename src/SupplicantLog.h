#pragma once

#include <cstddef>

/// The debug log of the WPA supplicant, which writes to it without end.
namespace SupplicantLog {

inline constexpr char kFile[] = "/tmp/log/wpa_supplicant";
/// Bytes on the disk from which on the log is cut, and what it then keeps of its end.
inline constexpr std::size_t kMaxSize = std::size_t{1024} * 1024;
inline constexpr std::size_t kKept = kMaxSize / 2;

/// Cuts the log when it has become too large; to be called every second or so, by any thread. A
/// supplicant that is running goes on writing to it.
void Limit();

}  // namespace SupplicantLog
