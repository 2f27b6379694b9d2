#include "Shell.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <utility>

#include "Characters.h"
#include "ZelLog.h"

namespace {

constexpr timespec kKillPause{0, 500000000};

/// Runs "/bin/sh -c command" and logs what went wrong.
ChildProcess::Result RunShell(const char* command, const Shell::Limits& limits, bool keepsOutput) {
    ChildProcess::Result run = ChildProcess::Run({.path = "/bin/sh",
                                                  .arguments = {"-c", command},
                                                  .timeLimit = limits.time,
                                                  .name = std::string("'") + command + "'",
                                                  .maxFileSize = limits.fileSize,
                                                  .keepsOutput = keepsOutput,
                                                  .runsInStop = limits.runsInStop});
    if (run.startError != 0) {
        ZEL_ERROR("'%s' finished with number '%d': '%s'", command, run.startError,
                  std::strerror(run.startError));
    } else if (!run.failure.empty()) {
        ZEL_ERROR("%s", run.failure.c_str());
    }
    if (run.dropped > 0) {
        ZEL_ERROR("'%s' wrote more than %zu bytes, the last %zu are dropped", command,
                  Shell::kMaxOutput, run.dropped);
    }
    return run;
}

bool MakeDirectory(const std::string& path, mode_t mode) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 || mkdir(path.c_str(), mode) == 0;
}

/// Zero is none: "kill 0" would end the agent.
bool IsProcessId(const std::string& text) {
    return text.find_first_not_of('0') != std::string::npos &&
           std::all_of(text.begin(), text.end(), Characters::IsDigit);
}

}  // namespace

bool Shell::RunSystemWithResult(std::string& result, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const Fate fate = RunFormatted({}, result, format, arguments);
    va_end(arguments);
    return fate != Fate::kNotStarted;
}

Shell::Fate Shell::RunWithin(const Limits& limits, std::string& result, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const Fate fate = RunFormatted(limits, result, format, arguments);
    va_end(arguments);
    return fate;
}

Shell::Fate Shell::RunFormatted(const Limits& limits, std::string& result, const char* format,
                                va_list arguments) {
    result.clear();
    std::array<char, kCommandSize> command{};
    if (std::vsnprintf(command.data(), command.size(), format, arguments) < 0) {
        return Fate::kNotStarted;
    }
    ZEL_DEBUG("Open pipe '%s'", command.data());
    ChildProcess::Result run = RunShell(command.data(), limits, true);
    if (run.startError != 0) {
        return Fate::kNotStarted;
    }
    result = std::move(run.output);
    const bool isCut = result.size() > kMaxLogged;
    ZEL_DEBUG("Read pipe '%s%s'", result.substr(0, kMaxLogged).c_str(), isCut ? "..." : "");
    if (!run.failure.empty()) {
        return Fate::kCutShort;
    }
    return run.exitStatus == 0 ? Fate::kSucceeded : Fate::kEnded;
}

void Shell::RunSystem(const std::string& command) {
    RunShell(command.c_str(), {}, false);
}

void Shell::KillByPidFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        ZEL_DEBUG("pid file '%s' dosn't exist", path.c_str());
        return;
    }
    std::string id;
    file >> id;
    if (!IsProcessId(id)) {
        ZEL_ERROR("pid file '%s' holds no process id, removing it", path.c_str());
        unlink(path.c_str());
        return;
    }
    std::string command = "kill " + id;
    ZEL_DEBUG("%s", command.c_str());
    RunSystem(command);
    nanosleep(&kKillPause, nullptr);
    if (!std::ifstream(path)) {
        ZEL_DEBUG("pid file '%s' no longer exist", path.c_str());
        return;
    }
    command = "kill -9 " + id;
    ZEL_DEBUG("%s", command.c_str());
    RunSystem(command);
    unlink(path.c_str());
}

int Shell::LoadModule(const std::string& name, const std::string& path,
                      const std::string& parameters) {
    ZEL_DEBUG("Load %s at %s", name.c_str(), path.c_str());
    std::string output;
    static_cast<void>(RunSystemWithResult(output, "/usr/sbin/lsmod"));  // else none is loaded
    if (output.find(name) != std::string::npos) {
        return 0;
    }
    if (!RunSystemWithResult(output, "/usr/sbin/insmod %s %s 2>&1", path.c_str(),
                             parameters.c_str())) {
        ZEL_ERROR("insmod of %s failed: %s", name.c_str(), output.c_str());
        return -1;
    }
    return 0;
}

int Shell::MakeDirectoryPath(const std::string& path, mode_t mode) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (!MakeDirectory(path.substr(0, slash), mode)) {
            return -1;
        }
    }
    return MakeDirectory(path, mode) ? 0 : -1;
}

bool Shell::HasPrefixIgnoringCase(std::string_view text, std::string_view prefix) {
    const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(),
                      [&lower](char a, char b) { return lower(a) == lower(b); });
}
