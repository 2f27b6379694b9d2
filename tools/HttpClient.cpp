#include "HttpClient.h"

#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <utility>

namespace HttpClient {
namespace {

using Clock = std::chrono::steady_clock;

constexpr long kOk = 200;
constexpr std::size_t kMaxHead = std::size_t{64} * 1024;
constexpr std::size_t kMaxBody = std::size_t{1024} * 1024;
constexpr std::chrono::minutes kAnswerLimit{2};
constexpr int kNone = -1;

template <auto kFree>
struct Freer {
    void operator()(auto* owned) const { kFree(owned); }
};
using Transfer = std::unique_ptr<CURL, Freer<curl_easy_cleanup>>;
using Transfers = std::unique_ptr<CURLM, Freer<curl_multi_cleanup>>;
using Lines = std::unique_ptr<curl_slist, Freer<curl_slist_free_all>>;

/// What has come of an answer; the library keeps the time of none of its parts.
struct Received {
    std::size_t head = 0;
    std::string body;
    Clock::time_point first = Clock::time_point::max();
    Clock::time_point last = Clock::now();

    void Note() {
        last = Clock::now();
        first = std::min(first, last);
    }
    bool IsAny() const { return first != Clock::time_point::max(); }
};

std::size_t TakeHead(char* /*text*/, std::size_t size, std::size_t count, void* received) {
    auto& taken = *static_cast<Received*>(received);
    taken.Note();
    taken.head += size * count;
    return taken.head <= kMaxHead ? size * count : 0;
}

std::size_t TakeBody(char* text, std::size_t size, std::size_t count, void* received) {
    auto& taken = *static_cast<Received*>(received);
    taken.Note();
    if (taken.body.size() + size * count > kMaxBody) {
        return 0;
    }
    taken.body.append(text, size * count);
    return size * count;
}

Outcome Unreachable(const BoxAddress& box, const std::string& why) {
    return {ExitStatus::kUnreachable,
            box.ToText() + " cannot be reached: " + why + "; is it on this network? (zelctl find)"};
}

bool IsConnected(CURL* transfer) {
    curl_off_t microseconds = 0;
    return curl_easy_getinfo(transfer, CURLINFO_CONNECT_TIME_T, &microseconds) == CURLE_OK &&
           microseconds > 0;
}

/// Runs the transfer until it has ended, the next part is late, or the descriptor can be read.
CURLcode Run(CURLM* transfers, CURL* transfer, std::chrono::milliseconds timeout, int interruption,
             Received& received) {
    curl_multi_add_handle(transfers, transfer);
    curl_waitfd interrupted{interruption, CURL_WAIT_POLLIN, 0};
    const unsigned waited = interruption >= 0 ? 1 : 0;
    bool wasConnected = false;
    int running = 1;
    CURLcode code = CURLE_OPERATION_TIMEDOUT;
    while (curl_multi_perform(transfers, &running) == CURLM_OK && running > 0) {
        if (!wasConnected && IsConnected(transfer)) {
            wasConnected = true;
            received.last = Clock::now();
        }
        Clock::time_point end = received.last + timeout;
        if (received.IsAny()) {
            end = std::min(end, received.first + kAnswerLimit);
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0 ||
            curl_multi_poll(transfers, &interrupted, waited, static_cast<int>(left), nullptr) !=
                CURLM_OK ||
            interrupted.revents != 0) {
            break;
        }
    }
    int rest = 0;
    if (const CURLMsg* const message = curl_multi_info_read(transfers, &rest); message != nullptr) {
        code = message->data.result;
    }
    curl_multi_remove_handle(transfers, transfer);
    return code;
}

/// Why a transfer has failed, in words of our own.
Outcome Failure(const BoxAddress& box, CURL* transfer, CURLcode code, const Received& received) {
    if (!received.IsAny() && !IsConnected(transfer)) {
        long error = 0;
        curl_easy_getinfo(transfer, CURLINFO_OS_ERRNO, &error);
        const bool isLate = code == CURLE_OPERATION_TIMEDOUT || error == 0;
        return Unreachable(box, std::strerror(isLate ? ETIMEDOUT : static_cast<int>(error)));
    }
    if (code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_WEIRD_SERVER_REPLY) {
        return {ExitStatus::kNotUnderstood,
                box.ToText() + " gives an answer that is no HTTP; is it a box?", true};
    }
    if (!received.IsAny()) {
        const std::string late = code == CURLE_OPERATION_TIMEDOUT
                                     ? " in time; wait longer (--timeout), or is it no box?"
                                     : "; is it a box?";
        return {ExitStatus::kUnreachable, box.ToText() + " is reached, but does not answer" + late,
                true};
    }
    return {ExitStatus::kNotUnderstood,
            box.ToText() + " gives an answer that is incomplete or too large; try again", true};
}

Lines HeaderLines(std::initializer_list<const char*> lines) {
    Lines list;
    for (const char* line : lines) {
        list.reset(curl_slist_append(list.release(), line));
    }
    return list;
}

/// What becomes of connections.
struct Connections {
    CURLM* transfers;
    /// Lets the other side keep them. The box reads this line letter by letter.
    bool areKept;
    int interruption;
};

/// `message` is posted when there is one.
Outcome Exchange(const Connections& connections, const BoxAddress& box, const std::string& path,
                 const std::string* message, std::chrono::milliseconds timeout, std::string& body) {
    const Transfer owned(curl_easy_init());
    CURL* const transfer = owned.get();
    Received received;
    const std::string url = "http://" + box.ToText() + path;
    const char* const connection =
        connections.areKept ? "Connection: Keep-Alive" : "Connection: close";
    // An empty value leaves the library's own line out.
    const Lines lines = message == nullptr
                            ? HeaderLines({"Accept:", connection})
                            : HeaderLines({"Accept:", connection,
                                           "Expect:", "Content-Type: text/xml;charset=\"utf-8\""});
    curl_easy_setopt(transfer, CURLOPT_URL, url.c_str());
    curl_easy_setopt(transfer, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(transfer, CURLOPT_PATH_AS_IS, 1L);
    // A box is on this network, whatever the environment says of others.
    curl_easy_setopt(transfer, CURLOPT_PROXY, "");
    curl_easy_setopt(transfer, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(transfer, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_0));
    curl_easy_setopt(transfer, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
    curl_easy_setopt(transfer, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(transfer, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout.count()));
    curl_easy_setopt(transfer, CURLOPT_HTTPHEADER, lines.get());
    curl_easy_setopt(transfer, CURLOPT_HEADERFUNCTION, TakeHead);
    curl_easy_setopt(transfer, CURLOPT_HEADERDATA, &received);
    curl_easy_setopt(transfer, CURLOPT_WRITEFUNCTION, TakeBody);
    curl_easy_setopt(transfer, CURLOPT_WRITEDATA, &received);
    if (message != nullptr) {
        curl_easy_setopt(transfer, CURLOPT_POSTFIELDS, message->data());
        curl_easy_setopt(transfer, CURLOPT_POSTFIELDSIZE, static_cast<long>(message->size()));
    }
    if (const CURLcode code =
            Run(connections.transfers, transfer, timeout, connections.interruption, received);
        code != CURLE_OK) {
        return Failure(box, transfer, code, received);
    }
    long status = 0;
    curl_easy_getinfo(transfer, CURLINFO_RESPONSE_CODE, &status);
    body = std::move(received.body);
    const bool isAny = !body.empty() && (message != nullptr || status == kOk);
    return isAny ? Outcome()
                 : Outcome{ExitStatus::kNotUnderstood,
                           box.ToText() + " answers " + std::to_string(status) +
                               ", and no document, for " + path + "; is it a box?"};
}

Outcome ExchangeOnce(const BoxAddress& box, const std::string& path, const std::string* message,
                     std::chrono::milliseconds timeout, std::string& body) {
    const Transfers transfers(curl_multi_init());
    return Exchange({transfers.get(), false, kNone}, box, path, message, timeout, body);
}

}  // namespace

struct Kept::Library {
    Transfers transfers{curl_multi_init()};
    int interruption = kNone;
};

Kept::Kept(int interruption) : library_(std::make_unique<Library>()) {
    library_->interruption = interruption;
}

Kept::~Kept() = default;

Outcome Kept::Get(const BoxAddress& box, const std::string& path, std::chrono::milliseconds timeout,
                  std::string& body) {
    return Exchange({library_->transfers.get(), true, library_->interruption}, box, path, nullptr,
                    timeout, body);
}

Outcome Get(const BoxAddress& box, const std::string& path, std::chrono::milliseconds timeout,
            std::string& body) {
    return ExchangeOnce(box, path, nullptr, timeout, body);
}

Outcome Post(const BoxAddress& box, const std::string& path, const std::string& message,
             std::chrono::milliseconds timeout, std::string& body) {
    return ExchangeOnce(box, path, &message, timeout, body);
}

}  // namespace HttpClient
