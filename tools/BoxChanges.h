#pragma once

#include <map>
#include <string>
#include <vector>

#include "BoxTable.h"

/// Tells how the boxes of one search differ from those of the search before.
class BoxChanges {
public:
    /// A change in one line of text, without line feed.
    using Texts = std::vector<std::string>;

    /// Takes the boxes of the next search. Returns their lines, in which what is new is marked, and
    /// a line for every box that is gone; `texts` gets the changes in words.
    std::vector<BoxTable::Line> Next(const std::vector<Box>& boxes, Texts& texts);

private:
    std::map<std::string, BoxTable::Line> before_;
    bool isFirst_ = true;
};
