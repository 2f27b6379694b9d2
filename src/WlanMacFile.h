#pragma once

#include <functional>
#include <optional>
#include <string>

/// "/config/wlan.mac": one line with the MAC address of the WLAN adapter, kept from the start that
/// first saw the adapter.
namespace WlanMacFile {

inline constexpr char kPath[] = "/config/wlan.mac";

/// The MAC address of the WLAN adapter as six two-digit hexadecimal bytes with colons between
/// them, empty when it does not tell it; no value when there is no adapter.
using FindAdapter = std::function<std::optional<std::string>()>;

/// Keeps a file that holds an address other than zero. Otherwise asks for the adapter and writes
/// its address, or the zero address so that the next start asks again. The file appears whole or
/// stays as it was.
void Ensure(const FindAdapter& findAdapter);

}  // namespace WlanMacFile
