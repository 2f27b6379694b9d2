#include "BoxChanges.h"

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
    std::map<std::string, BoxTable::Line> now;
    std::vector<BoxTable::Line> lines;
    for (const Box& box : boxes) {
        BoxTable::Line line = BoxTable::MakeLine(box);
        now.emplace(box.address, line);
        const auto found = before_.find(box.address);
        if (found != before_.end()) {
            Compare(found->second.row, line, texts);
        } else {
            texts.push_back(NameOf(line.row) + " is there, " + line.row[kStateColumn]);
            line.changed.fill(!isFirst_);
        }
        lines.push_back(line);
    }
    for (auto& [address, line] : before_) {
        if (!now.contains(address)) {
            texts.push_back(NameOf(line.row) + " is gone");
            line.row[kStateColumn] = kGone;
            line.changed.fill(true);
            lines.push_back(line);
        }
    }
    before_ = std::move(now);
    isFirst_ = false;
    return lines;
}
