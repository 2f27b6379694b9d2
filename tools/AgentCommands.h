#pragma once

#include "Options.h"
#include "Outcome.h"

/// The commands that use a box's agent service.
namespace AgentCommands {

Outcome SelfTest(const Options& options);
Outcome Status(const Options& options);
Outcome Start(const Options& options);
Outcome Stop(const Options& options);

}  // namespace AgentCommands
