#pragma once

#include <ctime>
#include <string>

#include "ZelConfig.h"

/// The messages that the box sends to the manager: SOAP 1.1 envelopes without line breaks. Values
/// come from the store; one that is missing is logged and sent empty.
namespace SignInRequests {

/// The operation preSignInTavo: what the box is and how it is connected. `now` is written as local
/// time.
std::string PreSignIn(const ZelConfig& config, std::time_t now);

/// The operation signInTavo: device, interfaces, and the empty catalogues of the box.
std::string SignIn(const ZelConfig& config);

}  // namespace SignInRequests
