#include "HttpMessageReader.h"
#include "SocketGuard.h"
#include "Support.h"

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
    /// Sends that much at a time; the reader may have given up already.
    void Send(const std::string& data, std::size_t pieceSize = std::string::npos) {
        for (std::size_t i = 0; i < data.size(); i += std::min(pieceSize, data.size())) {
            const std::string piece = data.substr(i, pieceSize);
            send(far_.Get(), piece.data(), piece.size(), MSG_NOSIGNAL);
        }
    }
    void Close() { far_.Reset(); }
    int Descriptor() const { return near_.Get(); }

private:
    SocketGuard near_;
    SocketGuard far_;
};

/// Reads the message that `send` sends: before, where the wait is short, else meanwhile. 0 when its
/// head is none, 1 when its body is none, 2 when it is complete.
int Read(HttpRequest& request, const std::function<void(Peer&)>& send,
         std::chrono::milliseconds timeout = 60s) {
    Peer peer;
    std::jthread sender([&] { send(peer); });
    if (timeout < 60s) {
        sender.join();
    }
    HttpMessageReader reader(peer.Descriptor(), timeout);
    const int read = !reader.ReadHead(request) ? 0 : reader.ReadBody(request) ? 2 : 1;
    shutdown(peer.Descriptor(), SHUT_RDWR);
    return read;
}

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
    for (const std::size_t pieceSize : {head.size(), std::size_t{1}}) {
        HttpRequest request;
        EXPECT_EQ(Read(
                      request, [&](Peer& peer) { peer.Send(head, pieceSize); }, 1000ms),
                  1);
        EXPECT_EQ(request.url, "/path?query");
        EXPECT_EQ(request.method, HttpRequest::Method::kPost);
        EXPECT_EQ(request.contentLength, 12);
        EXPECT_EQ(request.contentType, "a/bc");
        EXPECT_EQ(request.host, "box");
        EXPECT_EQ(request.userAgent, "me");
        EXPECT_EQ(request.acceptEncoding, "none");
        EXPECT_FALSE(request.chunked || request.keepAlive);
    }
}

TEST(HttpMessageReaderTest, MessagesThatDoNotEndAreGivenUp) {
    const std::string chunked = "GET /x\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const auto& [start, read] :
         Table<std::string, int>{{"", 0},
                                 {"GET /x", 0},
                                 {"GET /x\r\n", 0},
                                 {"\n\n\n", 0},
                                 {"GET /x\r\nContent-Length: 10\r\n\r\n123", 1},
                                 {chunked, 1},
                                 {chunked + "5\r\n12", 1},
                                 {chunked + "2\r\n12", 1}}) {
        HttpRequest request;
        EXPECT_EQ(Read(
                      request, [text = start](Peer& peer) { peer.Send(text); }, 100ms),
                  read)
            << "silent after " << start;
    }
    for (const std::string& piece : {std::string(1000, 'x'), std::string(1000, '\n'),
                                     "X: " + std::string(500, 'y') + "\r\n"}) {
        HttpRequest request;
        EXPECT_EQ(Read(request,
                       [&piece](Peer& peer) {
                           peer.Send(Times(HttpMessageReader::kMaxHead / piece.size() + 1, piece),
                                     piece.size());
                       }),
                  0);
    }
}

