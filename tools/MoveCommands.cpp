#include "MoveCommands.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <utility>

#include "AnyCase.h"
#include "BoxFollower.h"
#include "ConnectorCall.h"
#include "Ipv4.h"
#include "Progress.h"

namespace MoveCommands {
namespace {

using Clock = BoxFollower::Clock;
using SoapClient::Answer;
using SoapClient::Element;
using std::chrono::milliseconds;

/// A box answers within half a minute, or its answer is lost.
constexpr milliseconds kAnswerTime{40000};

struct AddressMode {
    const char* name;
    const char* number;  ///< what the service calls it
};
constexpr AddressMode kModes[] = {{"configured", "1"}, {"linklocal", "2"}, {"dhcp", "3"}};

/// Whether a box may have that address in that mode.
bool IsOfMode(const std::string& host, std::string_view mode) {
    return mode == "configured" || Ipv4::IsLinkLocal(host) == (mode == "linklocal");
}

/// For a call whose answer need not be waited for any longer than boxes take.
Options ForCall(const Options& options) {
    Options forCall = options;
    forCall.timeout = std::min(options.timeout, kAnswerTime);
    return forCall;
}

/// Tells where the box is now.
Outcome Done(const Options& options, const Session& session, const std::string& host,
             std::pair<const char*, Report::Json> what) {
    if (!options.json && !options.noWait) {
        std::puts(host.c_str());
    }
    return ConnectorCall::Done(options, session,
                               {{"address", host},
                                {"former_address", session.Address().host},
                                {what.first, std::move(what.second)}});
}

Outcome NotSeen(const Session& session, const BoxFollower& follower, const std::string& why) {
    return {ExitStatus::kUnreachable,
            session.Name() + " " + why + "; " + follower.LastSeen() +
                "; wait longer (--timeout), look for it later (zelctl find --serial " +
                session.DeviceId() +
                "), and see that this computer has an address on its network (ip address)"};
}

}  // namespace

Outcome Mode(const Options& options) {
    const auto* const mode =
        std::find_if(std::begin(kModes), std::end(kModes), [&options](const AddressMode& each) {
            return AnyCase::Equal(each.name, options.arguments.front());
        });
    if (mode == std::end(kModes)) {
        return {ExitStatus::kUsage, "'" + options.arguments.front() +
                                        "' is no mode; give dhcp, linklocal or configured"};
    }
    const Clock::time_point end = Clock::now() + options.timeout;
    Session session;
    if (Outcome outcome = ConnectorCall::BeginWithReserved(options, session); outcome.Failed()) {
        return outcome;
    }
    Progress progress(options.json || options.noWait);
    progress.Say(session.Name() + ": switching to " + mode->name);
    std::optional<BoxFollower> follower;
    if (!options.noWait) {
        follower.emplace(session, options.wait);
    }
    Answer answer;
    std::optional<ConnectorCode> code;
    // A free box needs no handle.
    Outcome outcome = ConnectorCall::Call(
        ForCall(options), session,
        "<switchMode>" + Element("deviceId", session.DeviceId()) + Element("mode", mode->number) +
            Element("handle", ConnectorCall::HandleOf(options, session)) + "</switchMode>",
        answer, &code);
    const bool isUnsure = outcome.isOpen || code == ConnectorCode::kNotConfirmed;
    if (!follower || (outcome.Failed() && !isUnsure)) {
        return outcome.Failed()
                   ? outcome
                   : Done(options, session, session.Address().host, {"mode", mode->name});
    }
    // What the box has not confirmed must be seen.
    const auto isWanted = [&](const std::string& host) {
        return !isUnsure ||
               (IsOfMode(host, mode->name) && (!outcome.isOpen || host != session.Address().host));
    };
    const std::optional<BoxAddress> address = follower->AwaitAddress(end, isWanted, progress);
    if (address) {
        return Done(options, session, address->host, {"mode", mode->name});
    }
    return NotSeen(session, *follower,
                   outcome.isOpen ? "gives no answer to the switch, and no new address was seen"
                   : isUnsure     ? "tells that no address came in time, and none was seen"
                                  : "is switched, but was not seen at its address");
}

Outcome Restart(const Options& options) {
    const Clock::time_point end = Clock::now() + options.timeout;
    Session session;
    if (Outcome outcome = session.Begin(options); outcome.Failed()) {
        return outcome;
    }
    Progress progress(options.json || options.noWait);
    progress.Say(session.Name() + ": restarting");
    std::optional<BoxFollower> follower;
    if (!options.noWait) {
        follower.emplace(session, options.wait);
    }
    Answer answer;
    Outcome outcome = SoapClient::Call(
        session.Address(), SoapClient::kAgent, "<restartDevice/>",
        std::min(options.timeout, milliseconds(Session::kInformationTimeout)), answer);
    if (!follower || (outcome.Failed() && !outcome.isOpen)) {
        return outcome.Failed()
                   ? outcome
                   : Done(options, session, session.Address().host, {"restarted", false});
    }
    if (!follower->AwaitRestart(end, progress)) {
        return follower->IsAway()
                   ? NotSeen(session, *follower, "is away, and was not back in time")
                   : Outcome{
                         ExitStatus::kUnreachable,
                         session.Name() +
                             " was told to restart, but goes on answering as before; " +
                             follower->LastSeen() +
                             "; wait longer (--timeout), or see what its log says (zelctl log)"};
    }
    const std::optional<BoxAddress> address = follower->AwaitAddress(
        end, [](const std::string& /*host*/) { return true; }, progress);
    return address ? Done(options, session, address->host, {"restarted", true})
                   : NotSeen(session, *follower, "has restarted, but cannot be used yet");
}

}  // namespace MoveCommands
