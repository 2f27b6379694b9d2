#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "SlpMessage.h"

/// Turns SLP messages (RFC 2608, version 2) into datagrams and back. Everything on the wire is
/// big-endian.
namespace SlpCodec {

/// Most bytes that a datagram may have, in either direction.
inline constexpr std::size_t kMaxSize = 4096;

/// Most bytes of a reply that is sent, so that nobody needs fragments for it, and to limit what a
/// question with a forged sender makes of the box.
inline constexpr std::size_t kMaxReply = 1400;

using Datagram = std::array<std::uint8_t, kMaxSize>;
/// What was received of one.
using Received = std::span<const std::uint8_t>;

/// Writes the message; what is behind it stays. Returns its size in bytes, or 0 when there is
/// nothing to send: a function id that the record's type has no message for, or a SrvRqst without
/// service type. A text that does not fit is cut at the end of the datagram (of a reply: at
/// kMaxReply) and its length field says so; what should follow is then missing. A request without
/// scope list gets "default".
[[nodiscard]] std::size_t Encode(SlpRequest& request, Datagram& datagram);
[[nodiscard]] std::size_t Encode(const SlpReply& reply, Datagram& datagram);

/// The header's length field: bytes of the whole message, as its sender counted them.
std::uint32_t DeclaredLength(Received datagram);

/// The header's function id, 0 to 255.
std::uint32_t FunctionId(Received datagram);

/// Reads a message from a datagram, behind which there are zeros up to kMaxSize; the peer stays
/// open. Nothing when the function is none of SlpFunction.
///
/// Lenient as the box's peers know it: no field is checked, a field that ends behind the datagram
/// is what is left of it, and the next field begins where the text of the one before ends, so that
/// a text with a zero byte shifts all that follows. Predicates, SPIs, extensions and authentication
/// blocks are not read, also not those between URL entries: the second entry begins one byte early.
std::optional<SlpMessage> Decode(Received datagram);

}  // namespace SlpCodec
