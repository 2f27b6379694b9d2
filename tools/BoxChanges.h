#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "BoxTable.h"

/// Tells how the boxes of one search differ from those of the search before.
class BoxChanges {
public:
    enum class Event { kThere, kChanged, kGone };

    struct Change {
        Event event = Event::kThere;
        Box box;  ///< as it is now; one that is gone as it was
        /// In words, lines without line feed.
        std::vector<std::string> texts;
        /// The columns in which it has changed.
        std::vector<std::string> columns;
    };

    /// Takes the boxes of the next search. Returns their lines in the order of their addresses,
    /// what is new marked, and a line for every box that is gone: that two searches in a row have
    /// not found, for answers get lost. `changes` gets what has changed behind what it holds.
    std::vector<BoxTable::Line> Next(const std::vector<Box>& boxes, std::vector<Change>& changes);

private:
    struct Known {
        Box box;
        BoxTable::Line line;
        bool isMissed = false;
    };

    /// By the boxes' addresses as numbers.
    std::map<std::uint32_t, Known> before_;
    bool isFirst_ = true;
};
