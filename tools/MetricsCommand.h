#pragma once

#include "Options.h"
#include "Outcome.h"

/// The command that writes metrics of the boxes for a monitoring system.
namespace MetricsCommand {

/// Searches once. The output file, if one is asked for, is replaced as a whole or stays as it was.
/// No box is no failure: that is what the metrics tell then.
Outcome Run(const Options& options);

}  // namespace MetricsCommand
