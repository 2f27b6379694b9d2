#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "Shell.h"
#include "SocketGuard.h"
#include "Support.h"
#include "TestServlet.h"
#include "WebServer.h"
#include "ZelConfig.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint16_t kPort = 8080;
constexpr std::uint16_t kOtherPort = 8081;
constexpr auto kLineTimeout = 1000ms;

std::function<void()> afterResponse;

/// A servlet that does what the test gives it to do.
class Probe : public ZelServlet {
public:
    using Work = std::function<int(const HttpRequest&, HttpResponse&)>;
    Probe(Registration registration, Work work)
        : ZelServlet(registration),
          registration_(std::move(registration)),
          work_(std::move(work)) {}
    int Service(const HttpRequest& request, HttpResponse& response) override {
        return work_(request, response);
    }
    std::unique_ptr<ZelServlet> MakeInstance() const override {
        return std::make_unique<Probe>(registration_, work_);
    }
    void PostResponse() override { afterResponse(); }

private:
    Registration registration_;
    Work work_;
};

int NewSocket() {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience{30, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return descriptor;
}

bool ConnectTo(int descriptor, std::uint16_t port) {
    const sockaddr_in address = Address("127.0.0.1", port);
    return connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// A connection to the server, which may only just be starting.
int Connect(std::uint16_t port, const char* from = "127.0.0.1") {
    const int descriptor = NewSocket();
    const sockaddr_in own = Address(from, 0);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
    for (int i = 0; i < 500; ++i) {
        if (ConnectTo(descriptor, port)) {
            return descriptor;
        }
        usleep(10000);
    }
    ADD_FAILURE() << "nobody listens on port " << port;
    return descriptor;
}

std::string ReadAll(int descriptor) {
    std::string text;
    char part[4096];
    for (ssize_t count = 0; (count = recv(descriptor, part, sizeof part, 0)) > 0;) {
        text.append(part, static_cast<std::size_t>(count));
    }
    return text;
}

bool ReadSome(int descriptor) {
    char part[4096];
    return recv(descriptor, part, sizeof part, 0) > 0;
}

void Send(int descriptor, const std::string& text) {
    static_cast<void>(send(descriptor, text.data(), text.size(), MSG_NOSIGNAL));
}

/// All that the server answers until it closes.
std::string Exchange(const std::string& request, std::uint16_t port = kPort,
                     const char* from = "127.0.0.1") {
    const SocketGuard connection(Connect(port, from));
    Send(connection.Get(), request);
    return ReadAll(connection.Get());
}

std::string Answer(const std::string& status, const std::string& type, const std::string& body,
                   const std::string& connection = "Connection: Close\r\n") {
    const std::string length = std::to_string(body.size());
    return "HTTP/1.0 " + status + "\r\nContent-Type: " + type + "\r\nContent-Length: " + length +
           "\r\ncontent-length: " + length + "\r\n" + connection + "\r\n" + body;
}

const std::string kNotFound =
    Answer("404 Not found", "text/html",
           "An error 404 has occurred. The requested document could not be found.");
const std::string kGreeting =
    Answer("200 OK", "text/html", "Hallo Welt, ist es nicht nett hier draussen?");

class WebServerTest : public testing::Test {
protected:
    WebServerTest() {
        server_.AddPort(kPort);
        server_.AddPort(kOtherPort);
        server_.AddRegistration(greeting_);
    }

    /// Adds a servlet under a path of its own.
    void Add(const std::string& path, Probe::Work work,
             ZelServlet::MatchMode mode = ZelServlet::MatchMode::kExact, std::uint16_t port = 0) {
        probes_.push_back(std::make_unique<Probe>(ZelServlet::Registration{path, path, mode, port},
                                                  std::move(work)));
        server_.AddRegistration(*probes_.back());
    }

    ZelConfig config_;
    TestServlet greeting_;
    std::vector<std::unique_ptr<Probe>> probes_;
    WebServer server_{config_, kLineTimeout};
};

TEST_F(WebServerTest, AnswersAreExact) {
    Add("/echo", [](const HttpRequest& request, HttpResponse& response) {
        response.status = 200;
        response.keepAlive = request.keepAlive;
        response.contentType = "text/plain";
        response.headerLines = {"X-One: 1", "X-Two: 2"};
        response.body = request.body.value_or("none");
        return ZelServlet::kDone;
    });
    Add("/gone", [](const HttpRequest&, HttpResponse& response) {
        response.status = 500;
        response.body = "own text";
        return ZelServlet::kDone;
    });
    ASSERT_TRUE(server_.Start());

    EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\n\r\n"), kGreeting);
    EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\n\r\n", kOtherPort), kGreeting);
    EXPECT_EQ(Exchange("GET /none HTTP/1.0\r\n\r\n"), kNotFound);
    EXPECT_EQ(Exchange("GET /gone HTTP/1.0\r\n\r\n"),
              Answer("404 Not found", "text/html", "own text"));
    const std::string extra = "Connection: Close\r\nX-One: 1\r\nX-Two: 2\r\n";
    EXPECT_EQ(Exchange("POST /echo HTTP/1.0\r\nContent-Length: 3\r\n\r\nabc"),
              Answer("200 OK", "text/plain", "abc", extra));
    EXPECT_EQ(Exchange("POST /echo HTTP/1.0\r\n\r\n"),
              Answer("200 OK", "text/plain", "none", extra));
    EXPECT_EQ(Exchange("GET /echo HTTP/1.0\r\nContent-Length: 3\r\n\r\nabc"),
              Answer("200 OK", "text/plain", "abc", extra));
    EXPECT_EQ(Exchange("PUT /echo HTTP/1.0\r\n\r\n"), "");
}

TEST_F(WebServerTest, KeepAliveIsTheRequestsChoice) {
    ASSERT_TRUE(server_.Start());
    const std::string kept = "Connection: Keep-Alive\r\nKeep-Alive: timeout=5, max=5\r\n";
    const std::string greeting =
        Answer("200 OK", "text/html", "Hallo Welt, ist es nicht nett hier draussen?", kept);
    EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n"
                       "GET /none HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n"
                       "GET /test HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"
                       "GET /test HTTP/1.0\r\n\r\n"),
              greeting + kNotFound + kGreeting);
}

