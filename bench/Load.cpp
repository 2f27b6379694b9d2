// Asks a server as fast as it answers: each of a number of clients asks again when it has its
// answer. One thread, no memory taken for a request, so that it costs less than what is measured.
//
// load http HOST PORT REQUESTFILE CONNECTIONS MILLISECONDS kept|new
//     The bytes of the file over connections that are kept, or one connection for each request;
//     that of each client comes from an address of its own. An answer is complete with its
//     Content-Length and has to say "200 OK".
// load slp HOST PORT REQUESTFILE CLIENTS MILLISECONDS
//     The datagram of the file, each time with another XID and from another of kAddresses
//     addresses: a server that answers one address a limited number of times a second is not held
//     back by that. HOST has to be a loopback address. What is not answered within kLostTime is
//     lost, which is an error.
// load slow HOST PORT COUNT MILLISECONDS
//     That many connections which send a request that never ends, a byte a second. One that is
//     closed is opened again.
//
// The result is one JSON object: times in microseconds, from the beginning of a request, its
// connect() included, to the end of its answer; a request that takes longer than kStall is a stall.
// What waits in vain at the end counts, too. The exit status is 1 when nothing was answered, or no
// slow connection stood.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "BenchSupport.h"
#include "Descriptors.h"
#include "SocketGuard.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;
using BenchSupport::GiveUp;

constexpr Milliseconds kStall{200};
constexpr Milliseconds kLostTime{500};
constexpr std::chrono::seconds kPrepareTime{10};
// How often those are looked at that wait for a time and not for the server.
constexpr Milliseconds kTick{50};
constexpr Milliseconds kSlowPause{1000};
constexpr std::size_t kAddresses = 200;
constexpr std::size_t kExpectedRequests = std::size_t{1} << 20;

/// 127.1.0.1 and those behind it.
in_addr SourceAddress(std::size_t number) {
    return {htonl((127U << 24) + (1U << 16) + 1U + static_cast<std::uint32_t>(number))};
}

/// What became of the requests.
class Record {
public:
    Record() { times_.reserve(kExpectedRequests); }

    void AddAnswer(Clock::duration time) {
        const auto microseconds =
            std::chrono::duration_cast<std::chrono::microseconds>(time).count();
        times_.push_back(static_cast<std::uint32_t>(microseconds));
        stalls_ += time > kStall ? 1 : 0;
    }
    void AddError() { ++errors_; }
    /// A request that has no answer yet at the end.
    void AddWaiting(Clock::duration time) { stalls_ += time > kStall ? 1 : 0; }

    /// Prints it; false when nothing was answered.
    bool Print(double seconds) {
        std::sort(times_.begin(), times_.end());
        std::printf("{\"requests\": %zu, \"seconds\": %.3f, \"rate\": %.1f, ", times_.size(),
                    seconds, static_cast<double>(times_.size()) / seconds);
        std::printf("\"p50\": %u, \"p90\": %u, \"p99\": %u, \"p999\": %u, \"max\": %u, ",
                    Percentile(0.5), Percentile(0.9), Percentile(0.99), Percentile(0.999),
                    Percentile(1));
        std::printf("\"stalls\": %zu, \"errors\": %zu}\n", stalls_, errors_);
        return !times_.empty();
    }

private:
    std::uint32_t Percentile(double share) const {
        if (times_.empty()) {
            return 0;
        }
        return times_[static_cast<std::size_t>(share * static_cast<double>(times_.size() - 1))];
    }

    std::vector<std::uint32_t> times_;
    std::size_t stalls_ = 0;
    std::size_t errors_ = 0;
};

