#pragma once

#include "NetworkAttributes.h"
#include "Trigger15.h"
#include "ZelConfig.h"

/// The live facts about the box, under the dotted keys that every service reads them by.

/// Adds the attributes that need nothing from the configuration file: identity and addresses, which
/// are read now; voltages, temperatures, vehicle-side links and current network addresses, which
/// are read at every get. Returns false when a fixed value could not be read; it is then empty.
/// `trigger15` must outlive the store; `wlanInterface` answers empty on a box without WLAN.
[[nodiscard]] bool AddDeviceAttributes(ZelConfig& config, const Trigger15& trigger15,
                                       const NetworkAttributes::InterfaceName& wlanInterface);

/// Adds "system.info.free_ram" (MemFree of /proc/meminfo in kB) and "system.timestamp"
/// (milliseconds since 1970-01-01 00:00 UTC).
void AddLateAttributes(ZelConfig& config);