TEST_F(WebServerTest, TheFirstMatchingRegistrationAnswers) {
    const auto say = [](const char* text) {
        return [text](const HttpRequest&, HttpResponse& response) {
            response.status = 200;
            response.body = text;
            return ZelServlet::kDone;
        };
    };
    using Mode = ZelServlet::MatchMode;
    Add("/a", say("other port"), Mode::kPrefix, kOtherPort);
    Add("/a/exact", say("exact"), Mode::kExact);
    Add("/a", say("path"), Mode::kPathPrefix);
    Add("/a", say("prefix"), Mode::kPrefix);
    ASSERT_TRUE(server_.Start());
    const struct {
        const char* path;
        std::uint16_t port;
        const char* answer;
    } cases[] = {
        {"/a", kPort, "path"},        {"/a?b", kPort, "path"},
        {"/a&b", kPort, "path"},      {"/a/b", kPort, "path"},
        {"/ab", kPort, "prefix"},     {"/a/exact", kPort, "exact"},
        {"/a/exact?", kPort, "path"}, {"/a", kOtherPort, "other port"},
        {"/A", kPort, "404"},         {"/", kPort, "404"},
    };
    for (const auto& c : cases) {
        const std::string answer =
            Exchange("GET " + std::string(c.path) + " HTTP/1.0\r\n\r\n", c.port);
        EXPECT_NE(answer.find(c.answer), std::string::npos) << c.path << ": " << answer;
    }
}

TEST_F(WebServerTest, PostResponseFollowsTheReply) {
    std::promise<void> received;
    std::promise<bool> inOrder;
    afterResponse = [&] {
        inOrder.set_value(received.get_future().wait_for(30s) == std::future_status::ready);
    };
    Add("/late", [](const HttpRequest&, HttpResponse& response) {
        response.status = 200;
        return ZelServlet::kPostResponse;
    });
    ASSERT_TRUE(server_.Start());
    const SocketGuard connection(Connect(kPort));
    Send(connection.Get(), "GET /late HTTP/1.0\r\n\r\n");
    char first = 0;
    EXPECT_EQ(recv(connection.Get(), &first, 1, 0), 1);
    received.set_value();
    EXPECT_TRUE(inOrder.get_future().get());
}

