#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "Box.h"

/// What earlier searches have found: when each box was last seen, and since when it is reserved.
/// Boxes are told apart by serial number and address. Times are seconds since 1970.
class BoxMemory {
public:
    using Seconds = std::int64_t;

    struct Key {
        std::string serial;
        std::string address;
        bool operator<(const Key& other) const {
            return std::tie(serial, address) < std::tie(other.serial, other.address);
        }
    };
    struct Entry {
        Seconds lastSeen = 0;
        /// 0 when it was free.
        Seconds reservedSince = 0;
        std::string owner;
        /// Whether the last search has found it.
        bool isThere = false;
    };
    using Entries = std::map<Key, Entry>;

    /// Most boxes that are remembered: whoever forges answers may have as many forgotten.
    static constexpr std::size_t kMaxEntries = 8192;
    /// Characters that are kept of what a box says.
    static constexpr std::size_t kMaxValue = 64;

    /// Takes what ToText has told; lines that are no such ones do not count.
    void Read(std::string_view text);
    /// A line for each box, and one for the format in front.
    std::string ToText() const;

    /// The boxes of a search that ended at `now`. What has not been seen for `forgetAfter` seconds
    /// is forgotten, and so is where a box was that is at another address now.
    void Add(const std::vector<Box>& boxes, Seconds now, Seconds forgetAfter);

    const Entries& All() const { return entries_; }

    static Key KeyOf(const Box& box);
    /// A text of a box as it is kept and told: fit to be shown, and of limited length.
    static std::string Value(const std::string& text);

private:
    void ForgetTooMany();

    Entries entries_;
};
