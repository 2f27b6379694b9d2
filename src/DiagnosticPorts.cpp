#include "DiagnosticPorts.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>
#include <string_view>
#include <vector>

#include "Descriptors.h"
#include "Ipv4.h"
#include "SocketGuard.h"
#include "ZelLog.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPorts[] = {6801, 6802, 52410, 52411};
// Of whatever must be done, however often the tool fails.
constexpr int kAttempts = 3;
constexpr char kForwarding[] = "/proc/sys/net/ipv4/ip_forward";

struct Rule {
    std::string host;
    int port;
};

/// `action` is the packet filter's option: "-A" adds the rule, "-D" deletes it.
Shell::Fate Filter(const char* action, const Rule& rule, const Shell::Limits& limits = {}) {
    const std::string source = rule.host == DiagnosticPorts::kAnyHost ? "" : "-s " + rule.host;
    std::string output;
    return Shell::RunWithin(limits, output,
                            "/sbin/iptables %s INPUT -p tcp %s --dport %d -j ACCEPT", action,
                            source.c_str(), rule.port);
}

void SetForwarding(int on) {
    std::string output;
    static_cast<void>(
        Shell::RunSystemWithResult(output, "/bin/echo %d > %s", on,
                                   kForwarding));  // a box without forwarding serves all the same
}

/// Without a tool: also where none can be started.
void SwitchForwardingOff() {
    constexpr std::string_view kOff = "0\n";
    const SocketGuard file(open(kForwarding, O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!Descriptors::WriteAll(file.Get(), kOff)) {
        ZEL_ERROR("Can't write %s: %s", kForwarding, std::strerror(errno));
    }
}

/// The rule that the packet filter lists in that line, if it is one of Open().
std::optional<Rule> ParseRule(std::string_view line) {
    constexpr std::string_view kChain = "-A INPUT ";
    constexpr std::string_view kSource = "-s ";
    constexpr std::string_view kOneHost = "/32 ";
    // Some versions of the tool end their lines with a blank.
    line = line.substr(0, line.find_last_not_of(' ') + 1);
    for (const int port : kPorts) {
        const std::string match = "-p tcp -m tcp --dport " + std::to_string(port) + " -j ACCEPT";
        if (!line.starts_with(kChain) || !line.ends_with(match)) {
            continue;
        }
        std::string_view source = line.substr(kChain.size());
        source.remove_suffix(match.size());
        if (source.empty()) {
            return Rule{DiagnosticPorts::kAnyHost, port};
        }
        if (!source.starts_with(kSource) || !source.ends_with(kOneHost)) {
            return std::nullopt;
        }
        source.remove_prefix(kSource.size());
        source.remove_suffix(kOneHost.size());
        std::string host(source);
        if (!Ipv4::Parse(host)) {
            return std::nullopt;
        }
        return Rule{std::move(host), port};
    }
    return std::nullopt;
}

/// No value when the packet filter does not tell.
std::optional<std::vector<Rule>> FindRules(const Shell::Limits& limits) {
    std::string listed;
    static_cast<void>(
        Shell::RunWithin(limits, listed, "/sbin/iptables -S INPUT"));  // the list tells
    // The policy of the chain stands first.
    if (!listed.starts_with("-P INPUT ")) {
        ZEL_ERROR("Can't read the packet filter");
        return std::nullopt;
    }
    std::vector<Rule> rules;
    std::istringstream lines(listed);
    for (std::string line; std::getline(lines, line);) {
        if (std::optional<Rule> rule = ParseRule(line)) {
            rules.push_back(std::move(*rule));
        }
    }
    return rules;
}

}  // namespace

void DiagnosticPorts::Open(const std::string& host) {
    if (isLeftOpen_) {
        CloseAll({.time = kRetryLimit});
    }
    // Whoever does not come to the end of this leaves rules behind.
    const bool wasLeftOpen = isLeftOpen_.exchange(true);
    for (const int port : kPorts) {
        // A tool that hangs would do so for each.
        if (isShut_ || Filter("-A", {host, port}) < Shell::Fate::kEnded) {
            break;
        }
    }
    if (!isShut_) {
        SetForwarding(1);
    }
    isLeftOpen_ = wasLeftOpen;
}

void DiagnosticPorts::Close(const std::string& host) {
    for (const int port : kPorts) {
        const Shell::Fate fate = Filter("-D", {host, port});
        isLeftOpen_ = isLeftOpen_ || fate != Shell::Fate::kSucceeded;
        if (fate < Shell::Fate::kEnded) {
            break;
        }
    }
    SetForwarding(0);
    if (isLeftOpen_) {
        CloseAll({.time = kRetryLimit});
    }
}

void DiagnosticPorts::CloseAll(const Shell::Limits& limits) {
    isLeftOpen_ = true;
    const Clock::time_point end = Clock::now() + limits.time;
    // Half of the time that is left is each command's: one that hangs leaves the others some.
    const auto rest = [&] {
        Shell::Limits left = limits;
        left.time = std::chrono::ceil<std::chrono::milliseconds>((end - Clock::now()) / 2);
        return left;
    };
    SwitchForwardingOff();
    for (int attempt = 0; attempt < kAttempts && Clock::now() < end; ++attempt) {
        const std::optional<std::vector<Rule>> rules = FindRules(rest());
        if (!rules) {
            continue;
        }
        if (rules->empty()) {
            isLeftOpen_ = false;
            return;
        }
        ZEL_INFO("Rules of the agent left in the packet filter: %zu", rules->size());
        for (const Rule& rule : *rules) {
            for (int repeat = 0; repeat < kAttempts && Clock::now() < end; ++repeat) {
                if (Filter("-D", rule, rest()) == Shell::Fate::kSucceeded) {
                    break;
                }
            }
        }
    }
    ZEL_ERROR("Rules of the agent may stand in the packet filter");
}