TEST_F(WebServerTest, TwentyPortsAndNoMore) {
    for (std::size_t i = 2; i < WebServer::kMaxPorts; ++i) {
        EXPECT_TRUE(server_.AddPort(static_cast<std::uint16_t>(9000 + i)));
    }
    EXPECT_FALSE(server_.AddPort(9999));
    // One of them is taken: the others are served.
    const SocketGuard taken(NewSocket());
    const sockaddr_in address = Address("127.0.0.1", 9002);
    ASSERT_EQ(bind(taken.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(taken.Get(), 1), 0);
    ASSERT_TRUE(server_.Start());
    for (const std::uint16_t port : {std::uint16_t{9003}, std::uint16_t{9019}}) {
        EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\n\r\n", port), kGreeting);
    }
}

TEST_F(WebServerTest, StopEndsIdleConnectionsAndLetsARequestFinish) {
    std::promise<void> begun;
    std::promise<void> stopping;
    Add("/slow", [&](const HttpRequest&, HttpResponse& response) {
        begun.set_value();
        stopping.get_future().wait_for(30s);
        response.status = 200;
        response.body = "done";
        return ZelServlet::kDone;
    });
    ASSERT_TRUE(server_.Start());
    const SocketGuard idle(Connect(kPort));
    const SocketGuard busy(Connect(kPort));
    Send(busy.Get(), "GET /slow HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n");
    begun.get_future().wait();
    EXPECT_FALSE(server_.Stop()) << "a request is still running";
    stopping.set_value();
    EXPECT_TRUE(ReadAll(busy.Get()).ends_with("done"));
    EXPECT_EQ(ReadAll(idle.Get()), "");
    while (!server_.Stop()) {
    }
}

TEST_F(WebServerTest, AnAddressHoldsHalfOfThePlacesAndItsIdleOnesGiveWay) {
    WebServer server(config_, 60s);  // nobody is to be closed for being idle that long
    server.AddPort(kPort);
    server.AddRegistration(greeting_);
    ASSERT_TRUE(server.Start());
    const std::string kept = "GET /test HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n";
    std::list<SocketGuard> idle;
    for (std::size_t i = 0; i < ConnectionTable::kMaxOfAddress; ++i) {
        idle.emplace_back(Connect(kPort, "127.0.0.2"));
        Send(idle.back().Get(), kept);
        ASSERT_TRUE(ReadSome(idle.back().Get()));
    }
    const SocketGuard mute(Connect(kPort, "127.0.0.3"));
    Send(idle.front().Get(), kept);  // no longer the one that has been idle longest
    ASSERT_TRUE(ReadSome(idle.front().Get()));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\n\r\n", kPort, "127.0.0.2"), kGreeting);
        EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\n\r\n"), kGreeting);
    }
    Send(idle.front().Get(), kept);
    EXPECT_TRUE(ReadSome(idle.front().Get()));
    Send(mute.Get(), "GET /test HTTP/1.0\r\n\r\n");
    EXPECT_EQ(ReadAll(mute.Get()), kGreeting) << "another address has lost nothing";
}

TEST_F(WebServerTest, WhereAllAreServedOnlyThoseWhoHungUpGiveWay) {
    std::atomic<std::size_t> serving = 0;
    std::promise<void> end;
    Add("/wait", [&, ended = end.get_future().share()](const HttpRequest&, HttpResponse& response) {
        ++serving;
        ended.wait();
        response.status = 200;
        return ZelServlet::kDone;
    });
    ASSERT_TRUE(server_.Start());
    std::list<SocketGuard> busy;
    for (std::size_t i = 0; i < ConnectionTable::kMaxConnections; ++i) {
        busy.emplace_back(Connect(kPort, i % 2 == 0 ? "127.0.0.2" : "127.0.0.3"));
        Send(busy.back().Get(), "GET /wait HTTP/1.0\r\n\r\n");
        while (serving <= i) {
            usleep(1000);
        }
    }
    EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\n\r\n"), "");
    EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\n\r\n", kPort, "127.0.0.2"), "");
    busy.pop_front();
    EXPECT_EQ(Exchange("GET /test HTTP/1.0\r\n\r\n"), kGreeting);
    end.set_value();
    for (const SocketGuard& connection : busy) {
        EXPECT_TRUE(ReadAll(connection.Get()).starts_with("HTTP/1.0 200 OK"));
    }
}

TEST_F(WebServerTest, ASiteCanSetTheListenBacklog) {
    const struct {
        const char* value;
        const char* backlog;
    } cases[] = {{nullptr, "1"}, {"1", "1"},   {"16", "16"}, {"128", "128"}, {"129", "1"},
                 {"0", "1"},     {"-16", "1"}, {"16 ", "1"}, {"", "1"},      {"4294967297", "1"}};
    for (const auto& c : cases) {
        ZelConfig config;
        if (c.value != nullptr) {
            config.Set("web.listen.backlog", c.value, ZelConfig::Kind::kPersistent);
        }
        WebServer server(config);
        server.AddPort(kPort);
        ASSERT_TRUE(server.Start());
        const SocketGuard connection(Connect(kPort));
        std::string backlog;
        Shell::RunSystemWithResult(backlog, "ss -Hltn sport = :%d | awk '{print $3}'", kPort);
        EXPECT_EQ(backlog, c.backlog + std::string("\n")) << (c.value ? c.value : "none");
    }
}

}  // namespace
