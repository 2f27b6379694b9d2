#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

/// Files that survive a power cut at any moment.
namespace DurableFile {

/// Mode of a file that others may read.
inline constexpr mode_t kPublic = 0644;
/// Mode of a file that holds keys or passwords.
inline constexpr mode_t kSecret = 0600;

/// Writes the file and waits until it and its name are on the disk. Returns false, and removes what
/// was written, when that fails.
[[nodiscard]] bool Write(const std::string& path, std::string_view text, mode_t mode);

/// Puts a file that holds `text` in the place of the one at `path`, which is there as a whole until
/// the new one is. Returns false when that fails; the old one is there then, and nothing else.
[[nodiscard]] bool Replace(const std::string& path, std::string_view text, mode_t mode);

/// The same with a copy of the file at `source`.
[[nodiscard]] bool ReplaceByCopy(const std::string& path, const std::string& source, mode_t mode);

/// Waits until what was made or renamed in the file's directory is on the disk.
[[nodiscard]] bool SyncDirectoryOf(const std::string& path);

}  // namespace DurableFile
