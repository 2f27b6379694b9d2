#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "Outcome.h"

/// Files that several programs may read and write at a time: each is there as a whole, or not at
/// all.
namespace WholeFile {

/// Whether a file may be put at that path. A device or a directory would be no file afterwards, or
/// be in the way when everything else is done.
Outcome Check(const std::string& path);

/// Sets `text` to what the file holds, at most 8 MiB; one that is not there is empty.
Outcome Read(const std::string& path, std::string& text);

/// Puts a file that holds `text` in the place of the one at `path`, which stays as it was when that
/// fails. Its name while it is written is nobody else's, so that two who write at a time do not
/// mix, and none that a collector reads. A link stays one.
Outcome Replace(const std::string& path, std::string_view text, mode_t mode);

}  // namespace WholeFile
