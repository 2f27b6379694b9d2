#include "DurableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "Descriptors.h"
#include "SocketGuard.h"

namespace DurableFile {
namespace {

constexpr std::size_t kBlockSize = std::size_t{64} * 1024;

/// Makes the file of what `fill` writes to its descriptor.
template <typename Fill>
bool Make(const std::string& path, mode_t mode, const Fill& fill) {
    const SocketGuard file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (file.Get() < 0) {
        return false;
    }
    // A file that was there keeps its mode otherwise.
    if (fchmod(file.Get(), mode) != 0 || !fill(file.Get()) || fsync(file.Get()) != 0) {
        std::remove(path.c_str());
        return false;
    }
    return SyncDirectoryOf(path);
}

template <typename Fill>
bool ReplaceBy(const std::string& path, mode_t mode, const Fill& fill) {
    const std::string newPath = path + ".new";
    if (!Make(newPath, mode, fill)) {
        return false;
    }
    if (std::rename(newPath.c_str(), path.c_str()) != 0) {
        std::remove(newPath.c_str());
        return false;
    }
    return SyncDirectoryOf(path);
}

/// Copies what is left to be read.
bool Copy(int from, int to) {
    std::vector<char> block(kBlockSize);  // not on the small stack of a service thread
    ssize_t count = 0;
    while ((count = read(from, block.data(), block.size())) > 0) {
        if (!Descriptors::WriteAll(to, {block.data(), static_cast<std::size_t>(count)})) {
            return false;
        }
    }
    return count == 0;
}

}  // namespace

bool SyncDirectoryOf(const std::string& path) {
    const std::string directory = path.substr(0, path.rfind('/'));
    const SocketGuard descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor.Get() >= 0 && fsync(descriptor.Get()) == 0;
}

bool Write(const std::string& path, std::string_view text, mode_t mode) {
    return Make(path, mode, [text](int file) { return Descriptors::WriteAll(file, text); });
}

bool Replace(const std::string& path, std::string_view text, mode_t mode) {
    return ReplaceBy(path, mode, [text](int file) { return Descriptors::WriteAll(file, text); });
}

bool ReplaceByCopy(const std::string& path, const std::string& source, mode_t mode) {
    const SocketGuard in(open(source.c_str(), O_RDONLY | O_CLOEXEC));
    return in.Get() >= 0 && ReplaceBy(path, mode, [&in](int file) { return Copy(in.Get(), file); });
}

}  // namespace DurableFile