/// Somebody who asks. Its descriptor, if it has one, is among those of `poller`.
class Client {
public:
    explicit Client(int poller) : poller_(poller) {}
    virtual ~Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// What comes before the time that is measured.
    virtual void Prepare() {}
    /// Something shows on the descriptor.
    virtual void OnReady() = 0;
    /// Comes every kTick, the first time at the beginning, and has it ask.
    virtual void OnTick(Clock::time_point now) = 0;
    virtual void OnEnd(Clock::time_point /*now*/) {}

protected:
    void Watch(int descriptor, std::uint32_t events) {
        epoll_event event{.events = events, .data = {.ptr = this}};
        if (epoll_ctl(poller_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
            GiveUp("epoll_ctl fails");
        }
    }

private:
    int poller_;
};

/// A connection that has begun; -1, with errno, when there is none.
int BeginConnection(const sockaddr_in& server, std::size_t number) {
    SocketGuard socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    // The port is the kernel's to choose when it knows the other end: it is unused towards that
    // one.
    setsockopt(socket.Get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    const sockaddr_in source = Ipv4::SocketAddress(SourceAddress(number), 0);
    if (bind(socket.Get(), Ipv4::Generic(source), sizeof source) != 0 ||
        (connect(socket.Get(), Ipv4::Generic(server), sizeof server) != 0 &&
         errno != EINPROGRESS)) {
        return -1;
    }
    return socket.Release();
}

class HttpClient : public Client {
public:
    struct Options {
        sockaddr_in server{};
        std::string request;
        bool isKept = false;
    };

    HttpClient(int poller, const Options& options, std::size_t number, Record& record)
        : Client(poller), options_(options), number_(number), record_(record) {}

    /// A kept connection is there, and has been used, when the time begins. One after another: a
    /// server with a short backlog would let others wait for a second.
    void Prepare() override {
        if (!options_.isKept) {
            return;
        }
        const Clock::time_point deadline = Clock::now() + kPrepareTime;
        socket_.Reset(BeginConnection(options_.server, number_));
        if (!Descriptors::WaitUntil(socket_.Get(), POLLOUT, deadline) || !Send()) {
            GiveUp("cannot connect");
        }
        do {
            if (!Descriptors::WaitUntil(socket_.Get(), POLLIN, deadline)) {
                GiveUp("the first request is not answered");
            }
        } while (!Receive() && socket_.Get() >= 0);
        Watch(socket_.Get(), EPOLLIN | EPOLLET);
    }

    void OnReady() override {
        if (!isSent_ && !Send()) {
            return;
        }
        if (Receive()) {
            record_.AddAnswer(Clock::now() - begun_);
            Ask();
        }
    }

    void OnTick(Clock::time_point /*now*/) override {
        if (socket_.Get() < 0 || begun_ == Clock::time_point{}) {
            Ask();
        }
    }

    void OnEnd(Clock::time_point now) override {
        if (socket_.Get() >= 0) {
            record_.AddWaiting(now - begun_);
        }
    }

private:
    static constexpr std::string_view kHeadEnd = "\r\n\r\n";
    static constexpr std::string_view kLength = "\r\nContent-Length: ";

    void Ask() {
        begun_ = Clock::now();
        used_ = 0;
        left_ = 0;
        isSent_ = false;
        if (options_.isKept && socket_.Get() >= 0) {
            Send();
            return;
        }
        // That of the request before goes first, as a client would have it.
        socket_.Reset();
        socket_.Reset(BeginConnection(options_.server, number_));
        if (socket_.Get() < 0) {
            Fail();
            return;
        }
        // Over loopback it often stands by now: one look at the poller less.
        const bool hasFailed = !Send() && socket_.Get() < 0;
        if (!hasFailed) {
            Watch(socket_.Get(), (isSent_ ? 0U : std::uint32_t{EPOLLOUT}) | EPOLLIN | EPOLLET);
        }
    }

    /// A request is short enough to be taken whole. False when it is not yet, or never will be.
    bool Send() {
        const std::string& request = options_.request;
        const ssize_t sent = send(socket_.Get(), request.data(), request.size(), MSG_NOSIGNAL);
        isSent_ = sent == static_cast<ssize_t>(request.size());
        if (!isSent_ && (sent >= 0 || errno != EAGAIN)) {
            Fail();
        }
        return isSent_;
    }

    /// True when the answer is complete.
    bool Receive() {
        for (;;) {
            const ssize_t count =
                recv(socket_.Get(), buffer_.data() + used_, buffer_.size() - used_, 0);
            if (count < 0 && errno == EAGAIN) {
                return false;
            }
            if (count <= 0 || !Take(static_cast<std::size_t>(count))) {
                Fail();
                return false;
            }
            if (used_ == 0 && left_ == 0) {
                return true;
            }
        }
    }

    /// Counts what has come off the answer. False when that is no good one.
    bool Take(std::size_t count) {
        if (left_ == 0) {
            used_ += count;
            const std::string_view text(buffer_.data(), used_);
            const std::size_t end = text.find(kHeadEnd);
            if (end == std::string_view::npos) {
                return used_ < buffer_.size();
            }
            const std::string_view head = text.substr(0, end);
            const std::size_t length = head.find(kLength);
            if (!head.starts_with("HTTP/1.") || head.find(" 200 OK") != kVersionSize ||
                length == std::string_view::npos) {
                return false;
            }
            const char* const digits = head.data() + length + kLength.size();
            std::from_chars(digits, head.data() + head.size(), left_);
            count = used_ - end - kHeadEnd.size();
            used_ = 0;
        }
        const bool isEnough = count <= left_;
        left_ -= std::min(count, left_);
        return isEnough;
    }

    /// Asks again at the next tick, over another connection.
    void Fail() {
        record_.AddError();
        socket_.Reset();
    }

    static constexpr std::size_t kVersionSize = 8;

    const Options& options_;
    std::size_t number_;
    Record& record_;
    SocketGuard socket_;
    Clock::time_point begun_;
    bool isSent_ = false;
    std::array<char, 16 * 1024> buffer_{};
    std::size_t used_ = 0;  // of the buffer, until the head is complete
    std::size_t left_ = 0;  // of the body
};

class SlpClient : public Client {
public:
    SlpClient(int poller, const sockaddr_in& server, std::string request, std::size_t number,
              Record& record)
        : Client(poller),
          server_(server),
          request_(std::move(request)),
          socket_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
          // Clients begin at different addresses.
          asked_(static_cast<std::uint16_t>(number * (kAddresses / 4 + 1))),
          record_(record) {
        if (request_.size() < kHead) {
            GiveUp("the request is no message of SLP");
        }
        Watch(socket_.Get(), EPOLLIN);
    }

    void OnReady() override {
        std::array<unsigned char, 2048> answer{};
        const ssize_t count = recv(socket_.Get(), answer.data(), answer.size(), 0);
        if (count < static_cast<ssize_t>(kHead + 2) || Number(answer, kXid) != asked_) {
            return;  // nothing, or what had been given up
        }
        const std::size_t error = kHead + Number(answer, kTagLength);
        if (answer[kFunction] == static_cast<unsigned char>(request_[kFunction]) + 1 &&
            error + 1 < static_cast<std::size_t>(count) && Number(answer, error) == 0) {
            record_.AddAnswer(Clock::now() - begun_);
        } else {
            record_.AddError();
        }
        Ask();
    }

    void OnTick(Clock::time_point now) override {
        if (now - begun_ > kLostTime) {
            if (begun_ != Clock::time_point{}) {
                record_.AddError();
            }
            Ask();
        }
    }

    void OnEnd(Clock::time_point now) override { record_.AddWaiting(now - begun_); }

private:
    // RFC 2608, section 8.
    static constexpr std::size_t kFunction = 1;
    static constexpr std::size_t kXid = 10;
    static constexpr std::size_t kTagLength = 12;
    static constexpr std::size_t kHead = 14;

    template <typename Bytes>
    static std::uint16_t Number(const Bytes& bytes, std::size_t position) {
        return static_cast<std::uint16_t>(bytes[position] << 8 | bytes[position + 1]);
    }

    void Ask() {
        ++asked_;
        request_[kXid] = static_cast<char>(asked_ >> 8);
        request_[kXid + 1] = static_cast<char>(asked_ & 0xff);
        begun_ = Clock::now();
        iovec part{request_.data(), request_.size()};
        // One socket sends from all addresses: the message says from which.
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control{};
        msghdr message{};
        message.msg_name = &server_;
        message.msg_namelen = sizeof server_;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = IPPROTO_IP;
        header->cmsg_type = IP_PKTINFO;
        header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
        const in_pktinfo source{0, SourceAddress(asked_ % kAddresses), {}};
        std::memcpy(CMSG_DATA(header), &source, sizeof source);
        if (sendmsg(socket_.Get(), &message, 0) < 0) {
            GiveUp(std::string("cannot ask: ") + std::strerror(errno));
        }
    }

    sockaddr_in server_;
    std::string request_;
    SocketGuard socket_;
    Clock::time_point begun_;
    std::uint16_t asked_;  // the XID of the last request
    Record& record_;
};

class SlowClient : public Client {
public:
    struct Count {
        std::size_t opened = 0;
        std::size_t closed = 0;  ///< by the server
    };

    SlowClient(int poller, const sockaddr_in& server, std::size_t number, Count& count)
        : Client(poller), server_(server), number_(number), count_(count) {}

    void OnReady() override {
        std::array<char, 4096> ignored{};
        const ssize_t got = recv(socket_.Get(), ignored.data(), ignored.size(), 0);
        if (got == 0 || (got < 0 && errno != EAGAIN)) {
            count_.closed += isOpen_ ? 1 : 0;
            socket_.Reset();
        } else if (!isOpen_) {
            isOpen_ = true;
            ++count_.opened;
        }
    }

    void OnTick(Clock::time_point now) override {
        if (now - acted_ < kSlowPause) {
            return;
        }
        acted_ = now;
        if (socket_.Get() < 0) {
            Open();
        } else if (isOpen_) {
            const char next = sent_ < kBegin.size() ? kBegin[sent_] : 'x';
            sent_ += send(socket_.Get(), &next, 1, MSG_NOSIGNAL) == 1 ? 1 : 0;
        }
    }

private:
    void Open() {
        sent_ = 0;
        isOpen_ = false;
        socket_.Reset(BeginConnection(server_, number_));
        if (socket_.Get() >= 0) {
            Watch(socket_.Get(), EPOLLIN | EPOLLOUT | EPOLLET);
        }
    }

    static constexpr std::string_view kBegin = "GET /test HTTP/1.1\r\nX-Slow: ";

    sockaddr_in server_;
    std::size_t number_;
    Count& count_;
    SocketGuard socket_;
    Clock::time_point acted_;
    std::size_t sent_ = 0;
    bool isOpen_ = false;
};

/// Has the clients ask for that time; returns how many seconds it was.
double Run(int poller, const std::vector<std::unique_ptr<Client>>& clients, Milliseconds time) {
    for (const auto& client : clients) {
        client->Prepare();
    }
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + time;
    std::array<epoll_event, 64> events{};
    Clock::time_point tick = begin;
    Clock::time_point now = begin;
    while (now < end) {
        if (now >= tick) {
            for (const auto& client : clients) {
                client->OnTick(now);
            }
            tick = now + kTick;
        }
        const int count = epoll_wait(poller, events.data(), static_cast<int>(events.size()),
                                     Descriptors::MillisecondsUntil(std::min(tick, end)));
        for (int index = 0; index < count; ++index) {
            const epoll_event& event = events[static_cast<std::size_t>(index)];
            static_cast<Client*>(event.data.ptr)->OnReady();
        }
        now = Clock::now();
    }
    for (const auto& client : clients) {
        client->OnEnd(now);
    }
    return std::chrono::duration<double>(now - begin).count();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view kind = argc > 1 ? argv[1] : "";
    const bool isHttp = kind == "http" && argc == 8;
    const bool isSlp = kind == "slp" && argc == 7;
    const bool isSlow = kind == "slow" && argc == 6;
    if (!isHttp && !isSlp && !isSlow) {
        GiveUp(
            "usage: load http HOST PORT REQUESTFILE CONNECTIONS MILLISECONDS kept|new\n"
            "       load slp HOST PORT REQUESTFILE CLIENTS MILLISECONDS\n"
            "       load slow HOST PORT COUNT MILLISECONDS");
    }
    const std::optional<in_addr> host = Ipv4::Parse(argv[2]);
    if (!host) {
        GiveUp(std::string(argv[2]) + " is no address");
    }
    const sockaddr_in server =
        Ipv4::SocketAddress(*host, BenchSupport::Argument<std::uint16_t>(argv[3], "port"));
    const std::string request = isSlow ? "" : BenchSupport::ReadFile(argv[4]);
    const int countIndex = isSlow ? 4 : 5;
    const auto count = BenchSupport::Argument<std::size_t>(argv[countIndex], "number of clients");
    const Milliseconds time(
        BenchSupport::Argument<int>(argv[countIndex + 1], "number of milliseconds"));
    const HttpClient::Options options{server, request,
                                      isHttp && std::string_view(argv[7]) == "kept"};

    const SocketGuard poller(epoll_create1(EPOLL_CLOEXEC));
    Record record;
    SlowClient::Count slow;
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t number = 0; number < count; ++number) {
        if (isHttp) {
            clients.push_back(std::make_unique<HttpClient>(poller.Get(), options, number, record));
        } else if (isSlp) {
            clients.push_back(
                std::make_unique<SlpClient>(poller.Get(), server, request, number, record));
        } else {
            clients.push_back(std::make_unique<SlowClient>(poller.Get(), server, number, slow));
        }
    }
    const double taken = Run(poller.Get(), clients, time);
    if (isSlow) {
        std::printf("{\"seconds\": %.3f, \"opened\": %zu, \"closed\": %zu}\n", taken, slow.opened,
                    slow.closed);
        return slow.opened > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    return record.Print(taken) ? EXIT_SUCCESS : EXIT_FAILURE;
}
