#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "SocketGuard.h"
#include "Support.h"
#include "TestServlet.h"
#include "WebServer.h"
#include "ZelConfig.h"

namespace {

using namespace std::chrono_literals;
using Mode = ZelServlet::MatchMode;

constexpr std::uint16_t kPort = 8080;
constexpr std::uint16_t kOtherPort = 8081;
constexpr char kHere[] = "127.0.0.1";
const std::string kGet = "GET /test HTTP/1.0\r\n\r\n";
const std::string kKeep = "GET /test HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n";

/// A servlet under a path of its own that answers its text, when it has done its work.
class Probe : public ZelServlet {
public:
    using Work = std::function<int()>;
    Probe(const Registration& registration, Work work)
        : ZelServlet(registration), registration_(registration), work_(std::move(work)) {}
    int Service(const HttpRequest& request, ServletResponse& response) override {
        response.Fulfil(request, "text/plain", registration_.name);
        return work_();
    }
    std::unique_ptr<ZelServlet> MakeInstance() const override {
        return std::make_unique<Probe>(registration_, work_);
    }

private:
    Registration registration_;
    Work work_;
};

void Send(const SocketGuard& connection, const std::string& text) {
    static_cast<void>(send(connection.Get(), text.data(), text.size(), MSG_NOSIGNAL));
}

bool IsAnswered(const SocketGuard& connection) {
    std::array<char, 4096> part{};
    return recv(connection.Get(), part.data(), part.size(), 0) > 0;
}

/// Sends on a new connection to the server, which may only just be starting.
int Connect(const std::string& text, std::uint16_t port = kPort, const char* from = kHere) {
    SocketGuard connection(OpenSocket(SOCK_STREAM, from, 0));
    const sockaddr_in address = Address(kHere, port);
    EXPECT_TRUE(Eventually([&] {
        return connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address),
                       sizeof address) == 0 ||
               errno == EISCONN;
    })) << port;
    Send(connection, text);
    return connection.Release();
}

/// All that the server answers until it closes.
std::string Exchange(const std::string& request, std::uint16_t port = kPort,
                     const char* from = kHere) {
    return ReadToEnd(SocketGuard(Connect(request, port, from)).Get());
}

std::string Answer(const std::string& status, const std::string& body,
                   const std::string& connection = "Connection: Close\r\n") {
    const std::string length = std::to_string(body.size());
    return "HTTP/1.0 " + status + "\r\nContent-Type: text/html\r\nContent-Length: " + length +
           "\r\ncontent-length: " + length + "\r\n" + connection + "\r\n" + body;
}

const std::string kText = "Hallo Welt, ist es nicht nett hier draussen?";
const std::string kGreeting = Answer("200 OK", kText);

class WebServerTest : public testing::Test {
protected:
    void Add(
        const ZelServlet::Registration& registration,
        Probe::Work work = [] { return ZelServlet::kDone; }) {
        server_.AddRegistration(probes_.emplace_back(registration, std::move(work)));
    }
    void Start() {
        server_.AddRegistration(greeting_);
        EXPECT_TRUE(server_.AddPort(kPort) && server_.AddPort(kOtherPort) && server_.Start());
    }

    ZelConfig config_;
    TestServlet greeting_;
    std::list<Probe> probes_;
    // Nobody is to be closed for being idle as long as a test takes.
    WebServer server_{config_, 60s};
};

TEST_F(WebServerTest, TheFirstMatchingRegistrationAnswers) {
    Add({"other port", "/a", Mode::kPrefix, kOtherPort});
    Add({"exact", "/a/exact", Mode::kExact, 0});
    Add({"path", "/a", Mode::kPathPrefix, 0});
    Add({"prefix", "/a", Mode::kPrefix, 0});
    Start();
    const struct {
        std::string path;
        const char* answer;
        std::uint16_t port = kPort;
    } cases[] = {{"/a", "path"},        {"/a?b", "path"},  {"/a&b", "path"},
                 {"/a/b", "path"},      {"/ab", "prefix"}, {"/a/exact", "exact"},
                 {"/a/exact?", "path"}, {"/A", "404"},     {"/a", "other port", kOtherPort}};
    for (const auto& c : cases) {
        ExpectParts(Exchange("GET " + c.path + " HTTP/1.0\r\n\r\n", c.port), {c.answer});
    }
}

TEST_F(WebServerTest, StopEndsIdleConnectionsAndLetsARequestFinish) {
    std::promise<void> begun;
    std::promise<void> stopping;
    Add({"done", "/slow", Mode::kExact, 0}, [&] {
        begun.set_value();
        stopping.get_future().wait_for(30s);
        return ZelServlet::kDone;
    });
    Start();
    const SocketGuard idle(Connect(""));
    const SocketGuard busy(Connect("GET /slow HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n"));
    begun.get_future().wait();
    EXPECT_FALSE(server_.Stop()) << "a request is still running";
    stopping.set_value();
    EXPECT_TRUE(ReadToEnd(busy.Get()).ends_with("done"));
    EXPECT_EQ(ReadToEnd(idle.Get()), "");
    EXPECT_TRUE(Eventually([this] { return server_.Stop(); }));
}

