#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "Descriptors.h"
#include "SocketGuard.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Two connected ends, both close-on-exec.
struct Channel {
    SocketGuard ours;
    SocketGuard theirs;

    /// A write to a pipe that nobody reads would raise a signal here.
    bool OpenSockets() {
        std::array<int, 2> ends{};
        return Take(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), ends);
    }
    /// For output: there are programs that open /dev/stdout, which no socket lets them.
    bool OpenPipe() {
        std::array<int, 2> ends{};
        return Take(pipe2(ends.data(), O_CLOEXEC), ends) &&
               fcntl(ours.Get(), F_SETFL, O_NONBLOCK) == 0;
    }

private:
    bool Take(int error, const std::array<int, 2>& ends) {
        if (error != 0) {
            return false;
        }
        ours.Reset(ends[0]);
        theirs.Reset(ends[1]);
        return true;
    }
};

/// Becomes readable, and stays so, when everything is to be ended.
int EndEvent() {
    static const SocketGuard event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return event.Get();
}

bool IsEndRequested() {
    return Descriptors::IsReady(EndEvent(), POLLIN);
}

bool IsStopPending() {
    sigset_t pending;
    return sigpending(&pending) == 0 &&
           (sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1);
}

/// What the process in between is told. Made before the fork: it may not take memory.
struct Task {
    pid_t parent;
    const char* path;
    char* const* arguments;
    int input;
    int output;
    int report;
    rlim_t maxFileSize;
    bool isWaitedFor;
};

/// What the process in between reports.
struct Report {
    int startError;  ///< errno of a failed start, else 0
    int waitStatus;  ///< as waitpid gives it
};

// From here to the end of RunInBetween() only calls that are safe in the child of a process with
// several threads.

void BlockOnly(std::initializer_list<int> signals) {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : signals) {
        sigaddset(&blocked, signal);
    }
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

/// A program that nobody waits for any more has no business here: the parent's end is a signal,
/// which waits, as does the program's, until it is asked for.
void ResetSignals(pid_t parent) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (const int signal : {SIGCHLD, SIGPIPE, SIGHUP, SIGINT, SIGSEGV, SIGTERM}) {
        sigaction(signal, &action, nullptr);
    }
    BlockOnly({SIGCHLD, SIGTERM});
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(1);
    }
}

constexpr int kReportDescriptor = 3;

/// Leaves the process the program's standard input and output and the report socket alone: whoever
/// waits for the end of any other descriptor must not wait for this process.
void KeepOnly(const Task& task) {
    constexpr int kOutOfTheWay = 10;
    const int in = fcntl(task.input, F_DUPFD, kOutOfTheWay);
    const int out = fcntl(task.output, F_DUPFD, kOutOfTheWay);
    const int report = fcntl(task.report, F_DUPFD, kOutOfTheWay);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup3(report, kReportDescriptor, O_CLOEXEC);
    closefrom(kReportDescriptor + 1);
}

[[noreturn]] void ExecProgram(const Task& task, int errorPipe) {
    if (!task.isWaitedFor) {
        setsid();  // out of the group that is ended
    }
    if (task.maxFileSize != RLIM_INFINITY) {
        const rlimit limit{task.maxFileSize, task.maxFileSize};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    BlockOnly({});
    execve(task.path, task.arguments, environ);
    const int error = errno;
    static_cast<void>(!write(errorPipe, &error, sizeof error));
    _exit(127);
}

/// The program's status as waitpid gives it. Ends the group instead when the parent has ended, or
/// when there is no status.
int AwaitEnd(pid_t program) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGCHLD);
    sigaddset(&ends, SIGTERM);
    int status = 0;
    for (;;) {
        const pid_t ended = waitpid(program, &status, WNOHANG);
        if (ended > 0) {
            return status;
        }
        if (ended < 0 || sigwaitinfo(&ends, nullptr) == SIGTERM) {
            kill(0, SIGKILL);
        }
    }
}

