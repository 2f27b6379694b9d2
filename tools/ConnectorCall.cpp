#include "ConnectorCall.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>

#include "HandleStore.h"
#include "SafeText.h"
#include "Sightings.h"
#include "SlpEscapes.h"

namespace ConnectorCall {
namespace {

using Report::Json;
using SoapClient::Answer;
using std::chrono::milliseconds;

/// Who reserves a box whose service is stopped.
constexpr char kStoppedService[] = "VCI-Agent";
/// Characters of an owner's name that are shown, and that searches are told.
constexpr std::size_t kMaxOwner = 64;

std::string TimeOf(std::time_t seconds) {
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%F %H:%M", &local);
    return text.data();
}

std::string ReservedBy(const Session& session) {
    const std::string owner = SafeText::Shorten(SafeText::Line(session.Owner()), kMaxOwner);
    return !session.IsReserved() ? "it is not reserved (zelctl reserve)"
           : IsStopped(session)  ? "its service is stopped (zelctl start)"
           : owner.empty()       ? "reserved already by somebody without a name"
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
            return IsStopped(session) ? reserved
                   : session.IsReserved()
                       ? ReservedSince(session) +
                             (options.waitFree.count() > 0 ? "; wait longer" : "; wait for it") +
                             " (--wait-free), or see which can be had (zelctl find --state free)"
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

}  // namespace

Outcome BeginWithReserved(const Options& options, Session& session) {
    return session.Begin(options, [&options](const Box& box) {
        return options.handle.empty() && box.State() == "reserved" &&
               !HandleStore::Get(box.DeviceId()).empty();
    });
}

std::string HandleOf(const Options& options, const Session& session) {
    return options.handle.empty() ? HandleStore::Get(session.DeviceId()) : options.handle;
}

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

bool IsStopped(const Session& session) {
    return session.IsReserved() && session.Owner() == kStoppedService;
}

std::string ReservedSince(const Session& session) {
    const std::string owner = session.Owner();
    const auto since = Sightings::NoteReserved(
        {session.Address().host,
         {{"Serial", session.DeviceId()},
          {"State", session.Value("state")},
          {"Owner", std::string(SlpEscapes::FirstCharacters(owner, kMaxOwner))}}});
    constexpr std::time_t kMoment = 60;
    return ReservedBy(session) +
           (since && std::time(nullptr) - *since >= kMoment
                ? ", seen so since " + TimeOf(static_cast<std::time_t>(*since))
                : ", first seen so just now");
}

Outcome Call(const Options& options, Session& session, const std::string& operation, Answer& answer,
             std::optional<ConnectorCode>* code) {
    if (Outcome outcome = SoapClient::Call(session.Address(), SoapClient::kConnector, operation,
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
    // Who has reserved it may have come since.
    static_cast<void>(session.Ask(
        session.Address(), std::min<milliseconds>(options.timeout, Session::kInformationTimeout)));
    return {ExitStatus::kRefused, name + " refuses, code " + std::to_string(*number) + ": " +
                                      Meaning(error, options, session)};
}

Outcome Done(const Options& options, const Session& session, const Json& what) {
    if (options.json) {
        Json report = session.Heading();
        report.update(what);
        Report::Print(report);
    }
    return {};
}

}  // namespace ConnectorCall
