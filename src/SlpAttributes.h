#pragma once

#include <cstdint>
#include <string>

#include "ZelConfig.h"

/// The attribute lists (RFC 2608, section 5) that the box answers with, one for each of its service
/// types. The values are the store's at the time of the call, put in as they are: what is reserved
/// in a list is not escaped.
namespace SlpAttributes {

/// The list of "service:zel.connector": the box's identity, versions, state, supply, vehicle and
/// addresses. Addresses are the signed decimal of their 32-bit value, first part most significant.
/// `counter` tells one list from the next.
std::string ConnectorList(const ZelConfig& config, std::int32_t counter);

/// The list of the older "service:hux-vci".
std::string LegacyList(const ZelConfig& config);

}  // namespace SlpAttributes
