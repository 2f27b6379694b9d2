#pragma once

#include <string>

/// The handles of the user's reservations, a file each under the device id, which nobody else can
/// read: $XDG_STATE_HOME/zelctl/, or ~/.local/state/zelctl/.
namespace HandleStore {

/// Path of a device's file. Bytes of the id other than letters, digits, "-" and "_" stand in it as
/// "%" and two hexadecimal digits. Empty when the user has no home directory.
std::string PathOf(const std::string& deviceId);

/// The handle kept; empty when there is none.
std::string Get(const std::string& deviceId);

/// Keeps a handle in place of the one before. False when it cannot be written.
[[nodiscard]] bool Put(const std::string& deviceId, const std::string& handle);

void Forget(const std::string& deviceId);

}  // namespace HandleStore
