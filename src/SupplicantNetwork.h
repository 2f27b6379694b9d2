#pragma once

#include <string>

#include "WlanValues.h"

/// What the supplicant is told about the configured access point.
namespace SupplicantNetwork {

inline constexpr char kDirectory[] = "/tmp/supplicant";

/// Whether the supplicant would read the settings as they are meant, and only them; else a line in
/// the log says which of them it would not.
[[nodiscard]] bool CanWrite(const WlanValues& values);

/// Writes the network file where the security level wants one from the agent; `values` are such
/// that CanWrite. Returns the path of the file that the supplicant is to read, empty when it cannot
/// be written.
[[nodiscard]] std::string Write(const WlanValues& values);

}  // namespace SupplicantNetwork
