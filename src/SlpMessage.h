#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

/// Function ids of the SLP messages that the box speaks (RFC 2608, section 8).
namespace SlpFunction {
inline constexpr std::uint32_t kSrvRqst = 1;
inline constexpr std::uint32_t kSrvRply = 2;
inline constexpr std::uint32_t kAttrRqst = 6;
inline constexpr std::uint32_t kAttrRply = 7;
inline constexpr std::uint32_t kSrvTypeRqst = 9;
inline constexpr std::uint32_t kSrvTypeRply = 10;
}  // namespace SlpFunction

/// What every message has. Numbers are in host order; texts hold no zero byte.
struct SlpHead {
    std::uint32_t localPort = 0;  ///< for the sender's information, not sent
    std::uint32_t peerPort = 0;   ///< UDP port it came from or goes to (low 16 bits)
    std::string peerAddress;      ///< dotted address it came from or goes to
    std::uint32_t functionId = 0;
    std::uint16_t xid = 0;
    std::string languageTag;
};

/// SrvRqst, AttrRqst or SrvTypeRqst (RFC 2608, sections 8.1, 10.3, 10.1).
struct SlpRequest : SlpHead {
    std::optional<std::string> prList;           ///< addresses that have answered already
    std::optional<std::string> scopeList;        ///< absent becomes "default" when sent
    std::optional<std::string> serviceType;      ///< SrvRqst
    std::optional<std::string> url;              ///< AttrRqst
    std::optional<std::string> tagList;          ///< AttrRqst
    std::optional<std::string> namingAuthority;  ///< SrvTypeRqst, received only
};

/// URL entry of a SrvRply (RFC 2608, section 4.3).
struct SlpUrlEntry {
    std::uint16_t lifetime = 0;  ///< in seconds
    std::string url;
};

/// SrvRply, AttrRply or SrvTypeRply (RFC 2608, sections 8.2, 10.4, 10.2).
struct SlpReply : SlpHead {
    std::uint16_t errorCode = 0;                 ///< 0 is success (RFC 2608, section 7)
    std::vector<SlpUrlEntry> urlEntries;         ///< SrvRply
    std::optional<std::string> attrList;         ///< AttrRply
    std::optional<std::string> serviceTypeList;  ///< SrvTypeRply
};

using SlpMessage = std::variant<SlpRequest, SlpReply>;