TEST_F(WebServerTest, AnAddressHoldsHalfOfThePlacesAndItsIdleOnesGiveWay) {
    Start();
    std::list<SocketGuard> idle;
    for (std::size_t i = 0; i < ConnectionTable::kMaxOfAddress; ++i) {
        ASSERT_TRUE(IsAnswered(idle.emplace_back(Connect(kKeep, kPort, "127.0.0.2"))));
    }
    const SocketGuard mute(Connect("", kPort, "127.0.0.3"));
    Send(idle.front(), kKeep);  // no longer the one that has been idle longest
    ASSERT_TRUE(IsAnswered(idle.front()));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Exchange(kGet, kPort, "127.0.0.2"), kGreeting);
        EXPECT_EQ(Exchange(kGet), kGreeting);
    }
    // About which one is idle longest their threads, late with saying so, may disagree.
    EXPECT_TRUE(Eventually([&idle] {
        return std::any_of(std::next(idle.begin()), idle.end(), [](const SocketGuard& other) {
            char none = 0;
            return recv(other.Get(), &none, 1, MSG_DONTWAIT) == 0;
        });
    }));
    Send(idle.front(), kKeep);
    EXPECT_TRUE(IsAnswered(idle.front()));
    Send(mute, kGet);
    EXPECT_EQ(ReadToEnd(mute.Get()), kGreeting) << "another address has lost nothing";
}

TEST_F(WebServerTest, WhereAllAreServedOnlyThoseWhoHungUpGiveWay) {
    std::atomic<std::size_t> serving = 0;
    std::promise<void> end;
    Add({"waited", "/wait", Mode::kExact, 0}, [&, ended = end.get_future().share()] {
        ++serving;
        ended.wait();
        return ZelServlet::kDone;
    });
    Start();
    std::list<SocketGuard> busy;
    for (std::size_t i = 0; i < ConnectionTable::kMaxConnections; ++i) {
        busy.emplace_back(
            Connect("GET /wait HTTP/1.0\r\n\r\n", kPort, i % 2 == 0 ? "127.0.0.2" : "127.0.0.3"));
        ASSERT_TRUE(Eventually([&] { return serving > i; }));
    }
    EXPECT_EQ(Exchange(kGet), "");
    EXPECT_EQ(Exchange(kGet, kPort, "127.0.0.2"), "");
    busy.pop_front();
    EXPECT_EQ(Exchange(kGet), kGreeting);
    end.set_value();
    for (const SocketGuard& connection : busy) {
        EXPECT_TRUE(ReadToEnd(connection.Get()).ends_with("waited"));
    }
}

TEST_F(WebServerTest, AThreadServesWhoComesNextAndLeavesWhenNobodyDoes) {
    std::set<pid_t> threads;
    std::size_t requests = 0;
    std::mutex mutex;
    Add({"thread", "/thread", Mode::kExact, 0}, [&] {
        const std::lock_guard lock(mutex);
        threads.insert(gettid());
        ++requests;
        return ZelServlet::kDone;
    });
    config_.SetPersistent("web.listen.backlog", "128");  // nobody waits for a second try
    Start();
    const std::string get = "GET /thread HTTP/1.0\r\n\r\n";
    EXPECT_TRUE(Eventually([&] {
        Exchange(get);
        const std::lock_guard lock(mutex);
        return threads.size() < requests;
    }));
    std::list<SocketGuard> waiting;
    for (int i = 0; i < 3; ++i) {  // at a time: none of them waits for a thread
        waiting.emplace_back(Connect(""));
    }
    for (const SocketGuard& connection : waiting) {
        Send(connection, get);
        EXPECT_TRUE(ReadToEnd(connection.Get()).ends_with("thread"));
    }
    EXPECT_TRUE(Eventually(
        [] { return OutputOf("cat /proc/$PPID/task/*/comm | grep -c WebServer:Proto") == "0\n"; }));
}

TEST(WebServerBacklogTest, ASiteCanSetIt) {
    const auto backlogWith = [](const char* value) {
        ZelConfig config;
        config.SetPersistent("web.listen.backlog", value);
        WebServer server(config);
        EXPECT_TRUE(server.AddPort(kPort) && server.Start());
        const SocketGuard connection(Connect(""));
        return OutputOf("ss -Hltn sport = :8080 | awk '{print $3}'");
    };
    EXPECT_EQ(backlogWith("128"), "128\n");
    for (const char* value : {"", "0", "129", "-16", "16 ", "4294967297"}) {
        EXPECT_EQ(backlogWith(value), "1\n") << value;
    }
}

}  // namespace
