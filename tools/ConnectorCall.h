#pragma once

#include <optional>
#include <string>

#include "ConnectorCodes.h"
#include "Options.h"
#include "Outcome.h"
#include "Session.h"

/// Calls of the connector service, and what its refusals mean to people.
namespace ConnectorCall {

/// Finds the box; that which is reserved from here need not be named.
Outcome BeginWithReserved(const Options& options, Session& session);

/// As BeginWithReserved(), for what cannot be done without the handle.
Outcome BeginWithHandle(const Options& options, Session& session, std::string& handle);

/// The handle that goes with a call: as given, or as kept; it may be empty.
std::string HandleOf(const Options& options, const Session& session);

/// Calls an operation; a code other than 0 is a refusal. `code` is that of an understood answer.
/// After a refusal the session is as the box is now.
Outcome Call(const Options& options, Session& session, const std::string& operation,
             SoapClient::Answer& answer, std::optional<ConnectorCode>* code = nullptr);

/// Whether its service is stopped; it is reserved by itself then.
bool IsStopped(const Session& session);

/// Who has reserved it, and since when that has been seen; this time is remembered.
std::string ReservedSince(const Session& session);

/// Tells a program that it is done, and `what` of it.
Outcome Done(const Options& options, const Session& session, const Report::Json& what);

}  // namespace ConnectorCall
