#include "BoxTemperature.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <system_error>
#include <thread>

#include "HttpClient.h"
#include "Numbers.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kPath[] = "/web/show.jsp?file=/tmp/../proc/sys/atmel/acttemp";
constexpr std::chrono::seconds kTimeout{2};  // for each box
constexpr std::chrono::seconds kNoMoreAfter{10};
constexpr std::size_t kAtATime = 16;

}  // namespace

std::optional<BoxTemperature> BoxTemperature::Read(std::string_view text) {
    constexpr std::string_view kBegin = "Temp:";
    constexpr unsigned kTooHot = 0x10;
    text = text.substr(0, text.find_first_of("\r\n"));
    const std::size_t comma = text.find(',');
    const std::size_t colon = text.find(':', comma);
    if (!text.starts_with(kBegin) || colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view status = text.substr(colon + 1);
    status.remove_prefix(std::min(status.find_first_not_of(' '), status.size()));
    if (status.starts_with("0x") || status.starts_with("0X")) {
        status.remove_prefix(2);
    }
    status = status.substr(0, status.find_first_not_of("0123456789abcdefABCDEF"));
    const auto word = Numbers::Parse<unsigned>(status, Numbers::kHexadecimal);
    if (!word) {
        return std::nullopt;
    }
    return BoxTemperature{Numbers::Parse<int>(text.substr(kBegin.size(), comma - kBegin.size())),
                          (*word & kTooHot) != 0};
}

std::map<std::string, BoxTemperature> BoxTemperature::Ask(const std::vector<Box>& boxes) {
    std::map<std::string, BoxTemperature> told;
    std::mutex mutex;
    std::atomic<std::size_t> next = 0;
    const Clock::time_point end = Clock::now() + kNoMoreAfter;
    const auto ask = [&] {
        for (std::size_t i = next++; i < boxes.size() && Clock::now() < end; i = next++) {
            std::string text;
            const Outcome outcome = HttpClient::Get({boxes[i].address}, kPath, kTimeout, text);
            const auto temperature = outcome.Failed() ? std::nullopt : Read(text);
            const std::lock_guard lock(mutex);
            if (temperature) {
                told.emplace(boxes[i].address, *temperature);
            }
        }
    };
    std::vector<std::jthread> others;
    try {
        while (others.size() + 1 < std::min(kAtATime, boxes.size())) {
            others.emplace_back(ask);
        }
    } catch (const std::system_error&) {
        // As many as there are do it.
    }
    ask();
    others.clear();
    return told;
}
