#include "BoxChanges.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr std::size_t kStateColumn = 4;
constexpr char kGone[] = "gone";

std::string NameOf(const BoxTable::Row& row) {
    return row[0] + " (" + row[1] + ")";
}

/// Marks the cells that differ and puts them into words.
void Compare(const BoxTable::Row& before, BoxTable::Line& line, BoxChanges::Texts& texts) {
    for (std::size_t i = 0; i < line.row.size(); ++i) {
        line.changed[i] = line.row[i] != before[i];
        if (line.changed[i]) {
            texts.push_back(NameOf(line.row) + " " + BoxTable::kColumns[i] + " '" + before[i] +
                            "' -> '" + line.row[i] + "'");
        }
    }
}

}  // namespace

std::vector<BoxTable::Line> BoxChanges::Next(const std::vector<Box>& boxes, Texts& texts) {
    std::map<std::uint32_t, BoxTable::Line> lines;
    std::map<std::uint32_t, Known> now;
    for (const Box& box : boxes) {
        const std::uint32_t key = ntohl(inet_addr(box.address.c_str()));
        BoxTable::Line line = BoxTable::MakeLine(box);
        now.emplace(key, Known{line});
        const auto found = before_.find(key);
        if (found != before_.end()) {
            Compare(found->second.line.row, line, texts);
        } else {
            texts.push_back(NameOf(line.row) + " is there, " + line.row[kStateColumn]);
            line.changed.fill(!isFirst_);
        }
        lines.emplace(key, line);
    }
    for (auto& [key, known] : before_) {
        if (now.contains(key)) {
            continue;
        }
        if (!known.isMissed) {
            now.emplace(key, Known{known.line, true});
        } else {
            texts.push_back(NameOf(known.line.row) + " is gone");
            known.line.row[kStateColumn] = kGone;
            known.line.changed.fill(true);
        }
        lines.emplace(key, known.line);
    }
    before_ = std::move(now);
    isFirst_ = false;
    std::vector<BoxTable::Line> shown;
    std::transform(lines.begin(), lines.end(), std::back_inserter(shown),
                   [](const auto& entry) { return entry.second; });
    return shown;
}
