#pragma once

#include "Box.h"
#include "Options.h"
#include "Outcome.h"

/// The commands that show all boxes of the network.
namespace BoxCommands {

Outcome Find(const Options& options);
Outcome Watch(const Options& options);

/// Whether the box is one of those that the options ask for.
bool IsWanted(const Box& box, const Options& options);

}  // namespace BoxCommands
