// The least that an answer to a question of SLP costs: a datagram of the same size with the
// question's XID, sent to where it came from.
//
// udp-echo PORT SIZE
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "BenchSupport.h"

namespace {

// RFC 2608, section 8: version, function, length (3 bytes), flags (2), next extension (3), XID (2),
// length of the language tag (2), and, in a reply, an error code (2) behind the tag.
constexpr std::size_t kFunction = 1;
constexpr std::size_t kXid = 10;
constexpr std::size_t kHead = 14;
constexpr std::size_t kErrorSize = 2;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        BenchSupport::GiveUp("usage: udp-echo PORT SIZE");
    }
    const int socket = BenchSupport::OpenOnPort(
        SOCK_DGRAM, BenchSupport::Argument<std::uint16_t>(argv[1], "port"));
    std::vector<unsigned char> answer(
        std::max(kHead + kErrorSize, BenchSupport::Argument<std::size_t>(argv[2], "size")));
    std::array<unsigned char, 2048> question{};
    for (;;) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        const ssize_t count =
            recvfrom(socket, question.data(), question.size(), 0, Ipv4::Generic(peer), &size);
        if (count < static_cast<ssize_t>(kHead)) {
            continue;
        }
        std::copy(question.begin(), question.begin() + kXid + 2, answer.begin());
        ++answer[kFunction];  // a reply's number is that of its request and one
        static_cast<void>(
            sendto(socket, answer.data(), answer.size(), 0, Ipv4::Generic(peer), size));
    }
}
