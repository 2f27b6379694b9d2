#include "FileCommands.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "BoxName.h"
#include "Interruption.h"
#include "LogFollower.h"
#include "Report.h"
#include "SafeText.h"
#include "SoapClient.h"

namespace FileCommands {
namespace {

using std::chrono::milliseconds;

constexpr char kLog[] = "/web/show.jsp?file=/tmp/log/nativezel.log";
constexpr char kOlderLog[] = "/web/show.jsp?file=/tmp/log/nativezel.1.log";
// From one download to the next: the longer, the less there is that is new.
constexpr milliseconds kLeastPause{2000};
constexpr milliseconds kMostPause{30000};

/// As text, or an object for each line; no further than to an interruption.
void PrintLog(const Options& options, const std::string& text,
              const Interruption* interruption = nullptr) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (interruption != nullptr && !interruption->AwaitOutput()) {
            return;
        }
        if (options.json) {
            Report::Print({{"line", line}});
        } else {
            std::fputs(SafeText::Lines(line + "\n").c_str(), stdout);
        }
        if (interruption != nullptr) {
            std::fflush(stdout);
        }
    }
}

/// Until the user ends it, or nothing can be written: a box that restarts comes back. Each download
/// makes lines in the log, which becomes full of them the later, the fewer there are.
Outcome Follow(const Options& options, const BoxAddress& box) {
    const Interruption interruption;
    HttpClient::Kept client(interruption.Descriptor());
    std::string text;
    if (Outcome outcome = client.Get(box, kLog, options.timeout, text); outcome.Failed()) {
        return interruption.WithinTime(milliseconds(0)) ? Outcome() : outcome;
    }
    const auto older = [&] {
        std::string renamed;
        const Outcome outcome = client.Get(box, kOlderLog, options.timeout, renamed);
        return outcome.Failed() ? std::string() : renamed;
    };
    LogFollower follower;
    DownloadFilter filter;
    milliseconds pause = kLeastPause;
    bool isLost = false;
    for (;;) {
        if (!isLost) {
            const std::string fresh = filter.Next(follower.Next(text, older));
            PrintLog(options, fresh, &interruption);
            pause = fresh.empty() ? std::min(pause * 3 / 2, kMostPause) : kLeastPause;
        }
        if (std::ferror(stdout) != 0 || interruption.WithinTime(pause)) {
            return {};
        }
        const Outcome outcome = client.Get(box, kLog, options.timeout, text);
        if (interruption.WithinTime(milliseconds(0))) {
            return {};
        }
        if (outcome.Failed() && !isLost) {
            Report::PrintFailure({outcome.status, outcome.text + "; waiting for it"}, options.json);
            pause = kLeastPause;
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
    if (options.follow) {
        return Follow(options, box);
    }
    std::string text;
    Outcome outcome = HttpClient::Get(box, kLog, options.timeout, text);
    PrintLog(options, text);
    return outcome;
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
