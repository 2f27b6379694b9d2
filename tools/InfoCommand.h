#pragma once

#include "Options.h"
#include "Outcome.h"

/// The command that shows what a box says of itself.
namespace InfoCommand {

Outcome Run(const Options& options);

}  // namespace InfoCommand
