#pragma once

#include <string>
#include <string_view>

/// Files that are there as a whole or not at all, also after a power cut. Every step is synced.
namespace FileTools {

/// Makes what was renamed or made in the directory durable.
bool SyncDirectory(const std::string& directory);

/// Replaces the file at `path` by one that holds `text`.
bool Replace(const std::string& path, std::string_view text);

/// Replaces the file at `path` by a copy of the file at `source`.
bool ReplaceByCopy(const std::string& path, const std::string& source);

/// First line of a file, empty when it cannot be read.
std::string FirstLine(const std::string& path);

}  // namespace FileTools
