#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "HttpMessageReader.h"
#include "SocketGuard.h"

namespace {

using namespace std::chrono_literals;

/// The other end of a connection.
class Peer {
public:
    Peer() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        near_.Reset(ends[0]);
        far_.Reset(ends[1]);
    }
    void Send(const std::string& data) {
        // The reader may have given up already.
        static_cast<void>(send(far_.Get(), data.data(), data.size(), MSG_NOSIGNAL));
    }
    void Close() { far_.Reset(); }
    int Descriptor() const { return near_.Get(); }

private:
    SocketGuard near_;
    SocketGuard far_;
};

constexpr auto kShort = 100ms;

TEST(HttpMessageReaderTest, HeadLinesAreTakenByPrefix) {
    const std::string head =
        "\r\n\n"
        "POST /path?query more HTTP/1.1\r\n"
        "content-length: 7\r\n"
        "Content-Length:  12 bytes\r\n"
        "Content-Type: a/b\rc\r\n"
        "Host: box\n"
        "User-Agent: me\r\n"
        "Accept-Encoding: none\r\n"
        "Transfer-Encoding: chunked \r\n"
        "Connection: keep-alive\r\n"
        "\r\n";
    const auto check = [](const HttpRequest& request) {
        EXPECT_EQ(request.url, "/path?query");
        EXPECT_EQ(request.method, HttpRequest::Method::kPost);
        EXPECT_EQ(request.contentLength, 12);
        EXPECT_EQ(request.contentType, "a/bc");
        EXPECT_EQ(request.host, "box");
        EXPECT_EQ(request.userAgent, "me");
        EXPECT_EQ(request.acceptEncoding, "none");
        EXPECT_FALSE(request.chunked);
        EXPECT_FALSE(request.keepAlive);
    };
    Peer whole;
    whole.Send(head);
    HttpRequest request;
    HttpMessageReader reader(whole.Descriptor());
    EXPECT_TRUE(reader.ReadHead(request));
    check(request);

    Peer drop;
    std::thread sender([&] {
        for (const char c : head) {
            drop.Send(std::string(1, c));
            std::this_thread::yield();
        }
    });
    HttpRequest dropped;
    HttpMessageReader dropReader(drop.Descriptor());
    EXPECT_TRUE(dropReader.ReadHead(dropped));
    sender.join();
    check(dropped);
}

TEST(HttpMessageReaderTest, MessagesThatDoNotEndAreGivenUp) {
    for (const std::string start :
         {"", "GET /x", "GET /x\r\n", "\n\n\n", "GET /x\r\nContent-Length: 10\r\n\r\n123",
          "GET /x\r\nTransfer-Encoding: chunked\r\n\r\n",
          "GET /x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n12",
          "GET /x\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n12"}) {
        Peer silent;
        silent.Send(start);
        HttpRequest request;
        HttpMessageReader reader(silent.Descriptor(), kShort);
        EXPECT_EQ(reader.ReadHead(request), start.find("\r\n\r\n") != std::string::npos) << start;
        EXPECT_FALSE(reader.ReadBody(request)) << "silent after " << start;
    }
    for (const std::string& piece : {std::string(1000, 'x'), std::string(1000, '\n'),
                                     "X: " + std::string(500, 'y') + "\r\n"}) {
        Peer flood;
        std::thread sender([&] {
            for (std::size_t sent = 0; sent <= HttpMessageReader::kMaxHead; sent += piece.size()) {
                flood.Send(piece);
            }
        });
        HttpRequest request;
        HttpMessageReader reader(flood.Descriptor());
        EXPECT_FALSE(reader.ReadHead(request));
        sender.join();
    }
}

TEST(HttpMessageReaderTest, SizedBodies) {
    constexpr std::size_t kMax = HttpMessageReader::kMaxBody;
    const struct {
        std::string length;
        std::size_t sent;
        bool result;
        std::optional<std::size_t> size;
    } cases[] = {
        {"5", 5, true, 5},
        {"5", 3, false, 3},
        {std::to_string(kMax), 500, false, 500},
        {"0", 0, false, std::nullopt},
        {"-1", 3, false, std::nullopt},
        {"99999999999999999999", 3, false, std::nullopt},
        {std::to_string(kMax), kMax, true, kMax},
        {std::to_string(kMax + 1), 10, false, std::nullopt},
    };
    for (const auto& c : cases) {
        Peer peer;
        std::thread sender([&] {
            peer.Send("POST / HTTP/1.0\r\nContent-Length: " + c.length + "\r\n\r\n");
            peer.Send(std::string(c.sent, 'b'));
            peer.Close();
        });
        HttpRequest request;
        HttpMessageReader reader(peer.Descriptor());
        ASSERT_TRUE(reader.ReadHead(request));
        EXPECT_EQ(reader.ReadBody(request), c.result) << c.length;
        sender.join();
        EXPECT_EQ(request.body.has_value(), c.size.has_value()) << c.length;
        EXPECT_EQ(request.body.value_or("").size(), c.size.value_or(0)) << c.length;
        EXPECT_LE(request.body.value_or("").capacity(), 2 * c.sent + 100) << "what was announced";
    }
}

