#include "ConnectorCommands.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <utility>

#include "AnyCase.h"
#include "BoxName.h"
#include "ConnectorCodes.h"
#include "HandleStore.h"
#include "Ipv4.h"
#include "Report.h"
#include "SafeText.h"
#include "SoapClient.h"

namespace ConnectorCommands {
namespace {

using Report::Json;
using SoapClient::Answer;
using SoapClient::Element;

// What the device information holds several of.
constexpr char kListed[] = "Channel";

/// A box as a command sees it.
struct Session {
    BoxAddress address;
    Answer information;

    const xmlNode* Values() const { return XmlText::FindChild(information.response, "out"); }
    std::string Value(const char* name) const { return XmlText::ChildText(Values(), name); }
    std::string DeviceId() const { return Value("id"); }
    std::string Owner() const { return Value("sessionOwnerOrNull"); }
    bool IsReserved() const { return Box{"", {{"State", Value("state")}}}.State() == "reserved"; }
    std::string Name() const { return address.host + " (" + DeviceId() + ")"; }

    /// What every answer to a program begins with.
    Json Heading() const {
        return {{"address", address.host},
                {"device_id", DeviceId().empty() ? Json() : Json(DeviceId())}};
    }
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

/// The box is told anew: who has reserved it may have come since. What is told in vain stays.
void Refresh(const Options& options, Session& session) {
    Answer information;
    if (!SoapClient::Call(session.address, SoapClient::kConnector, "<getDeviceInformation/>",
                          options.timeout, information)
             .Failed() &&
        XmlText::FindChild(information.response, "out") != nullptr) {
        session.information = std::move(information);
    }
}

std::string ReservedBy(const Session& session) {
    constexpr char kStoppedService[] = "VCI-Agent";
    constexpr std::size_t kMaxOwner = 64;
    const std::string owner = SafeText::Shorten(SafeText::Line(session.Owner()), kMaxOwner);
    return !session.IsReserved()      ? "it is not reserved (zelctl reserve)"
           : owner == kStoppedService ? "its service is stopped (zelctl start)"
           : owner.empty()            ? "reserved already by somebody without a name"
                                      : "reserved already by '" + owner + "'";
}

/// What a code of the service means, and what to do next.
std::string Meaning(ConnectorCode code, const Options& options, const Session& session) {
    std::string reserved = ReservedBy(session);
    switch (code) {
        case ConnectorCode::kWrongHandle:
            return (!options.handle.empty() ? "--handle is not that of the reservation; "
                    : HandleOf(options, session).empty() ? "no handle of it is kept here; "
                                                         : "the handle kept here is of no use; ") +
                   reserved;
        case ConnectorCode::kNotReserved:
            return reserved;
        case ConnectorCode::kReserveRefused:
            return session.IsReserved()
                       ? reserved + "; zelctl find --state free shows those that can be had"
                       : "it was reserved a moment ago; try again";
        case ConnectorCode::kNotCarriedOut:
            return "the mode could not be switched; its log says why (zelctl log)";
        case ConnectorCode::kNotConfirmed:
            return "the mode was switched, but link or address did not come in time; look where it "
                   "is now (zelctl find)";
        case ConnectorCode::kWrongDevice:
            return "it has another device id by now; try again";
        case ConnectorCode::kOverTemperature:
            return "it is too hot; let it cool down";
        default:
            return "a code that is not known";
    }
}

/// Calls an operation; a code other than 0 is a refusal. `code` is that of an understood answer.
Outcome Call(const Options& options, Session& session, const std::string& operation, Answer& answer,
             std::optional<ConnectorCode>* code = nullptr) {
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
    const std::string name = session.Name();
    Refresh(options, session);
    return {ExitStatus::kRefused, name + " refuses, code " + std::to_string(*number) + ": " +
                                      Meaning(error, options, session)};
}

/// What the box calls the host that a person names. Of other forms of an address, or of none, it
/// would make another host's, or nobody's.
Outcome ReadHost(const std::string& text, std::string& host) {
    constexpr char kEveryHost[] = "0";
    const std::optional<in_addr> address = Ipv4::Parse(text);
    if (AnyCase::Equal(text, "any")) {
        host = kEveryHost;
    } else if (address && address->s_addr != INADDR_ANY) {
        host = text;
    } else {
        return {ExitStatus::kUsage,
                "'" + text + "' is no host's address; give all four numbers, as in 192.168.68.1, " +
                    "or any for every host"};
    }
    return {};
}

/// As a person names what ReadHost() gives.
std::string NameOfHost(const std::string& host) {
    return Ipv4::Parse(host) ? host : "any";
}

/// A handle is a number; whatever a stranger calls one must fit on a line of a file.
bool IsHandle(const std::string& text) {
    constexpr std::size_t kMaxHandle = 128;
    return !text.empty() && text.size() <= kMaxHandle &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

/// The state in words, as zelctl find has it, and addresses dotted. Of a name the last part counts.
std::string Readable(std::string_view name, const std::string& value) {
    name.remove_prefix(name.rfind('.') + 1);
    if (name == "state") {
        return Box{"", {{"State", value}}}.State();
    }
    constexpr std::string_view kAddresses[] = {"ip", "ip4Address", "gateway", "netmask"};
    const bool isAddress =
        std::find(std::begin(kAddresses), std::end(kAddresses), name) != std::end(kAddresses);
    return isAddress ? Report::Dotted(value) : value;
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
            pairs.emplace_back(prefix + name, XmlText::Content(child));
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
        line += std::string(width - SafeText::Width(line) + 2, ' ') +
                SafeText::Line(Readable(name, value));
        line.erase(line.find_last_not_of(' ') + 1);
        std::puts(line.c_str());
    }
}

void PrintJson(const Session& session, const Pairs& pairs) {
    Json report = Report::OfInformation(session.address.host, session.Values());
    report["attributes"] = Json::object();
    for (const auto& [name, value] : pairs) {
        report["attributes"][name] = value;
    }
    Report::Print(report);
}

struct AddressMode {
    const char* name;
    const char* number;  ///< what the service calls it
};
constexpr AddressMode kModes[] = {{"configured", "1"}, {"linklocal", "2"}, {"dhcp", "3"}};

/// Tells a program that it is done, and `what` of it.
Outcome Done(const Options& options, const Session& session, const Json& what) {
    if (options.json) {
        Json report = session.Heading();
        report.update(what);
        Report::Print(report);
    }
    return {};
}

}  // namespace

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
    options.json ? PrintJson(session, pairs) : PrintText(pairs);
    return {};
}

Outcome Reserve(const Options& options) {
    std::string host;
    if (Outcome outcome = options.lock.empty() ? Outcome() : ReadHost(options.lock, host);
        outcome.Failed()) {
        return outcome;
    }
    Session session;
    if (Outcome outcome = Begin(options, session); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    const std::string operation = "<reserveDevice>" + Element("deviceId", session.DeviceId()) +
                                  Element("owner", options.owner) + Element("hostLock", host) +
                                  "</reserveDevice>";
    if (Outcome outcome = Call(options, session, operation, answer); outcome.Failed()) {
        return outcome;
    }
    const std::string handle =
        XmlText::ChildText(XmlText::FindChild(answer.response, "out"), "handle");
    if (!IsHandle(handle)) {
        return {ExitStatus::kNotUnderstood, session.Name() + " reserves without a handle"};
    }
    const bool isKept = HandleStore::Put(session.DeviceId(), handle);
    if (options.json) {
        return Done(options, session,
                    {{"owner", options.owner},
                     {"lock", NameOfHost(host)},
                     {"handle", handle},
                     {"handle_is_kept", isKept}});
    }
    std::puts(handle.c_str());
    if (!isKept) {
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
    return outcome.Failed() ? outcome : Done(options, session, {{"state", "free"}});
}

Outcome Lock(const Options& options) {
    std::string host;
    if (Outcome outcome = ReadHost(options.arguments.front(), host); outcome.Failed()) {
        return outcome;
    }
    Session session;
    std::string handle;
    if (Outcome outcome = BeginWithHandle(options, session, handle); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    Outcome outcome = Call(
        options, session,
        "<setHostLock>" + Element("handle", handle) + Element("hostLock", host) + "</setHostLock>",
        answer);
    return outcome.Failed() ? outcome : Done(options, session, {{"lock", NameOfHost(host)}});
}

Outcome Mode(const Options& options) {
    const auto* const mode =
        std::find_if(std::begin(kModes), std::end(kModes), [&options](const AddressMode& each) {
            return AnyCase::Equal(each.name, options.arguments.front());
        });
    if (mode == std::end(kModes)) {
        return {ExitStatus::kUsage, "'" + options.arguments.front() +
                                        "' is no mode; give dhcp, linklocal or configured"};
    }
    Session session;
    if (Outcome outcome = BeginWithReserved(options, session); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    // A free box needs no handle.
    Outcome outcome = Call(options, session,
                           "<switchMode>" + Element("deviceId", session.DeviceId()) +
                               Element("mode", mode->number) +
                               Element("handle", HandleOf(options, session)) + "</switchMode>",
                           answer);
    return outcome.Failed() ? outcome : Done(options, session, {{"mode", mode->name}});
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
    if (options.json) {
        return Done(options, session, {{"result", text}});
    }
    std::puts(SafeText::Lines(text).c_str());
    return {};
}

}  // namespace ConnectorCommands
