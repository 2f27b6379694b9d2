#include "AgentCommands.h"

#include <algorithm>
#include <cstdio>

#include "BoxName.h"
#include "SafeText.h"
#include "SoapClient.h"

namespace AgentCommands {
namespace {

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

/// Finds the box and calls one operation.
Outcome FindAndCall(const Options& options, const std::string& operation,
                    const std::string& children, SoapClient::Answer& answer) {
    BoxAddress box;
    if (Outcome outcome = BoxName::Resolve(options, box); outcome.Failed()) {
        return outcome;
    }
    return Call(options, box, operation, children, answer);
}

}  // namespace

Outcome SelfTest(const Options& options) {
    SoapClient::Answer answer;
    if (Outcome outcome = FindAndCall(options, "doSelftest", "", answer); outcome.Failed()) {
        return outcome;
    }
    std::string lines = XmlText::ChildText(answer.response, "return");
    std::replace(lines.begin(), lines.end(), ';', '\n');
    std::fputs(SafeText::Lines(lines).c_str(), stdout);
    return {};
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
    const bool isRunning = XmlText::ChildText(running.response, "return") == "true";
    std::printf("service: %s\n", isRunning ? "running" : "stopped");
    const xmlNode* const items =
        XmlText::FindChild(XmlText::FindChild(monitored.response, "return"), "items");
    for (const xmlNode* item : XmlText::Children(items, "MonitoringStatusItem")) {
        const std::string text = XmlText::ChildText(item, "name") + ": " +
                                 XmlText::ChildText(item, "status") + " (" +
                                 XmlText::ChildText(item, "infoLabel") + ")";
        std::puts(SafeText::Line(text).c_str());
    }
    return {};
}

Outcome Start(const Options& options) {
    SoapClient::Answer answer;
    return FindAndCall(options, "startService", kService, answer);
}

Outcome Stop(const Options& options) {
    SoapClient::Answer answer;
    return FindAndCall(options, "stopService", kService, answer);
}

Outcome Restart(const Options& options) {
    SoapClient::Answer answer;
    return FindAndCall(options, "restartDevice", "", answer);
}

}  // namespace AgentCommands
