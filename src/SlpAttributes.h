#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "SlpCodec.h"
#include "ZelConfig.h"

/// The attribute lists (RFC 2608, section 5) that the box answers with, one for each of its service
/// types. The values are the store's at the time of the call. What is reserved in a list is escaped
/// in them (SlpEscapes), but for the lists in brackets that the box itself writes. Every attribute
/// is there, whatever the values are: where a list would have more than kMaxList bytes, the longest
/// values are cut to one length that fits.
namespace SlpAttributes {

/// Characters of the owner that are told.
inline constexpr std::size_t kMaxOwner = 64;
/// Most bytes of a list: what an answer has room for.
inline constexpr std::size_t kMaxList = SlpCodec::kMaxReply - 22;
/// Bytes up to which an escaped value is never cut; the UUID and a VIN have no more.
inline constexpr std::size_t kAlwaysWhole = 36;

/// The values of a list between its labels.
struct Values {
    std::string text;  ///< the whole list
    /// Where each value stands in it.
    std::vector<std::pair<std::size_t, std::size_t>> spans;
};

/// The list of "service:zel.connector": the box's identity, versions, state, supply, vehicle and
/// addresses. Addresses are the signed decimal of their 32-bit value, first part most significant.
///
/// The values are read when the first list is made, and are those of all that are made of this
/// object: for questions that have all come before.
class ConnectorList {
public:
    explicit ConnectorList(const ZelConfig& config) : config_(config) {}

    /// `counter` tells one list from the next.
    std::string With(std::int32_t counter);

private:
    const ZelConfig& config_;
    int kl15_ = 0;
    int kl30_ = 0;
    Values values_;
};

/// The list of the older "service:hux-vci".
std::string LegacyList(const ZelConfig& config);

}  // namespace SlpAttributes
