#pragma once

#include <map>
#include <string>

/// Generic commands on the vehicle interface. Lines of this library are logged under the handler
/// "DispatcherLog".
namespace Dispatcher {

/// Runs `command` of `subsystem` with `parameters` and waits for its end.
/// Returns 0 on success with the command's answer in `result`; non-zero when the command is
/// unknown, was refused, failed or took too long, with the reason or the command's own output in
/// `result`. Thread-safe.
[[nodiscard]] int CommandExecution(const std::string& subsystem, const std::string& command,
                                   const std::map<std::string, std::string>& parameters,
                                   std::string& result);

}  // namespace Dispatcher
