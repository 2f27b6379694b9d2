#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "BoxTable.h"

/// Tells how the boxes of one search differ from those of the search before.
class BoxChanges {
public:
    /// A change in one line of text, without line feed.
    using Texts = std::vector<std::string>;

    /// Takes the boxes of the next search. Returns their lines in the order of their addresses,
    /// what is new marked, and a line for every box that is gone: that two searches in a row have
    /// not found, for answers get lost. `texts` gets the changes in words.
    std::vector<BoxTable::Line> Next(const std::vector<Box>& boxes, Texts& texts);

private:
    struct Known {
        BoxTable::Line line;
        bool isMissed = false;
    };

    /// By the boxes' addresses as numbers.
    std::map<std::uint32_t, Known> before_;
    bool isFirst_ = true;
};