[[noreturn]] void RunInBetween(const Task& task) {
    setpgid(0, 0);
    ResetSignals(task.parent);
    KeepOnly(task);
    Report report{};
    int errorPipe[2];
    const pid_t program = pipe2(errorPipe, O_CLOEXEC) == 0 ? fork() : -1;
    if (program == 0) {
        ExecProgram(task, errorPipe[1]);
    } else if (program < 0) {
        report.startError = errno;
    } else {
        close(errorPipe[1]);
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        if (read(errorPipe[0], &report.startError, sizeof report.startError) < 0) {
            report.startError = errno;
        }
        if (task.isWaitedFor) {
            report.waitStatus = AwaitEnd(program);
        }
    }
    static_cast<void>(!write(kReportDescriptor, &report, sizeof report));
    // As long as this process is there nobody else's group can have its number.
    char end = 0;
    static_cast<void>(!read(kReportDescriptor, &end, sizeof end));
    _exit(0);
}

/// The process in between. Its group is ended with the object unless the program has ended itself.
class Group {
public:
    explicit Group(pid_t leader) : leader_(leader) {
        // Done on both sides: the group must be there before it may have to be ended.
        setpgid(leader, leader);
    }
    ~Group() {
        if (!programEnded_) {
            kill(-leader_, SIGKILL);
        }
        waitpid(leader_, nullptr, 0);  // fails where children are reaped by the system
    }
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;

    void OnProgramEnded() { programEnded_ = true; }

private:
    pid_t leader_;
    bool programEnded_ = false;
};

/// The parent's side: feeds the input, collects the output and waits for the report.
class Exchange {
public:
    enum class End { kReport, kTimeLimit, kEndAll };

    /// The agent's ends of the channels; none is negative.
    struct Ends {
        int input;
        int output;
        int report;
    };

    Exchange(const ChildProcess::Order& order, const Ends& ends, ChildProcess::Result& result)
        : polled_{pollfd{ends.input, POLLOUT, 0}, pollfd{ends.output, POLLIN, 0},
                  pollfd{ends.report, POLLIN, 0},
                  pollfd{order.runsInStop ? -1 : EndEvent(), POLLIN, 0}},
          text_(order.input),
          result_(result) {}

    End Run(Clock::time_point deadline) {
        while (polled_[kReport].fd >= 0) {
            if (text_.empty() && polled_[kInput].fd >= 0) {
                shutdown(polled_[kInput].fd, SHUT_WR);
                polled_[kInput].fd = -1;
            }
            const int left = Descriptors::MillisecondsUntil(deadline);
            if (left == 0) {
                return End::kTimeLimit;
            }
            if (poll(polled_.data(), polled_.size(), left) <= 0) {
                continue;
            }
            if (polled_[kEndAll].revents != 0) {
                return End::kEndAll;
            }
            Feed();
            Collect();
            Conclude();
        }
        CollectRest();
        return End::kReport;
    }

    const Report& GetReport() const { return report_; }

private:
    enum Place : std::size_t { kInput, kOutput, kReport, kEndAll, kPlaces };

    void Feed() {
        if (polled_[kInput].fd < 0 || polled_[kInput].revents == 0) {
            return;
        }
        const ssize_t sent =
            send(polled_[kInput].fd, text_.data(), text_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            text_.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno != EAGAIN && errno != EINTR) {
            text_ = {};  // it does not want to read more
        }
    }

    /// Takes a piece of output that is there, if any, and returns its size.
    std::size_t Collect() {
        std::array<char, 4096> part{};
        const ssize_t count =
            polled_[kOutput].fd < 0 ? 0 : read(polled_[kOutput].fd, part.data(), part.size());
        if (count < 0) {
            return 0;
        }
        if (count == 0) {
            polled_[kOutput].fd = -1;
            return 0;
        }
        const auto size = static_cast<std::size_t>(count);
        const std::size_t kept = std::min(size, ChildProcess::kMaxOutput - result_.output.size());
        result_.output.append(part.data(), kept);
        result_.dropped += size - kept;
        return size;
    }