TEST(HttpMessageReaderTest, ABodyInPartsTakesBytesOfTheNextRequest) {
    Peer peer;
    peer.Send("POST / HTTP/1.0\r\nContent-Length: 10\r\n\r\n12345");
    HttpRequest request;
    HttpMessageReader reader(peer.Descriptor(), kShort);
    ASSERT_TRUE(reader.ReadHead(request));
    peer.Send("67890GET /next HTTP/1.0\r\n\r\n");
    EXPECT_FALSE(reader.ReadBody(request)) << "more than announced is not complete";
    EXPECT_EQ(request.body, "1234567890GET /");
    HttpRequest next;
    EXPECT_TRUE(reader.ReadHead(next)) << "what is left of the line is no request line";
    EXPECT_FALSE(next.url.has_value());

    Peer whole;
    whole.Send("POST / HTTP/1.0\r\nContent-Length: 5\r\n\r\n12345GET /next HTTP/1.0\r\n\r\n");
    HttpMessageReader wholeReader(whole.Descriptor());
    HttpRequest first;
    HttpRequest second;
    EXPECT_TRUE(wholeReader.ReadHead(first) && wholeReader.ReadBody(first));
    EXPECT_EQ(first.body, "12345");
    EXPECT_TRUE(wholeReader.ReadHead(second));
    EXPECT_EQ(second.url, "/next");
}

TEST(HttpMessageReaderTest, ChunkedBodies) {
    const std::string full(HttpMessageReader::kMaxChunk, 'c');
    std::string many;
    for (int i = 0; i < 17; ++i) {
        many += "10000\r\n" + full + "\r\n";
    }
    const struct {
        std::string name;
        std::string chunks;
        std::optional<std::string> body;
    } cases[] = {
        {"chunks", "3\r\nabc\r\nA \r\n0123456789\r\n0\r\n", "abc0123456789"},
        {"padded size", " 3\x10\x13\r\nabc\r\n0\r\n", "abc"},
        {"empty line is the end", "3\r\nabc\r\n\r\n", "abc"},
        {"nothing", "0\r\n", ""},
        {"largest chunk", "10000\r\n" + full + "\r\n0\r\n", full},
        {"chunk too large", "10001\r\n" + full + "c\r\n0\r\n", std::nullopt},
        {"number too large", "FFFFFFFFFFFFFFFFFFFF\r\n", std::nullopt},
        {"extension", "3;x=y\r\nabc\r\n0\r\n", std::nullopt},
        {"sign", "-3\r\nabc\r\n0\r\n", std::nullopt},
        {"no number", "xyz\r\n", std::nullopt},
        {"1 MiB and one chunk", many + "0\r\n", std::string(17 * full.size(), 'c')},
        {"more than that", many + "1\r\nx\r\n0\r\n", std::nullopt},
        {"cut in a chunk", "5\r\nab", std::nullopt},
        {"cut behind a chunk", "2\r\nab", std::nullopt},
        {"no end", "2\r\nab\r\n", std::nullopt},
    };
    for (const auto& c : cases) {
        for (const std::size_t pieceSize : {std::size_t{1} << 20, std::size_t{1}, std::size_t{7}}) {
            const std::string data =
                "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n" + c.chunks;
            if (data.size() / pieceSize > 100000) {
                continue;
            }
            Peer peer;
            std::thread sender([&] {
                for (std::size_t i = 0; i < data.size(); i += pieceSize) {
                    peer.Send(data.substr(i, pieceSize));
                }
                peer.Close();
            });
            HttpRequest request;
            HttpMessageReader reader(peer.Descriptor());
            EXPECT_TRUE(reader.ReadHead(request));
            EXPECT_EQ(reader.ReadBody(request), c.body.has_value()) << c.name << ' ' << pieceSize;
            EXPECT_EQ(request.body, c.body) << c.name << ' ' << pieceSize;
            shutdown(peer.Descriptor(), SHUT_RDWR);
            sender.join();
        }
    }
}

TEST(HttpMessageReaderTest, LargeBodiesAreCountedAsLongAsTheyAreHeld) {
    const auto read = [](HttpRequest& request, std::chrono::milliseconds patience = 60s) {
        Peer peer;
        std::thread sender([&peer] {
            peer.Send("POST / HTTP/1.0\r\nContent-Length: 65537\r\n\r\n" + std::string(65537, 'b'));
        });
        HttpMessageReader reader(peer.Descriptor(), patience);
        const bool complete = reader.ReadHead(request) && reader.ReadBody(request);
        shutdown(peer.Descriptor(), SHUT_RDWR);
        sender.join();
        return complete;
    };
    std::array<HttpRequest, HttpMessageReader::kMaxLargeBodies> held;
    for (HttpRequest& request : held) {
        ASSERT_TRUE(read(request));
    }
    HttpRequest further;
    EXPECT_FALSE(read(further, 1000ms));
    EXPECT_LE(further.body.value_or("").size(), HttpMessageReader::kSmallBody);
    held[7] = {};
    further = {};
    EXPECT_TRUE(read(further));
}

}  // namespace
