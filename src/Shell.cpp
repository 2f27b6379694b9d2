#include "Shell.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

#include "SocketGuard.h"
#include "ZelLogging.h"

namespace {

constexpr std::size_t kPieceSize = 1024;
constexpr timespec kKillPause{0, 500000000};

/// Starts "/bin/sh -c command". Its standard output goes to `output` unless that is negative. The
/// agent ignores signals that tools expect at their defaults. Returns 0 or an error number.
int StartShell(const char* command, int output, pid_t& child) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    if (output >= 0) {
        posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    }
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGCHLD);
    sigaddset(&defaults, SIGPIPE);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    const char* const arguments[] = {"sh", "-c", command, nullptr};
    const int error = posix_spawn(&child, "/bin/sh", &files, &attributes,
                                  const_cast<char* const*>(arguments), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return error;
}

/// Waits until the shell is gone. Where the system reaps children itself the status is lost, which
/// nobody looks at.
void WaitForShell(pid_t child) {
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void LogStartFailure(const char* command, int error) {
    ZEL_ERROR("'%s' finished with number '%d': '%s'", command, error, std::strerror(error));
}

bool MakeDirectory(const std::string& path, mode_t mode) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 || mkdir(path.c_str(), mode) == 0;
}

/// Zero is none: "kill 0" would end the agent.
bool IsProcessId(const std::string& text) {
    return text.find_first_not_of('0') != std::string::npos &&
           std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

bool Shell::RunSystemWithResult(std::string& result, const char* format, ...) {
    result.clear();
    std::array<char, kCommandSize> command{};
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(command.data(), command.size(), format, arguments);
    va_end(arguments);
    if (length < 0) {
        return false;
    }
    ZEL_DEBUG("Open pipe '%s'", command.data());
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        LogStartFailure(command.data(), errno);
        return false;
    }
    const SocketGuard reading(ends[0]);
    SocketGuard writing(ends[1]);
    pid_t child = 0;
    const int error = StartShell(command.data(), writing.Get(), child);
    writing.Reset();
    if (error != 0) {
        LogStartFailure(command.data(), error);
        return false;
    }
    std::array<char, kPieceSize> piece{};
    for (;;) {
        const ssize_t count = read(reading.Get(), piece.data(), piece.size());
        if (count > 0) {
            const std::size_t room = kMaxOutput - result.size();
            result.append(piece.data(), std::min(static_cast<std::size_t>(count), room));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    ZEL_DEBUG("Read pipe '%s'", result.c_str());
    WaitForShell(child);
    return true;
}

void Shell::RunSystem(const std::string& command) {
    pid_t child = 0;
    const int error = StartShell(command.c_str(), -1, child);
    if (error != 0) {
        LogStartFailure(command.c_str(), error);
        return;
    }
    WaitForShell(child);
}

int Shell::KillByPidFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        ZEL_DEBUG("pid file '%s' dosn't exist", path.c_str());
        return 0;
    }
    std::string id;
    file >> id;
    if (!IsProcessId(id)) {
        ZEL_ERROR("pid file '%s' holds no process id, removing it", path.c_str());
        unlink(path.c_str());
        return 0;
    }
    std::string command = "kill " + id;
    ZEL_DEBUG("%s", command.c_str());
    RunSystem(command);
    nanosleep(&kKillPause, nullptr);
    if (!std::ifstream(path)) {
        ZEL_DEBUG("pid file '%s' no longer exist", path.c_str());
        return 0;
    }
    command = "kill -9 " + id;
    ZEL_DEBUG("%s", command.c_str());
    RunSystem(command);
    unlink(path.c_str());
    return 0;
}

int Shell::LoadModule(const std::string& name, const std::string& path,
                      const std::string& parameters) {
    ZEL_DEBUG("Load %s at %s", name.c_str(), path.c_str());
    std::string output;
    RunSystemWithResult(output, "/usr/sbin/lsmod");
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
