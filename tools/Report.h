#pragma once

#include <libxml/tree.h>

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "Box.h"
#include "BoxChanges.h"
#include "Outcome.h"

/// What the tool says to programs: a line of JSON (RFC 8259) each, of ASCII alone.
/// docs/zelctl.schema.json describes every one. What a box does not say, or says in a form that is
/// none, is null; an object of all that it says, as it says it, stands beside it ("attributes").
namespace Report {

using Json = nlohmann::ordered_json;

/// What a box says when it is searched for.
Json Of(const Box& box);

/// What has happened to a box, now.
Json Of(const BoxChanges::Change& change);

/// What a box that is reached at `address` says when it is asked: the children of `values`, which
/// may be null.
Json OfInformation(const std::string& address, const xmlNode* values);

/// An address as boxes write it, the signed decimal of its 32 bits, first octet most significant,
/// as "192.168.68.42"; another text stays.
std::string Dotted(const std::string& number);

/// On standard output, at once.
void Print(const Json& report);

/// Says on standard error why something failed: a line for people, or one of JSON.
void PrintFailure(const Outcome& outcome, bool asJson);

}  // namespace Report
