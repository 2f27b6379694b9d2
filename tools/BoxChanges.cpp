#include "BoxChanges.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr std::size_t kSerialColumn = 1;
constexpr std::size_t kStateColumn = 4;
constexpr char kGone[] = "gone";

std::string NameOf(const BoxTable::Row& row) {
    return row[0] + " (" + row[1] + ")";
}

/// Tells of a box that shares its serial number, or does so no more.
void CompareSerials(std::size_t before, BoxTable::Line& line, BoxChanges::Change& change) {
    if (line.sameSerial != before) {
        line.changed[kSerialColumn] = true;
        change.columns.emplace_back(BoxTable::kColumns[kSerialColumn]);
        change.texts.push_back(NameOf(line.row) +
                               (line.sameSerial == 1
                                    ? " is the only box with this serial number"
                                    : " is one of " + std::to_string(line.sameSerial) +
                                          " boxes with this serial number"));
    }
}

/// Marks the cells that differ and puts them into words.
void Compare(const BoxTable::Row& before, BoxTable::Line& line, BoxChanges::Change& change) {
    for (std::size_t i = 0; i < line.row.size(); ++i) {
        line.changed[i] = line.row[i] != before[i];
        if (line.changed[i]) {
            change.columns.emplace_back(BoxTable::kColumns[i]);
            change.texts.push_back(NameOf(line.row) + " " + BoxTable::kColumns[i] + " '" +
                                   before[i] + "' -> '" + line.row[i] + "'");
        }
    }
}

}  // namespace

std::vector<BoxTable::Line> BoxChanges::Next(const std::vector<Box>& boxes,
                                             std::vector<Change>& changes) {
    std::map<std::uint32_t, Known> now;
    std::vector<BoxTable::Line*> there;
    for (const Box& box : boxes) {
        const std::uint32_t key = ntohl(inet_addr(box.address.c_str()));
        there.push_back(&now.emplace(key, Known{box, BoxTable::MakeLine(box)}).first->second.line);
    }
    for (const auto& [key, known] : before_) {
        const auto [entry, isNew] = now.try_emplace(key, Known{known.box, known.line, true});
        if (isNew && known.isMissed) {
            now.erase(entry);
        } else if (isNew) {
            there.push_back(&entry->second.line);
        }
    }
    BoxTable::CountSerials(there);
    std::map<std::uint32_t, BoxTable::Line> lines;
    for (const auto& [key, known] : now) {
        BoxTable::Line line = known.line;
        Change change{Event::kChanged, known.box, {}, {}};
        const auto found = before_.find(key);
        if (found != before_.end()) {
            Compare(found->second.line.row, line, change);
        } else {
            change.event = Event::kThere;
            change.texts.push_back(NameOf(line.row) + " is there, " + line.row[kStateColumn]);
            line.changed.fill(!isFirst_);
        }
        CompareSerials(found != before_.end() ? found->second.line.sameSerial : 1, line, change);
        if (!change.texts.empty()) {
            changes.push_back(std::move(change));
        }
        lines.emplace(key, std::move(line));
    }
    for (auto& [key, known] : before_) {
        if (!now.contains(key)) {
            changes.push_back({Event::kGone, known.box, {NameOf(known.line.row) + " is gone"}, {}});
            known.line.row[kStateColumn] = kGone;
            known.line.changed.fill(true);
            lines.emplace(key, std::move(known.line));
        }
    }
    before_ = std::move(now);
    isFirst_ = false;
    std::vector<BoxTable::Line> shown;
    std::transform(lines.begin(), lines.end(), std::back_inserter(shown),
                   [](auto& entry) { return std::move(entry.second); });
    return shown;
}
