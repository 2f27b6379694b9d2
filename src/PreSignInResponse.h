#pragma once

#include "ManagerElements.h"
#include "ZelConfig.h"

/// What the manager's answer to a PreSignIn changes on the box. Values are the manager's: one that
/// could do harm where it is used later (a control character, a host name with what SLP reserves, a
/// country code that is none) is refused with a line in the log, and the box keeps what it has, as
/// it does where an answer has nothing, or an element without content.
namespace PreSignInResponse {

/// Takes host name, colour, country and WLAN settings from an answer into the store (the caller
/// saves it) and into the files of WlanEnterprise. Returns false when the WLAN settings could not
/// be taken.
[[nodiscard]] bool Apply(ZelConfig& config, const ManagerElements::Answer& answer);

}  // namespace PreSignInResponse
