#include "SlpCodec.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace SlpCodec {
namespace {

// Header of every message (RFC 2608, section 8):
//
//    0                   1                   2                   3
//    0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |    Version    |  Function-ID  |            Length             |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   | Length, contd.|O|F|R|       reserved          |Next Ext Offset|
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |  Next Extension Offset, contd.|              XID              |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |      Language Tag Length      |        Language Tag...        |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
constexpr std::size_t kVersionOffset = 0;
constexpr std::size_t kFunctionOffset = 1;
constexpr std::size_t kLengthOffset = 2;
constexpr std::size_t kXidOffset = 10;
constexpr std::size_t kLanguageTagLengthOffset = 12;

constexpr std::uint8_t kVersion = 2;
constexpr char kDefaultScope[] = "default";

// A length in a request that no datagram can hold is read as this one.
constexpr std::size_t kCutLength = kMaxSize - 1;

constexpr unsigned kByteBits = 8;

/// Writes fields one behind the other; what does not fit into `capacity` bytes is dropped.
class Writer {
public:
    /// Begins with the header.
    Writer(Datagram& datagram, const SlpHead& head, std::size_t capacity)
        : datagram_(datagram), capacity_(capacity) {
        std::fill_n(datagram.begin(), kXidOffset, std::uint8_t{0});
        datagram[kVersionOffset] = kVersion;
        datagram[kFunctionOffset] = static_cast<std::uint8_t>(head.functionId);
        position_ = kXidOffset;
        Word(head.xid);
        Text(head.languageTag);
    }

    void Byte(std::uint8_t value) {
        if (position_ < capacity_) {
            datagram_[position_++] = value;
        }
    }
    void Word(std::size_t value) {
        Byte(static_cast<std::uint8_t>(value >> kByteBits));
        Byte(static_cast<std::uint8_t>(value));
    }
    /// Length and text.
    void Text(std::string_view text) {
        constexpr std::size_t kLengthSize = 2;
        text = text.substr(0, capacity_ - std::min(capacity_, position_ + kLengthSize));
        Word(text.size());
        if (!text.empty()) {
            std::memcpy(datagram_.data() + position_, text.data(), text.size());
            position_ += text.size();
        }
    }
    void OptionalText(const std::optional<std::string>& text) {
        Text(text ? std::string_view(*text) : std::string_view());
    }

    /// Completes the header. Returns the size of the message.
    std::size_t Finish() {
        const std::size_t size = position_;
        position_ = kLengthOffset;
        Byte(static_cast<std::uint8_t>(size >> 2 * kByteBits));
        Word(size);
        return size;
    }

private:
    Datagram& datagram_;
    std::size_t capacity_;
    std::size_t position_ = 0;
};

/// Reads fields one behind the other; behind the datagram there are only zeros.
class Reader {
public:
    Reader(Received datagram, std::size_t position) : datagram_(datagram), position_(position) {}

    std::uint8_t Byte() {
        const std::size_t position = position_++;
        return position < datagram_.size() ? datagram_[position] : std::uint8_t{0};
    }
    std::uint16_t Word() {
        const unsigned high = Byte();
        return static_cast<std::uint16_t>(high << kByteBits | Byte());
    }
    /// Up to `length` bytes, ended by a zero byte; what lies behind that one comes next.
    std::string Text(std::size_t length) {
        const Received rest = datagram_.subspan(std::min(position_, datagram_.size()));
        const Received text = rest.first(std::min(length, rest.size()));
        const auto size = std::find(text.begin(), text.end(), 0) - text.begin();
        position_ += static_cast<std::size_t>(size);
        return {text.begin(), text.begin() + size};
    }
    /// Length and text of a request.
    std::string RequestText() { return RequestText(Word()); }
    /// The same; nothing when the length is 0.
    std::optional<std::string> OptionalRequestText() {
        const std::size_t length = Word();
        return length == 0 ? std::nullopt : std::optional(RequestText(length));
    }
    bool IsAtEnd() const { return position_ >= kMaxSize; }

private:
    std::string RequestText(std::size_t length) {
        return Text(length > kMaxSize ? kCutLength : length);
    }