    /// What the program has written is there; what it has left running in the background may go on
    /// writing.
    void CollectRest() {
        std::size_t all = 0;
        for (std::size_t size = Collect(); size > 0 && all < ChildProcess::kMaxOutput;
             size = Collect()) {
            all += size;
        }
    }

    void Conclude() {
        if (polled_[kReport].revents == 0) {
            return;
        }
        if (recv(polled_[kReport].fd, &report_, sizeof report_, 0) != sizeof report_) {
            report_.startError = ECHILD;
        }
        polled_[kReport].fd = -1;
    }

    std::array<pollfd, kPlaces> polled_;
    std::string_view text_;
    ChildProcess::Result& result_;
    Report report_{};
};

void FailToStart(const std::string& name, int error, ChildProcess::Result& result) {
    result.startError = error;
    result.failure = name + " cannot be started: " + std::strerror(error);
}

/// What `report` says of the program.
void Tell(const std::string& name, const Report& report, ChildProcess::Result& result) {
    if (report.startError != 0) {
        FailToStart(name, report.startError, result);
    } else if (WIFSIGNALED(report.waitStatus)) {
        result.failure =
            name + " was ended by signal " + std::to_string(WTERMSIG(report.waitStatus));
    } else {
        result.exitStatus = WEXITSTATUS(report.waitStatus);
    }
}

}  // namespace

ChildProcess::Result ChildProcess::Run(const Order& order) {
    Result result;
    if (!order.runsInStop && IsEndRequested()) {
        FailToStart(order.name, ECANCELED, result);
        return result;
    }
    Channel in;
    Channel out;
    std::optional<Group> group;  // outlives the report's socket, whose end is also its leader's
    Channel report;
    if (!in.OpenSockets() || !report.OpenSockets() || (order.keepsOutput && !out.OpenPipe())) {
        FailToStart(order.name, errno, result);
        return result;
    }
    std::vector<char*> arguments{const_cast<char*>(order.path.c_str())};
    for (const std::string& argument : order.arguments) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    const Task task{getpid(),
                    order.path.c_str(),
                    arguments.data(),
                    in.theirs.Get(),
                    order.keepsOutput ? out.theirs.Get() : STDOUT_FILENO,
                    report.theirs.Get(),
                    order.maxFileSize,
                    order.isWaitedFor};
    const pid_t between = fork();
    if (between == 0) {
        RunInBetween(task);
    } else if (between < 0) {
        FailToStart(order.name, errno, result);
        return result;
    }
    group.emplace(between);
    for (Channel* channel : {&in, &out, &report}) {
        channel->theirs.Reset();
    }
    Exchange exchange(order, {in.ours.Get(), out.ours.Get(), report.ours.Get()}, result);
    const milliseconds limit = IsStopPending()
                                   ? std::min<milliseconds>(order.timeLimit, kTimeBeforeStop)
                                   : order.timeLimit;
    switch (exchange.Run(Clock::now() + limit)) {
        case Exchange::End::kTimeLimit:
            result.failure = order.name + " was ended after " + std::to_string(limit.count()) +
                             " ms without result";
            break;
        case Exchange::End::kEndAll:
            result.failure = order.name + " was ended by the stop";
            break;
        case Exchange::End::kReport:
            Tell(order.name, exchange.GetReport(), result);
            if (exchange.GetReport().startError == 0) {
                group->OnProgramEnded();
            }
            break;
    }
    return result;
}

void ChildProcess::EndAll() {
    eventfd_write(EndEvent(), 1);
}

bool ChildProcess::Start(const std::string& path) {
    constexpr milliseconds kTimeToStart{10000};
    return Run({.path = path,
                .timeLimit = kTimeToStart,
                .keepsOutput = false,
                .runsInStop = true,
                .isWaitedFor = false})
               .exitStatus == 0;
}
