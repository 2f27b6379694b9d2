#include "BoxMemory.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <set>

#include "Numbers.h"
#include "SafeText.h"
#include "SlpEscapes.h"

namespace {

constexpr std::string_view kHead = "zelctl boxes 1\n";

/// The text up to `end`, which is taken away with it.
std::string_view TakeUpTo(std::string_view& text, char end) {
    const std::size_t size = std::min(text.find(end), text.size());
    const std::string_view taken = text.substr(0, size);
    text.remove_prefix(std::min(size + 1, text.size()));
    return taken;
}

}  // namespace

std::string BoxMemory::Value(const std::string& text) {
    return SafeText::Shorten(SafeText::Line(text), kMaxValue);
}

BoxMemory::Key BoxMemory::KeyOf(const Box& box) {
    return {Value(box.DeviceId()), box.address};
}

void BoxMemory::Read(std::string_view text) {
    if (!text.starts_with(kHead)) {
        return;
    }
    text.remove_prefix(kHead.size());
    while (!text.empty()) {
        std::string_view line = TakeUpTo(text, '\n');
        std::array<std::string_view, 5> fields;
        std::generate(fields.begin(), fields.end(), [&line] { return TakeUpTo(line, '\t'); });
        const auto lastSeen = Numbers::Parse<Seconds>(fields[0]);
        const auto reservedSince = Numbers::Parse<Seconds>(fields[1]);
        if (lastSeen && reservedSince && *lastSeen > 0 && *reservedSince >= 0 &&
            !fields[2].empty()) {
            const auto value = [&fields](std::size_t i) {
                return Value(SlpEscapes::Unescape(fields[i]));
            };
            entries_.insert_or_assign({value(3), value(2)},
                                      Entry{*lastSeen, *reservedSince, value(4), false});
        }
    }
    ForgetTooMany();
}

std::string BoxMemory::ToText() const {
    std::string text(kHead);
    for (const auto& [key, entry] : entries_) {
        text += std::to_string(entry.lastSeen) + "\t" + std::to_string(entry.reservedSince) + "\t" +
                key.address + "\t" + SlpEscapes::Escape(key.serial) + "\t" +
                SlpEscapes::Escape(entry.owner) + "\n";
    }
    return text;
}

void BoxMemory::Add(const std::vector<Box>& boxes, Seconds now, Seconds forgetAfter) {
    for (auto& [key, entry] : entries_) {
        entry.lastSeen = std::min(entry.lastSeen, now);  // the clock may have been set
        entry.isThere = false;
    }
    std::set<std::string> seen;
    for (const Box& box : boxes) {
        const Key key = KeyOf(box);
        seen.insert(key.serial);
        const Entry before = entries_[key];
        Entry entry{now, 0, Value(box.Attribute("Owner")), true};
        if (box.State() == "reserved") {
            const bool isTheSame = before.reservedSince > 0 && before.owner == entry.owner;
            entry.reservedSince = isTheSame ? std::min(before.reservedSince, now) : now;
        }
        entries_[key] = entry;
    }
    std::erase_if(entries_, [&](const auto& known) {
        const auto& [key, entry] = known;
        const bool hasMoved = !entry.isThere && !key.serial.empty() && seen.contains(key.serial);
        return hasMoved || now - entry.lastSeen > forgetAfter;
    });
    ForgetTooMany();
}

void BoxMemory::ForgetTooMany() {
    if (entries_.size() <= kMaxEntries) {
        return;
    }
    std::vector<Entries::iterator> oldestFirst;
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
        oldestFirst.push_back(entry);
    }
    std::stable_sort(oldestFirst.begin(), oldestFirst.end(),
                     [](const auto& one, const auto& other) {
                         return one->second.lastSeen < other->second.lastSeen;
                     });
    oldestFirst.resize(entries_.size() - kMaxEntries);
    for (const Entries::iterator entry : oldestFirst) {
        entries_.erase(entry);
    }
}
