#include "FileCommands.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "BoxName.h"
#include "LogFollower.h"
#include "Report.h"
#include "SafeText.h"
#include "SoapClient.h"

namespace FileCommands {
namespace {

constexpr char kLog[] = "/web/show.jsp?file=/tmp/log/nativezel.log";
constexpr char kOlderLog[] = "/web/show.jsp?file=/tmp/log/nativezel.1.log";
constexpr std::chrono::seconds kPollInterval{2};

/// As text, or an object for each line.
void PrintLog(const Options& options, const std::string& text) {
    std::istringstream lines(options.json ? text : "");
    for (std::string line; std::getline(lines, line);) {
        Report::Print({{"line", line}});
    }
    std::fputs(options.json ? "" : SafeText::Lines(text).c_str(), stdout);
    std::fflush(stdout);
}

/// Until the user ends it, or nothing can be written: a box that restarts comes back.
void Follow(const Options& options, const BoxAddress& box, const std::string& first) {
    const auto older = [&] {
        std::string text;
        const Outcome outcome = HttpClient::Get(box, kOlderLog, options.timeout, text);
        return outcome.Failed() ? std::string() : text;
    };
    LogFollower follower;
    PrintLog(options, follower.Next(first, older));
    bool isLost = false;
    while (std::ferror(stdout) == 0) {
        std::this_thread::sleep_for(kPollInterval);
        std::string text;
        const Outcome outcome = HttpClient::Get(box, kLog, options.timeout, text);
        if (!outcome.Failed()) {
            PrintLog(options, follower.Next(text, older));
        } else if (!isLost) {
            Report::PrintFailure({outcome.status, outcome.text + "; waiting for it"}, options.json);
        }
        isLost = outcome.Failed();
    }
}

}  // namespace

Outcome Log(const Options& options) {
    BoxAddress box;
    if (Outcome outcome = BoxName::Resolve(options, box); outcome.Failed()) {
        return outcome;
    }
    std::string text;
    if (Outcome outcome = HttpClient::Get(box, kLog, options.timeout, text); outcome.Failed()) {
        return outcome;
    }
    options.follow ? Follow(options, box, text) : PrintLog(options, text);
    return {};
}

Outcome Wsdl(const Options& options) {
    BoxAddress box;
    if (Outcome outcome = BoxName::Resolve(options, box); outcome.Failed()) {
        return outcome;
    }
    const std::string path = options.agent ? SoapClient::kAgent : SoapClient::kConnector;
    std::string text;
    if (Outcome outcome = HttpClient::Get(box, path + "?wsdl", options.timeout, text);
        outcome.Failed()) {
        return outcome;
    }
    if (options.json) {
        Report::Print({{"address", box.host}, {"wsdl", text}});
    } else {
        std::fputs(SafeText::Lines(text).c_str(), stdout);
    }
    return {};
}

}  // namespace FileCommands
