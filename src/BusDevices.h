#pragma once

/// The WLAN adapters among the kernel's lists of bus devices. Every line that is looked at is
/// logged.
namespace BusDevices {

bool HasAtherosCard();
bool HasRalinkCard();

}  // namespace BusDevices
