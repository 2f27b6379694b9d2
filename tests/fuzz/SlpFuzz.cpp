// Any bytes as a received datagram: decoded, and encoded again.

#include <algorithm>
#include <cstdlib>

#include "SlpCodec.h"
#include "slpBase.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > SlpCodec::kMaxSize) {
        return 0;
    }
    SlpCodec::Datagram datagram{};
    std::copy_n(data, size, datagram.begin());
    std::optional<SlpMessage> message = SlpCodec::Decode(datagram);
    if (!message) {
        return 0;
    }
    SlpCodec::Datagram again{};
    const std::size_t length =
        std::visit([&again](auto& record) { return SlpCodec::Encode(record, again); }, *message);
    if (length > again.size() || (length > 0 && SlpCodec::DeclaredLength(again) != length)) {
        std::abort();
    }
    if (auto* const reply = std::get_if<SlpReply>(&*message); reply && reply->attrList) {
        std::string value;
        static_cast<void>(SlpBase::FindAttribute(*reply->attrList, "ClusterIP", value));
    }
    return 0;
}
