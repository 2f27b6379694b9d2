#pragma once

#include <string>

/// The WPA supplicant, a process of its own, of which there is one at a time.
namespace SupplicantProcess {

/// Starts it in the background for a WLAN interface; `driver` is its name for the kind of chip,
/// `file` the path of its network file. False when it did not come up to its own end of starting.
[[nodiscard]] bool Start(const std::string& interface, const std::string& driver,
                         const std::string& file);

/// Whether it says that the interface is associated with an access point.
bool IsAssociated(const std::string& interface);

/// Ends it, which takes half a second and the board's tool; nothing to do when it does not run.
void End();

}  // namespace SupplicantProcess
