#include "Dispatcher.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "Characters.h"
#include "ChildProcess.h"
#include "LogHandler.h"
#include "LogText.h"

namespace Dispatcher {
namespace {

constexpr char kCommandDirectory[] = "/app/zel/commands/";
constexpr std::chrono::seconds kCommandTimeLimit{30};
constexpr int kRefused = -1;
constexpr int kFailed = 1;
constexpr int kInfo = 101;
constexpr int kError = 103;

LogHandler& Log() {
    return LogHandler::GetLogHandler("DispatcherLog");
}

/// A name becomes part of a path.
bool IsName(std::string_view name) {
    return !name.empty() && !name.starts_with('.') && Characters::IsMadeOf(name, "_.-");
}

bool HasLineBreak(std::string_view text) {
    return text.find_first_of("\r\n") != std::string_view::npos;
}

/// Why the call is not carried out; empty when it is.
std::string Refusal(const std::string& subsystem, const std::string& command,
                    const std::map<std::string, std::string>& parameters) {
    for (const auto& [what, name] : {std::pair("subsystem", subsystem), {"command", command}}) {
        if (!IsName(name)) {
            return std::string("the ") + what + " name '" + name +
                   "' must be letters, digits, '_', '.', '-' and not begin with '.'";
        }
    }
    for (const auto& [key, value] : parameters) {
        if (key.find('=') != std::string::npos || HasLineBreak(key) || HasLineBreak(value)) {
            return "parameter '" + key + "': a key may hold no '=', and neither a line break";
        }
    }
    return "";
}

}  // namespace

int CommandExecution(const std::string& subsystem, const std::string& command,
                     const std::map<std::string, std::string>& parameters, std::string& result) {
    result = Refusal(subsystem, command, parameters);
    if (!result.empty()) {
        Log().Log(kError, "Dispatcher", __LINE__, "Refused: %s", LogText::Of(result).c_str());
        return kRefused;
    }
    std::string input;
    for (const auto& [key, value] : parameters) {
        input.append(key).append("=").append(value).append("\n");
    }
    Log().Log(kInfo, "Dispatcher", __LINE__, "Run command %s/%s", LogText::Of(subsystem).c_str(),
              LogText::Of(command).c_str());
    ChildProcess::Result run =
        ChildProcess::Run({.path = kCommandDirectory + subsystem + "/" + command,
                           .input = std::move(input),
                           .timeLimit = kCommandTimeLimit});
    if (run.dropped > 0) {
        Log().Log(kError, "Dispatcher", __LINE__, "%zu bytes of the output are dropped",
                  run.dropped);
    }
    if (!run.failure.empty()) {
        Log().Log(kError, "Dispatcher", __LINE__, "%s", LogText::Of(run.failure).c_str());
        result = run.failure;
        return kFailed;
    }
    result = std::move(run.output);
    return run.exitStatus;
}

}  // namespace Dispatcher
