#pragma once

#include "Options.h"
#include "Outcome.h"

/// The commands after which a box is elsewhere, perhaps, and that wait until it is seen again.
namespace MoveCommands {

Outcome Mode(const Options& options);
Outcome Restart(const Options& options);

}  // namespace MoveCommands
