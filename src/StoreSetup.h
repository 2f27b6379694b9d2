#pragma once

#include "NetworkAttributes.h"
#include "Trigger15.h"
#include "ZelConfig.h"

/// Fills the store at start-up: live attributes, state of a free box, then the configuration file,
/// whose values replace the defaults, and last what is computed. Opens the measurement device.
/// `wlanInterface` answers empty on a box without WLAN. Never fails; what could not be initialised
/// is logged.
void SetUpStore(ZelConfig& config, Trigger15& trigger15,
                const NetworkAttributes::InterfaceName& wlanInterface);
