#pragma once

#include <string>

#include "Options.h"
#include "Outcome.h"

/// The commands that use a box's connector service.
namespace ConnectorCommands {

Outcome Reserve(const Options& options);
Outcome Release(const Options& options);
Outcome Lock(const Options& options);
Outcome Command(const Options& options);

/// The parameter elements of "key=value" texts.
std::string ParameterElements(const std::vector<std::string>& parameters);

}  // namespace ConnectorCommands
