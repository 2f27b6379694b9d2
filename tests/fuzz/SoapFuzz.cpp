// Requests to the SOAP services, with the real schemas. An input is a byte of options and either
// any bytes as the body, from a "<" on, or the number of an operation and lines that each begin
// with the number of a field: they make a request that is well-formed, and valid where the fields
// are the operation's.

#include "Fuzzing.h"
#include "Namespaces.h"
#include "OrsAgentServlet.h"
#include "ServiceBox.h"
#include "XmlText.h"
#include "ZelConnectorServlet.h"

using Fuzzing::Require;

namespace {

// Options.
constexpr unsigned kAgentService = 1;
constexpr unsigned kReserved = 2;
constexpr unsigned kStopped = 4;
constexpr unsigned kQualified = 8;
constexpr unsigned kDescription = 16;
constexpr unsigned kOwnHandle = 32;
constexpr unsigned kOwnDevice = 64;

constexpr const char* kConnectorOperations[] = {
    "getDeviceInformation", "reserveDevice", "releaseDevice",        "resetTrigger15Edge",
    "setHostLock",          "switchMode",    "executeGenericCommand"};
constexpr const char* kAgentOperations[] = {"doSelftest",       "getMonitoringStatus",
                                            "isServiceRunning", "restartDevice",
                                            "startService",     "stopService"};
constexpr const char* kFields[] = {"deviceId", "owner",      "handle",      "hostLock",
                                   "mode",     "pSubSystem", "pCommand",    "pParameters",
                                   "name",     "groupId",    "unknownField"};

std::string Element(const std::string& prefix, const char* name, const std::string& content) {
    return "<" + prefix + name + ">" + content + "</" + prefix + name + ">";
}

std::string MakeOperation(unsigned options, std::string_view rest, const ZelConfig& config) {
    const bool forAgent = (options & kAgentService) != 0;
    const std::string prefix = (options & kQualified) != 0 ? "o:" : "";
    const unsigned number = Fuzzing::TakeByte(rest);
    const std::string operation =
        forAgent ? kAgentOperations[number % std::size(kAgentOperations)]
                 : kConnectorOperations[number % std::size(kConnectorOperations)];
    std::string fields;
    if ((options & kOwnDevice) != 0) {
        fields += Element(prefix, "deviceId", config.Get("hardware.devid"));
    }
    if ((options & kOwnHandle) != 0) {
        fields += Element(prefix, "handle", ServiceBox::kHandle);
    }
    while (!rest.empty()) {
        const char* name = kFields[Fuzzing::TakeByte(rest) % std::size(kFields)];
        std::string_view line = Fuzzing::Take(rest, '\n');
        std::string content = XmlText::Escape(line);
        if (std::string_view(name) == "pParameters") {
            const std::string key = XmlText::Escape(Fuzzing::Take(line, '='));
            content = Element(prefix, "key", key) + Element(prefix, "value", XmlText::Escape(line));
        }
        fields += Element(prefix, name, content);
    }
    const char* uri = forAgent ? Namespaces::kAgentService : Namespaces::kConnectorService;
    const std::string declaration = prefix.empty() ? "" : std::string(" xmlns:o=\"") + uri + "\"";
    return "<" + prefix + operation + declaration + ">" + fields + "</" + prefix + operation + ">";
}

void CheckAnswer(const ServletResponse& response, bool isDescription) {
    Require(response.status == 200, "every request is answered");
    // Faults repeat texts as they are.
    if (response.body.find("<S:Fault") != std::string::npos) {
        return;
    }
    const XmlText::Document answer = XmlText::Parse(response.body);
    Require(answer != nullptr, "an answer is well-formed");
    const xmlNode* body = XmlText::FindChild(xmlDocGetRootElement(answer.get()), "Body");
    const xmlNode* operation =
        body == nullptr ? nullptr : xmlFirstElementChild(const_cast<xmlNode*>(body));
    Require(isDescription ||
                (operation != nullptr && XmlText::LocalName(operation).ends_with("Response")),
            "an answer holds a response");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto& box = *new ServiceBox;
    static ZelConnectorServlet connector(
        {box.config, box.reservation, box.trigger15, box.modeSwitch});
    static OrsAgentServlet agent({box.config, box.reservation});

    std::string_view rest = Fuzzing::ToText(data, size);
    const unsigned options = Fuzzing::TakeByte(rest);
    const bool isDescription = (options & kDescription) != 0;
    box.Set((options & (kReserved | kStopped)) != 0, (options & kStopped) != 0);
    HttpRequest request;
    request.url = isDescription ? "/?wsdl" : "/";
    request.body = rest.starts_with('<')
                       ? std::string(rest)
                       : std::string("<S:Envelope xmlns:S=\"") + Namespaces::kSoap11Envelope +
                             "\"><S:Body>" + MakeOperation(options, rest, box.config) +
                             "</S:Body></S:Envelope>";
    const ZelServlet& service = (options & kAgentService) != 0
                                    ? static_cast<const ZelServlet&>(agent)
                                    : static_cast<const ZelServlet&>(connector);
    ServletResponse response;
    service.MakeInstance()->Service(request, response);
    CheckAnswer(response, isDescription);
    box.Check();
    return 0;
}