TEST(HttpMessageReaderTest, Bodies) {
    constexpr std::size_t kMax = HttpMessageReader::kMaxBody;
    const auto sized = [](const std::string& length, const std::string& body) {
        return "Content-Length: " + length + "\r\n\r\n" + body;
    };
    const auto chunked = [](const std::string& chunks) {
        return "Transfer-Encoding: chunked\r\n\r\n" + chunks;
    };
    const std::string full(HttpMessageReader::kMaxChunk, 'c');
    const std::string many = Times(17, "10000\r\n" + full + "\r\n");
    const std::string large(kMax, 'b');
    for (const auto& [message, isComplete, body] :
         Table<std::string, bool, std::optional<std::string>>{
             {sized("5", "bbbbb"), true, "bbbbb"},
             {sized("5", "bbb"), false, "bbb"},
             {sized(std::to_string(kMax), "bbb"), false, "bbb"},
             {sized("0", ""), false, {}},
             {sized("-1", "bbb"), false, {}},
             {sized("99999999999999999999", "bbb"), false, {}},
             {sized(std::to_string(kMax), large), true, large},
             {sized(std::to_string(kMax + 1), "bbb"), false, {}},
             {chunked("3\r\nabc\r\nA \r\n0123456789\r\n0\r\n"), true, "abc0123456789"},
             {chunked(" 3\x10\x13\r\nabc\r\n0\r\n"), true, "abc"},
             {chunked("3\r\nabc\r\n\r\n"), true, "abc"},  // an empty line is the end
             {chunked("0\r\n"), true, ""},
             {chunked("10000\r\n" + full + "\r\n0\r\n"), true, full},
             {chunked("10001\r\n" + full + "c\r\n0\r\n"), false, {}},
             {chunked("FFFFFFFFFFFFFFFFFFFF\r\n"), false, {}},
             {chunked("3;x=y\r\nabc\r\n0\r\n"), false, {}},
             {chunked("-3\r\nabc\r\n0\r\n"), false, {}},
             {chunked("xyz\r\n"), false, {}},
             {chunked(many + "0\r\n"), true, Times(17, full)},  // 1 MiB and one chunk
             {chunked(many + "1\r\nx\r\n0\r\n"), false, {}},
             {chunked("5\r\nab"), false, {}},
             {chunked("2\r\nab"), false, {}},
             {chunked("2\r\nab\r\n"), false, {}}}) {
        for (const std::size_t pieceSize : {std::size_t{1} << 20, std::size_t{1}, std::size_t{7}}) {
            if (message.size() / pieceSize > 100000) {
                continue;
            }
            SCOPED_TRACE(message.substr(0, 60) + " by " + std::to_string(pieceSize));
            HttpRequest request;
            const int read = Read(request, [pieceSize, text = message](Peer& peer) {
                peer.Send("POST / HTTP/1.0\r\n" + text, pieceSize);
                peer.Close();
            });
            EXPECT_EQ(read, isComplete ? 2 : 1);
            EXPECT_TRUE(request.body == body) << request.body.value_or("none").substr(0, 60);
            EXPECT_LE(request.body.value_or("").capacity(), 2 * message.size() + 100)
                << "what was announced";
        }
    }
}

TEST(HttpMessageReaderTest, ABodyInPartsTakesBytesOfTheNextRequest) {
    Peer peer;
    peer.Send("POST / HTTP/1.0\r\nContent-Length: 10\r\n\r\n12345");
    HttpRequest request;
    HttpMessageReader reader(peer.Descriptor(), 100ms);
    ASSERT_TRUE(reader.ReadHead(request));
    peer.Send("67890GET /next HTTP/1.0\r\n\r\n");
    EXPECT_FALSE(reader.ReadBody(request)) << "more than announced is not complete";
    EXPECT_EQ(request.body, "1234567890GET /");
    HttpRequest next;
    EXPECT_TRUE(reader.ReadHead(next)) << "what is left of the line is no request line";
    EXPECT_FALSE(next.url.has_value());

    peer.Send("POST / HTTP/1.0\r\nContent-Length: 5\r\n\r\n12345GET /next HTTP/1.0\r\n\r\n");
    HttpRequest whole;
    EXPECT_TRUE(reader.ReadHead(whole) && reader.ReadBody(whole));
    EXPECT_EQ(whole.body, "12345");
    EXPECT_TRUE(reader.ReadHead(next));
    EXPECT_EQ(next.url, "/next");
}

TEST(HttpMessageReaderTest, LargeBodiesAreCountedAsLongAsTheyAreHeld) {
    const auto read = [](HttpRequest& request, std::chrono::milliseconds timeout = 60s) {
        return Read(
            request,
            [](Peer& peer) {
                peer.Send("POST / HTTP/1.0\r\nContent-Length: 65537\r\n\r\n" +
                          std::string(65537, 'b'));
            },
            timeout);
    };
    std::array<HttpRequest, HttpMessageReader::kMaxLargeBodies> held;
    for (HttpRequest& request : held) {
        ASSERT_EQ(read(request), 2);
    }
    HttpRequest further;
    EXPECT_EQ(read(further, 1000ms), 1);
    EXPECT_LE(further.body.value_or("").size(), HttpMessageReader::kSmallBody);
    held[7] = {};
    further = {};
    EXPECT_EQ(read(further), 2);
}

}  // namespace
