#include "DurableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "SocketGuard.h"

namespace DurableFile {
namespace {

bool WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

bool SyncDirectoryOf(const std::string& path) {
    const std::string directory = path.substr(0, path.rfind('/'));
    const SocketGuard descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor.Get() >= 0 && fsync(descriptor.Get()) == 0;
}

bool Write(const std::string& path, std::string_view text, mode_t mode) {
    const SocketGuard file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (file.Get() < 0) {
        return false;
    }
    // A file that was there keeps its mode otherwise.
    if (fchmod(file.Get(), mode) != 0 || !WriteAll(file.Get(), text) || fsync(file.Get()) != 0) {
        std::remove(path.c_str());
        return false;
    }
    return SyncDirectoryOf(path);
}

bool Replace(const std::string& path, std::string_view text, mode_t mode) {
    const std::string newPath = path + ".new";
    if (!Write(newPath, text, mode)) {
        return false;
    }
    if (std::rename(newPath.c_str(), path.c_str()) != 0) {
        std::remove(newPath.c_str());
        return false;
    }
    return SyncDirectoryOf(path);
}

}  // namespace DurableFile
