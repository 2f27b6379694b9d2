#include "ConnectorCommands.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <utility>

#include "BoxName.h"
#include "ConnectorCodes.h"
#include "HandleStore.h"
#include "Ipv4.h"
#include "Numbers.h"
#include "SafeText.h"
#include "SoapClient.h"

namespace ConnectorCommands {
namespace {

using SoapClient::Answer;
using SoapClient::Element;

// What the device information holds several of.
constexpr char kListed[] = "Channel";

/// A code of the service in words.
std::string Meaning(ConnectorCode code) {
    switch (code) {
        case ConnectorCode::kWrongHandle:
            return "the handle is not that of the reservation";
        case ConnectorCode::kNotReserved:
            return "it is not reserved";
        case ConnectorCode::kReserveRefused:
            return "reserved already";
        case ConnectorCode::kNotCarriedOut:
            return "the mode could not be switched";
        case ConnectorCode::kNotConfirmed:
            return "the mode was switched, but link or address did not come in time";
        case ConnectorCode::kWrongDevice:
            return "it has another device id";
        case ConnectorCode::kOverTemperature:
            return "it is too hot";
        default:
            return "a code that is not known";
    }
}

/// A box as a command sees it.
struct Session {
    BoxAddress address;
    Answer information;

    const xmlNode* Values() const { return XmlText::FindChild(information.response, "out"); }
    std::string Value(const char* name) const { return XmlText::ChildText(Values(), name); }
    std::string DeviceId() const { return Value("id"); }
    std::string Name() const { return address.host + " (" + DeviceId() + ")"; }
};

/// Finds the box and asks who it is.
Outcome Begin(const Options& options, Session& session,
              const std::function<bool(const Box&)>& isPreferred = {}) {
    if (Outcome outcome = BoxName::Resolve(options, session.address, isPreferred);
        outcome.Failed()) {
        return outcome;
    }
    if (Outcome outcome =
            SoapClient::Call(session.address, SoapClient::kConnector, "<getDeviceInformation/>",
                             options.timeout, session.information);
        outcome.Failed()) {
        return outcome;
    }
    if (session.Values() == nullptr) {
        return {ExitStatus::kNotUnderstood,
                session.address.ToText() + " does not say what it is; is it a box?"};
    }
    return {};
}

/// As Begin(); the box that is reserved from here need not be named.
Outcome BeginWithReserved(const Options& options, Session& session) {
    return Begin(options, session, [&options](const Box& box) {
        return options.handle.empty() && box.State() == "reserved" &&
               !HandleStore::Get(box.DeviceId()).empty();
    });
}

/// The handle that goes with a call: as given, or as kept; it may be empty.
std::string HandleOf(const Options& options, const Session& session) {
    return options.handle.empty() ? HandleStore::Get(session.DeviceId()) : options.handle;
}

/// As BeginWithReserved(), for what cannot be done without the handle.
Outcome BeginWithHandle(const Options& options, Session& session, std::string& handle) {
    if (Outcome outcome = BeginWithReserved(options, session); outcome.Failed()) {
        return outcome;
    }
    handle = HandleOf(options, session);
    if (!handle.empty()) {
        return {};
    }
    return {ExitStatus::kUsage,
            "no handle of " + session.Name() +
                " is kept here; reserve it first (zelctl reserve), or give --handle"};
}

/// Calls an operation; a code other than 0 is a refusal. `code` is that of an understood answer.
Outcome Call(const Options& options, const Session& session, const std::string& operation,
             Answer& answer, std::optional<ConnectorCode>* code = nullptr) {
    if (Outcome outcome = SoapClient::Call(session.address, SoapClient::kConnector, operation,
                                           options.timeout, answer);
        outcome.Failed()) {
        return outcome;
    }
    const std::optional<int> number = SoapClient::ErrorCode(answer);
    if (!number) {
        return {ExitStatus::kNotUnderstood, session.Name() + " answers without a code"};
    }
    const auto error = static_cast<ConnectorCode>(*number);
    if (code != nullptr) {
        *code = error;
    }
    if (error == ConnectorCode::kSuccess) {
        return {};
    }
    std::string text =
        session.Name() + " refuses, code " + std::to_string(*number) + ": " + Meaning(error);
    const std::string owner = session.Value("sessionOwnerOrNull");
    if ((error == ConnectorCode::kReserveRefused || error == ConnectorCode::kWrongHandle) &&
        !owner.empty()) {
        text += " by '" + owner + "'";
    }
    return {ExitStatus::kRefused, text};
}

/// What is no address to the box, it would open its ports to nobody for.
Outcome CheckHost(const std::string& host) {
    if (Ipv4::ParseAnyForm(host)) {
        return {};
    }
    return {ExitStatus::kUsage, "'" + host + "' is no address; give one, or 0 for every host"};
}

/// A handle is a number; whatever a stranger calls one must fit on a line of a file.
bool IsHandle(const std::string& text) {
    constexpr std::size_t kMaxHandle = 128;
    return !text.empty() && text.size() <= kMaxHandle &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

/// The state in words, as zelctl find has it; addresses dotted, not as the signed number that the
/// service gives.
std::string Readable(std::string_view name, const std::string& value) {
    if (name == "state") {
        return Box{"", {{"State", value}}}.State();
    }
    constexpr std::string_view kAddresses[] = {"ip", "ip4Address", "gateway", "netmask"};
    const auto number = Numbers::Parse<std::int32_t>(value);
    if (std::find(std::begin(kAddresses), std::end(kAddresses), name) == std::end(kAddresses) ||
        !number) {
        return value;
    }
    return Ipv4::Dotted({htonl(static_cast<std::uint32_t>(*number))});
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// All values below `parent`, their names behind those of what holds them; within limits, so that
/// no stranger's answer becomes longer by that than it is.
void Flatten(const xmlNode* parent, const std::string& prefix, Pairs& pairs, int depth = 0) {
    constexpr std::size_t kMaxName = 40;
    constexpr std::size_t kMaxPairs = 1000;
    constexpr int kMaxDepth = 8;
    int count = 0;
    for (xmlNode* child : XmlText::Children(parent)) {
        if (pairs.size() >= kMaxPairs) {
            return;
        }
        const std::string name = SafeText::Shorten(XmlText::LocalName(child), kMaxName);
        if (xmlFirstElementChild(child) == nullptr || depth == kMaxDepth) {
            pairs.emplace_back(prefix + name, Readable(name, XmlText::Content(child)));
        } else {
            const std::string number = std::to_string(count++);
            Flatten(child, prefix + (name == kListed ? number : name) + ".", pairs, depth + 1);
        }
    }
}

void PrintText(const Pairs& pairs) {
    std::size_t width = 0;
    for (const auto& pair : pairs) {
        width = std::max(width, SafeText::Width(SafeText::Line(pair.first)));
    }
    for (const auto& [name, value] : pairs) {
        std::string line = SafeText::Line(name);
        line += std::string(width - SafeText::Width(line) + 2, ' ') + SafeText::Line(value);
        line.erase(line.find_last_not_of(' ') + 1);
        std::puts(line.c_str());
    }
}

void PrintJson(const Pairs& pairs) {
    std::string json;
    for (const auto& [name, value] : pairs) {
        json += (json.empty() ? "" : ",\n ") + SafeText::Json(name) + ": " + SafeText::Json(value);
    }
    std::printf("{%s}\n", json.c_str());
}

}  // namespace

std::optional<std::string> ModeNumber(const std::string& name) {
    return name == "configured"  ? std::optional("1")
           : name == "linklocal" ? std::optional("2")
           : name == "dhcp"      ? std::optional("3")
                                 : std::nullopt;
}

std::string ParameterElements(const std::vector<std::string>& parameters) {
    std::string elements;
    for (const std::string& parameter : parameters) {
        const std::size_t equals = parameter.find('=');
        elements += "<pParameters>" + Element("key", parameter.substr(0, equals)) +
                    Element("value", parameter.substr(equals + 1)) + "</pParameters>";
    }
    return elements;
}

Outcome Info(const Options& options) {
    Session session;
    if (Outcome outcome = Begin(options, session); outcome.Failed()) {
        return outcome;
    }
    Pairs pairs;
    Flatten(session.Values(), "", pairs);
    options.json ? PrintJson(pairs) : PrintText(pairs);
    return {};
}

Outcome Reserve(const Options& options) {
    Outcome lock = options.lock.empty() ? Outcome() : CheckHost(options.lock);
    if (lock.Failed()) {
        return lock;
    }
    Session session;
    if (Outcome outcome = Begin(options, session); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    const std::string operation = "<reserveDevice>" + Element("deviceId", session.DeviceId()) +
                                  Element("owner", options.owner) +
                                  Element("hostLock", options.lock) + "</reserveDevice>";
    if (Outcome outcome = Call(options, session, operation, answer); outcome.Failed()) {
        return outcome;
    }
    const std::string handle =
        XmlText::ChildText(XmlText::FindChild(answer.response, "out"), "handle");
    if (!IsHandle(handle)) {
        return {ExitStatus::kNotUnderstood, session.Name() + " reserves without a handle"};
    }
    std::puts(handle.c_str());
    if (!HandleStore::Put(session.DeviceId(), handle)) {
        const std::string path = HandleStore::PathOf(session.DeviceId());
        const std::string why = path.empty() ? ", for HOME is not set" : " in '" + path + "'";
        std::fprintf(stderr, "zelctl: the handle cannot be kept%s; give --handle from now on\n",
                     why.c_str());
    }
    return {};
}

Outcome Release(const Options& options) {
    Session session;
    std::string handle;
    if (Outcome outcome = BeginWithHandle(options, session, handle); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    std::optional<ConnectorCode> code;
    Outcome outcome = Call(options, session,
                           "<releaseDevice>" + Element("handle", handle) +
                               Element("deviceId", session.DeviceId()) + "</releaseDevice>",
                           answer, &code);
    const bool isOver = code == ConnectorCode::kSuccess || code == ConnectorCode::kWrongHandle ||
                        code == ConnectorCode::kNotReserved;
    if (isOver && handle == HandleStore::Get(session.DeviceId())) {
        HandleStore::Forget(session.DeviceId());
    }
    return outcome;
}

Outcome Lock(const Options& options) {
    const std::string& host = options.arguments.front();
    if (Outcome outcome = CheckHost(host); outcome.Failed()) {
        return outcome;
    }
    Session session;
    std::string handle;
    if (Outcome outcome = BeginWithHandle(options, session, handle); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    return Call(
        options, session,
        "<setHostLock>" + Element("handle", handle) + Element("hostLock", host) + "</setHostLock>",
        answer);
}

Outcome Mode(const Options& options) {
    const std::optional<std::string> number = ModeNumber(options.arguments.front());
    if (!number) {
        return {ExitStatus::kUsage, "'" + options.arguments.front() +
                                        "' is no mode; give dhcp, linklocal or configured"};
    }
    Session session;
    if (Outcome outcome = BeginWithReserved(options, session); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    // A free box needs no handle.
    return Call(options, session,
                "<switchMode>" + Element("deviceId", session.DeviceId()) +
                    Element("mode", *number) + Element("handle", HandleOf(options, session)) +
                    "</switchMode>",
                answer);
}

Outcome Command(const Options& options) {
    Session session;
    std::string handle;
    if (Outcome outcome = BeginWithHandle(options, session, handle); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    const std::string operation =
        "<executeGenericCommand>" + Element("handle", handle) +
        Element("pSubSystem", options.arguments[0]) + Element("pCommand", options.arguments[1]) +
        ParameterElements(options.parameters) + "</executeGenericCommand>";
    if (Outcome outcome = Call(options, session, operation, answer); outcome.Failed()) {
        return outcome;
    }
    const xmlNode* const result =
        XmlText::FindChild(XmlText::FindChild(answer.response, "out"), "commandResultList");
    const std::string text = XmlText::ChildText(result, "value");
    if (XmlText::ChildText(result, "key") != "result") {
        return {ExitStatus::kRefused, session.Name() + ": the command fails: " + text};
    }
    std::puts(SafeText::Lines(text).c_str());
    return {};
}

}  // namespace ConnectorCommands
