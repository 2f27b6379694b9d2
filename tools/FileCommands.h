#pragma once

#include "Options.h"
#include "Outcome.h"

/// The commands that download what a box publishes.
namespace FileCommands {

Outcome Log(const Options& options);
Outcome Wsdl(const Options& options);

}  // namespace FileCommands
