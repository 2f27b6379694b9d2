#include "ConnectorCommands.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <thread>

#include "AnyCase.h"
#include "BoxFinder.h"
#include "ConnectorCall.h"
#include "HandleStore.h"
#include "Ipv4.h"
#include "Progress.h"
#include "SafeText.h"

namespace ConnectorCommands {
namespace {

using Clock = std::chrono::steady_clock;
using ConnectorCall::BeginWithHandle;
using ConnectorCall::Call;
using ConnectorCall::Done;
using SoapClient::Answer;
using SoapClient::Element;
using std::chrono::milliseconds;

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

/// Waits, until `end`, for the box to be no longer reserved. It is asked by a datagram, which costs
/// it least, and at times that differ, so that of several who wait each has its chance.
void AwaitFree(Session& session, Clock::time_point end, Progress& progress) {
    constexpr milliseconds kAnswerTime{1000};
    constexpr milliseconds kLeastPause{2000};
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> more(0, 2000);
    while (Clock::now() < end && session.IsReserved()) {
        progress.Say("waiting for " + session.Address().host + ": " +
                     ConnectorCall::ReservedSince(session));
        std::this_thread::sleep_until(
            std::min(end, Clock::now() + kLeastPause + milliseconds(more(random))));
        const std::optional<Box> box = BoxFinder::Ask(session.Address().host, kAnswerTime);
        const bool isAsBefore = box && box->State() == "reserved" &&
                                session.Owner().starts_with(box->Attribute("Owner"));
        if (!isAsBefore && session.Ask(session.Address(), kAnswerTime).Failed()) {
            progress.Say("waiting for " + session.Address().host + ": it does not answer");
        }
    }
}

/// Tries again while it is worth to wait: somebody else may be faster once it is free.
Outcome CallReserve(const Options& options, Session& session, const std::string& host,
                    Answer& answer) {
    const std::string operation = "<reserveDevice>" + Element("deviceId", session.DeviceId()) +
                                  Element("owner", options.owner) + Element("hostLock", host) +
                                  "</reserveDevice>";
    const Clock::time_point end = Clock::now() + options.waitFree;
    Progress progress(options.json || options.waitFree.count() == 0);
    for (;;) {
        std::optional<ConnectorCode> code;
        Outcome outcome = Call(options, session, operation, answer, &code);
        const bool mayBecomeFree =
            code == ConnectorCode::kReserveRefused && !ConnectorCall::IsStopped(session);
        if (!mayBecomeFree || Clock::now() >= end) {
            outcome.text += outcome.isOpen ? "; it may be reserved all the same (zelctl info)" : "";
            return outcome;
        }
        AwaitFree(session, end, progress);
    }
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

Outcome Reserve(const Options& options) {
    std::string host;
    if (Outcome outcome = options.lock.empty() ? Outcome() : ReadHost(options.lock, host);
        outcome.Failed()) {
        return outcome;
    }
    Session session;
    if (Outcome outcome = session.Begin(options); outcome.Failed()) {
        return outcome;
    }
    Answer answer;
    if (Outcome outcome = CallReserve(options, session, host, answer); outcome.Failed()) {
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
    if (Outcome outcome = Call(options, session, operation, answer); outcome.isOpen) {
        return {outcome.status,
                session.Name() +
                    " does not tell the result in time; the command may still be at work there, or "
                    "done: see the log (zelctl log) before you run it again, and wait longer "
                    "(--timeout)"};
    } else if (outcome.Failed()) {
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