    Received datagram_;
    std::size_t position_;
};

void ReadIds(Received datagram, SlpHead& head) {
    head.functionId = FunctionId(datagram);
    head.xid = Reader(datagram, kXidOffset).Word();
}

// The requests, behind the header (RFC 2608, sections 8.1, 10.3 and 10.1):
//
//    SrvRqst                         AttrRqst                        SrvTypeRqst
//   +-------------+---------------+ +-------------+---------------+ +-------------+---------------+
//   | length (16) | <PRList>      | | length (16) | <PRList>      | | length (16) | <PRList>      |
//   +-------------+---------------+ +-------------+---------------+ +-------------+---------------+
//   | length (16) | service-type  | | length (16) | URL           | | length (16) | naming        |
//   |             |               | |             |               | |             | authority     |
//   +-------------+---------------+ +-------------+---------------+ +-------------+---------------+
//   | length (16) | <scope-list>  | | length (16) | <scope-list>  | | length (16) | <scope-list>  |
//   +-------------+---------------+ +-------------+---------------+ +-------------+---------------+
//   | length (16) | predicate     | | length (16) | <tag-list>    |
//   +-------------+---------------+ +-------------+---------------+
//   | length (16) | <SLP SPI>     | | length (16) | <SLP SPI>     |
//   +-------------+---------------+ +-------------+---------------+
//
// What is sent differs: a SrvTypeRqst has no naming authority, and every request ends with four
// zero bytes, be they lengths or not.
SlpRequest DecodeRequest(Received datagram) {
    SlpRequest request;
    ReadIds(datagram, request);
    Reader reader(datagram, kLanguageTagLengthOffset);
    request.languageTag = reader.RequestText();
    request.prList = reader.OptionalRequestText();
    std::optional<std::string> subject = reader.OptionalRequestText();
    request.scopeList = reader.RequestText();
    switch (request.functionId) {
        case SlpFunction::kSrvRqst:
            request.serviceType = std::move(subject);
            break;
        case SlpFunction::kAttrRqst:
            request.url = std::move(subject);
            request.tagList = reader.OptionalRequestText();
            break;
        default:
            request.namingAuthority = std::move(subject);
            break;
    }
    return request;
}

// The replies, behind the header (RFC 2608, sections 8.2, 10.4 and 10.2):
//
//    SrvRply                         AttrRply                        SrvTypeRply
//   +-------------+---------------+ +-------------+---------------+ +-------------+---------------+
//   | error (16)  | count (16)    | | error (16)  | length (16)   | | error (16)  | length (16)   |
//   +-------------+---------------+ +-------------+---------------+ +-------------+---------------+
//   | <URL entry> ...             | | <attr-list>                 | | <srvtype-list>              |
//   +-----------------------------+ +------------+----------------+ +-----------------------------+
//                                   | auths (8)  | auth blocks... |
//    URL entry (section 4.3)        +------------+----------------+
//   +--------------+---------------+-------------+--------+-----------+----------------+
//   | reserved (8) | lifetime (16) | length (16) | <URL>  | auths (8) | auth blocks... |
//   +--------------+---------------+-------------+--------+-----------+----------------+
//
// What is sent has one more zero byte at the end of every reply.
SlpReply DecodeReply(Received datagram) {
    SlpReply reply;
    ReadIds(datagram, reply);
    Reader reader(datagram, kLanguageTagLengthOffset);
    reply.languageTag = reader.Text(reader.Word());
    reply.errorCode = reader.Word();
    const std::size_t countOrLength = reader.Word();
    switch (reply.functionId) {
        case SlpFunction::kSrvRply:
            // A count may promise more than a datagram holds.
            while (reply.urlEntries.size() < countOrLength && !reader.IsAtEnd()) {
                SlpUrlEntry& entry = reply.urlEntries.emplace_back();
                reader.Byte();
                entry.lifetime = reader.Word();
                entry.url = reader.Text(reader.Word());
            }
            break;
        case SlpFunction::kAttrRply:
            reply.attrList = reader.Text(countOrLength);
            break;
        default:
            reply.serviceTypeList = reader.Text(countOrLength);
            break;
    }
    return reply;
}

}  // namespace

std::size_t Encode(SlpRequest& request, Datagram& datagram) {
    const bool isService = request.functionId == SlpFunction::kSrvRqst;
    const bool isAttribute = request.functionId == SlpFunction::kAttrRqst;
    const bool isType = request.functionId == SlpFunction::kSrvTypeRqst;
    if ((!isService && !isAttribute && !isType) || (isService && !request.serviceType)) {
        return 0;
    }
    Writer writer(datagram, request, kMaxSize);
    writer.OptionalText(request.prList);
    if (!isType) {
        writer.OptionalText(isService ? request.serviceType : request.url);
    }
    if (!request.scopeList) {
        request.scopeList = kDefaultScope;
    }
    writer.OptionalText(request.scopeList);
    if (isAttribute) {
        writer.OptionalText(request.tagList);
    }
    writer.Word(0);
    writer.Word(0);
    return writer.Finish();
}

std::size_t Encode(const SlpReply& reply, Datagram& datagram) {
    const bool isService = reply.functionId == SlpFunction::kSrvRply;
    const bool isAttribute = reply.functionId == SlpFunction::kAttrRply;
    if (!isService && !isAttribute && reply.functionId != SlpFunction::kSrvTypeRply) {
        return 0;
    }
    Writer writer(datagram, reply, kMaxReply);
    writer.Word(reply.errorCode);
    if (isService) {
        writer.Word(reply.urlEntries.size());
        for (const SlpUrlEntry& entry : reply.urlEntries) {
            writer.Byte(0);
            writer.Word(entry.lifetime);
            writer.Text(entry.url);
            writer.Byte(0);
        }
    } else if (isAttribute) {
        writer.OptionalText(reply.attrList);
        writer.Byte(0);
    } else {
        writer.OptionalText(reply.serviceTypeList);
    }
    writer.Byte(0);
    return writer.Finish();
}

std::uint32_t DeclaredLength(Received datagram) {
    Reader reader(datagram, kLengthOffset);
    const std::uint32_t high = reader.Byte();
    return high << 2 * kByteBits | reader.Word();
}

std::uint32_t FunctionId(Received datagram) {
    return Reader(datagram, kFunctionOffset).Byte();
}

std::optional<SlpMessage> Decode(Received datagram) {
    switch (FunctionId(datagram)) {
        case SlpFunction::kSrvRqst:
        case SlpFunction::kAttrRqst:
        case SlpFunction::kSrvTypeRqst:
            return DecodeRequest(datagram);
        case SlpFunction::kSrvRply:
        case SlpFunction::kAttrRply:
        case SlpFunction::kSrvTypeRply:
            return DecodeReply(datagram);
        default:
            return std::nullopt;
    }
}

}  // namespace SlpCodec
