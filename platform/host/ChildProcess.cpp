#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "Descriptor.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Two connected ends, both close-on-exec. Sockets, since a write to a pipe that nobody reads
/// would raise a signal.
struct Channel {
    Descriptor ours;
    Descriptor theirs;
    bool Open() {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            return false;
        }
        ours.Set(ends[0]);
        theirs.Set(ends[1]);
        return true;
    }
};

/// What the process in between reports.
struct Report {
    int startError;  ///< errno of a failed start, else 0
    int waitStatus;  ///< as waitpid gives it
};

// From here to the end of RunInBetween() only calls that are safe in the child of a process with
// several threads.

void ResetSignals() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (const int signal : {SIGCHLD, SIGPIPE, SIGHUP, SIGINT, SIGTERM, SIGSEGV}) {
        sigaction(signal, &action, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

constexpr int kReportDescriptor = 3;

/// Leaves the process the program's standard input and output and the report socket alone: whoever
/// waits for the end of any other descriptor must not wait for this process.
void KeepOnly(int in, int out, int report) {
    constexpr int kOutOfTheWay = 10;
    in = fcntl(in, F_DUPFD, kOutOfTheWay);
    out = fcntl(out, F_DUPFD, kOutOfTheWay);
    report = fcntl(report, F_DUPFD, kOutOfTheWay);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup3(report, kReportDescriptor, O_CLOEXEC);
    close_range(kReportDescriptor + 1, ~0U, 0);
}

[[noreturn]] void ExecProgram(const char* path, int errorPipe) {
    char* const arguments[] = {const_cast<char*>(path), nullptr};
    execve(path, arguments, environ);
    const int error = errno;
    static_cast<void>(!write(errorPipe, &error, sizeof error));
    _exit(127);
}

[[noreturn]] void RunInBetween(const char* path, int in, int out, int reportSocket) {
    setpgid(0, 0);
    ResetSignals();
    KeepOnly(in, out, reportSocket);
    Report report{};
    int errorPipe[2];
    const pid_t program = pipe2(errorPipe, O_CLOEXEC) == 0 ? fork() : -1;
    if (program == 0) {
        ExecProgram(path, errorPipe[1]);
    } else if (program < 0) {
        report.startError = errno;
    } else {
        close(errorPipe[1]);
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        if (read(errorPipe[0], &report.startError, sizeof report.startError) < 0) {
            report.startError = errno;
        }
        waitpid(program, &report.waitStatus, 0);
    }
    static_cast<void>(!write(kReportDescriptor, &report, sizeof report));
    _exit(0);
}

/// The parent's side: feeds the input, collects the output and waits for the report.
class Exchange {
public:
    Exchange(int input, int output, int report, std::string_view text, ChildProcess::Result& result)
        : polled_{pollfd{input, POLLOUT, 0}, pollfd{output, POLLIN, 0}, pollfd{report, POLLIN, 0}},
          text_(text),
          result_(result) {}

    /// False when the report has not come by `deadline`.
    bool Run(Clock::time_point deadline) {
        while (polled_[2].fd >= 0) {
            if (text_.empty() && polled_[0].fd >= 0) {
                shutdown(polled_[0].fd, SHUT_WR);
                polled_[0].fd = -1;
            }
            using std::chrono::milliseconds;
            const auto left = std::max(
                std::chrono::duration_cast<milliseconds>(deadline - Clock::now()), milliseconds(0));
            const int ready = poll(polled_.data(), polled_.size(), static_cast<int>(left.count()));
            if (ready == 0) {
                return false;
            }
            if (ready > 0) {
                Feed();
                Collect();
                Conclude();
            }
        }
        // What the program has written is there; what it left running in the background is not
        // waited for.
        while (Collect()) {
        }
        return true;
    }

    const Report& GetReport() const { return report_; }

private:
    void Feed() {
        if (polled_[0].fd < 0 || polled_[0].revents == 0) {
            return;
        }
        const ssize_t sent =
            send(polled_[0].fd, text_.data(), text_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            text_.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno != EAGAIN && errno != EINTR) {
            text_ = {};  // it does not want to read more
        }
    }

    bool Collect() {
        std::array<char, 4096> part{};
        const ssize_t received =
            polled_[1].fd < 0 ? 0 : recv(polled_[1].fd, part.data(), part.size(), MSG_DONTWAIT);
        if (received < 0) {
            return false;
        }
        if (received == 0) {
            polled_[1].fd = -1;
            return false;
        }
        const std::size_t room = ChildProcess::kMaxOutput - result_.output.size();
        result_.output.append(part.data(), std::min(static_cast<std::size_t>(received), room));
        return true;
    }

    void Conclude() {
        if (polled_[2].revents == 0) {
            return;
        }
        if (recv(polled_[2].fd, &report_, sizeof report_, 0) != sizeof report_) {
            report_.startError = ECHILD;
        }
        polled_[2].fd = -1;
    }

    std::array<pollfd, 3> polled_;
    std::string_view text_;
    ChildProcess::Result& result_;
    Report report_{};
};

}  // namespace

ChildProcess::Result ChildProcess::Run(const std::string& path, const std::string& input,
                                       std::chrono::milliseconds timeLimit) {
    Result result;
    Channel in;
    Channel out;
    Channel report;
    if (!in.Open() || !out.Open() || !report.Open()) {
        result.failure = path + " cannot be started: " + std::strerror(errno);
        return result;
    }
    const pid_t between = fork();
    if (between == 0) {
        RunInBetween(path.c_str(), in.theirs.Get(), out.theirs.Get(), report.theirs.Get());
    }
    in.theirs.Close();
    out.theirs.Close();
    report.theirs.Close();
    if (between < 0) {
        result.failure = path + " cannot be started: " + std::strerror(errno);
        return result;
    }
    // Done on both sides: the group must be there before it may have to be ended.
    setpgid(between, between);

    Exchange exchange(in.ours.Get(), out.ours.Get(), report.ours.Get(), input, result);
    const bool ended = exchange.Run(Clock::now() + timeLimit);
    if (!ended) {
        kill(-between, SIGKILL);
    }
    waitpid(between, nullptr, 0);  // fails where children are reaped by the system
    const Report& fate = exchange.GetReport();
    if (!ended) {
        result.failure =
            path + " was ended after " + std::to_string(timeLimit.count()) + " ms without result";
    } else if (fate.startError != 0) {
        result.failure = path + " cannot be started: " + std::strerror(fate.startError);
    } else if (WIFSIGNALED(fate.waitStatus)) {
        result.failure = path + " was ended by signal " + std::to_string(WTERMSIG(fate.waitStatus));
    } else {
        result.exitStatus = WEXITSTATUS(fate.waitStatus);
    }
    return result;
}

bool ChildProcess::Start(const std::string& path) {
    char* const arguments[] = {const_cast<char*>(path.c_str()), nullptr};
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t all;
    sigfillset(&all);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    pid_t child = 0;
    const int error = posix_spawn(&child, path.c_str(), nullptr, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    return error == 0;
}
