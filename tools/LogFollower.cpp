#include "LogFollower.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

namespace {

/// The next word of a line, or the rest of one without another.
std::string_view TakeWord(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const std::size_t end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(end);
    return word;
}

}  // namespace

std::string LogFollower::Next(const std::string& current,
                              const std::function<std::string()>& older) {
    const std::string whole = current.substr(0, current.rfind('\n') + 1);
    std::string fresh;
    if (whole.starts_with(seen_)) {
        fresh = whole.substr(seen_.size());
    } else {
        const std::string renamed = older();
        fresh = (renamed.starts_with(seen_) ? renamed.substr(seen_.size()) : "") + whole;
    }
    seen_ = whole;
    return fresh;
}

std::string DownloadFilter::Next(const std::string& added) {
    constexpr std::string_view kConnection = "Webservices connection from ";
    constexpr std::string_view kRequest = "Passing request for '";
    constexpr std::string_view kLogRequest =
        "Passing request for '/web/show.jsp?file=/tmp/log/nativezel.";
    constexpr std::string_view kFile = "filename=/tmp/log/nativezel.";
    constexpr std::string_view kEnd = "Closing connection to ";
    constexpr std::size_t kMaxThreads = 1000;
    std::vector<std::string_view> kept;
    const auto heldCount = static_cast<std::size_t>(std::count(held_.begin(), held_.end(), '\n'));
    const std::string all = std::exchange(held_, {}).append(added);
    std::string_view lines = all;
    std::vector<std::size_t> connections;  // from which nothing has come yet
    while (!lines.empty()) {
        const std::size_t size = std::min(lines.find('\n'), lines.size() - 1) + 1;
        const std::string_view line = lines.substr(0, size);
        lines.remove_prefix(size);
        // Day, time of day, level and thread stand before the text.
        std::string_view text = line;
        TakeWord(text);
        TakeWord(text);
        TakeWord(text);
        const std::string thread(TakeWord(text));
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        const bool isServing = threads_.contains(thread);
        if (text.starts_with(kLogRequest)) {
            if (!isServing && !connections.empty()) {
                kept[connections.back()] = {};
                connections.pop_back();
            }
            if (threads_.size() < kMaxThreads) {
                threads_.insert(thread);
            }
            continue;
        }
        const bool isEnd = text.starts_with(kEnd);
        if (isServing && (isEnd || text.starts_with(kRequest))) {
            threads_.erase(thread);
        }
        if (isServing && (isEnd || text.starts_with(kFile))) {
            continue;
        }
        if (text.starts_with(kConnection)) {
            connections.push_back(kept.size());
        } else if (text.starts_with(kRequest) && !isServing && !connections.empty()) {
            connections.pop_back();
        }
        kept.push_back(line);
    }
    // What the last connections are for may not be known yet; nobody waits for it twice.
    std::size_t end = kept.size();
    while (end > heldCount &&
           (kept[end - 1].empty() || (!connections.empty() && connections.back() == end - 1))) {
        --end;
        if (!kept[end].empty()) {
            connections.pop_back();
        }
    }
    std::string others;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        (i < end ? others : held_) += kept[i];
    }
    return others;
}
