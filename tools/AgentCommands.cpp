#include "AgentCommands.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "BoxName.h"
#include "Report.h"
#include "SafeText.h"
#include "SelfTestResult.h"
#include "SoapClient.h"

namespace AgentCommands {
namespace {

using Report::Json;

constexpr char kService[] = "<name>VCI-Agent</name>";
constexpr char kGroup[] = "<groupId>TAVO</groupId>";

Outcome Call(const Options& options, const BoxAddress& box, const std::string& operation,
             const std::string& children, SoapClient::Answer& answer) {
    std::string element = "<" + operation;
    element += children.empty() ? "/>" : ">" + children + "</" + operation + ">";
    if (Outcome outcome =
            SoapClient::Call(box, SoapClient::kAgent, element, options.timeout, answer);
        outcome.Failed()) {
        return outcome;
    }
    if (XmlText::LocalName(answer.response) != operation + "Response") {
        return {ExitStatus::kNotUnderstood,
                box.ToText() + " does not answer what it was asked (" + operation + ")"};
    }
    return {};
}

/// Calls one operation of the box; `done` is what has become of it.
Outcome FindAndCall(const Options& options, const std::string& operation,
                    const std::string& children, const std::pair<const char*, bool>& done) {
    BoxAddress box;
    if (Outcome outcome = BoxName::Resolve(options, box); outcome.Failed()) {
        return outcome;
    }
    SoapClient::Answer answer;
    Outcome outcome = Call(options, box, operation, children, answer);
    if (!outcome.Failed() && options.json) {
        Report::Print({{"address", box.host}, {done.first, done.second}});
    }
    return outcome;
}

/// Why a box does not stop its service. The texts of its faults are meant for programs.
Outcome WhyNotStopped(const Options& options, const BoxAddress& box, const std::string& fault,
                      const Outcome& otherwise) {
    const auto refused = [&box](const std::string& why) {
        return Outcome{ExitStatus::kRefused, box.host + " refuses: " + why};
    };
    if (fault.find("already locked") != std::string::npos) {
        return refused("its service is stopped already; zelctl start starts it");
    }
    if (fault.find("lock a reserved device") == std::string::npos) {
        return otherwise;
    }
    SoapClient::Answer information;
    std::string owner;
    if (!SoapClient::Call(box, SoapClient::kConnector, "<getDeviceInformation/>", options.timeout,
                          information)
             .Failed()) {
        owner = XmlText::ChildText(XmlText::FindChild(information.response, "out"),
                                   "sessionOwnerOrNull");
    }
    return refused(owner.empty() ? "it is busy, or reserved; try again"
                                 : "it is reserved by '" + owner +
                                       "', who has to release it first (zelctl release)");
}

}  // namespace

Outcome SelfTest(const Options& options) {
    BoxAddress box;
    if (Outcome outcome = BoxName::Resolve(options, box); outcome.Failed()) {
        return outcome;
    }
    SoapClient::Answer answer;
    if (Outcome outcome = Call(options, box, "doSelftest", "", answer); outcome.Failed()) {
        return outcome;
    }
    const auto tests = SelfTestResult::Read(XmlText::ChildText(answer.response, "return"));
    std::string failed;
    Json list = Json::array();
    for (const SelfTestResult::Test& test : tests) {
        list.push_back({{"name", test.name}, {"passed", test.passed}, {"detail", test.detail}});
        failed += test.passed ? "" : (failed.empty() ? "" : ", ") + test.name;
        if (!options.json) {
            std::puts(SafeText::Line(test.ToText()).c_str());
        }
    }
    const bool passed = failed.empty() && !tests.empty();
    if (options.json) {
        Report::Print({{"address", box.host}, {"passed", passed}, {"tests", std::move(list)}});
    }
    if (tests.empty()) {
        return {ExitStatus::kRefused, box.host +
                                          " tells no result: it has no tests, or is at work " +
                                          "on others' for too long; try again"};
    }
    return passed ? Outcome()
                  : Outcome{ExitStatus::kRefused, box.host + " fails its self test: " + failed};
}

Outcome Status(const Options& options) {
    BoxAddress box;
    if (Outcome outcome = BoxName::Resolve(options, box); outcome.Failed()) {
        return outcome;
    }
    SoapClient::Answer running;
    if (Outcome outcome = Call(options, box, "isServiceRunning", kService, running);
        outcome.Failed()) {
        return outcome;
    }
    SoapClient::Answer monitored;
    if (Outcome outcome = Call(options, box, "getMonitoringStatus", kGroup, monitored);
        outcome.Failed()) {
        return outcome;
    }
    const std::string is = XmlText::ChildText(running.response, "return");
    if (is != "true" && is != "false") {
        return {ExitStatus::kNotUnderstood, box.host + " does not say whether its service runs"};
    }
    const bool isRunning = is == "true";
    Json list = Json::array();
    std::string lines = std::string("service: ") + (isRunning ? "running" : "stopped") + "\n";
    const xmlNode* const items =
        XmlText::FindChild(XmlText::FindChild(monitored.response, "return"), "items");
    for (const xmlNode* item : XmlText::Children(items, "MonitoringStatusItem")) {
        const std::string name = XmlText::ChildText(item, "name");
        const std::string status = XmlText::ChildText(item, "status");
        const std::string label = XmlText::ChildText(item, "infoLabel");
        std::string shown = name;
        shown.append(": ").append(status).append(" (").append(label).append(")");
        list.push_back({{"name", name},
                        {"status", status},
                        {"type", XmlText::ChildText(item, "type")},
                        {"label", label}});
        lines += SafeText::Line(shown) + "\n";
    }
    if (options.json) {
        Report::Print(
            {{"address", box.host}, {"running", isRunning}, {"monitored", std::move(list)}});
    } else {
        std::fputs(lines.c_str(), stdout);
    }
    return isRunning ? Outcome()
                     : Outcome{ExitStatus::kRefused, "the service of " + box.host +
                                                         " is stopped; zelctl start starts it"};
}

Outcome Start(const Options& options) {
    return FindAndCall(options, "startService", kService, {"running", true});
}

Outcome Stop(const Options& options) {
    BoxAddress box;
    if (Outcome outcome = BoxName::Resolve(options, box); outcome.Failed()) {
        return outcome;
    }
    SoapClient::Answer answer;
    if (Outcome outcome = Call(options, box, "stopService", kService, answer); outcome.Failed()) {
        return WhyNotStopped(options, box, answer.fault, outcome);
    }
    if (options.json) {
        Report::Print({{"address", box.host}, {"running", false}});
    }
    return {};
}

}  // namespace AgentCommands
