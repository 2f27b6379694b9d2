#include "FileTools.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <vector>

#include "SocketGuard.h"

namespace FileTools {
namespace {

constexpr mode_t kFileMode = 0644;
constexpr std::size_t kBlockSize = 64 * 1024;

std::string TemporaryName(const std::string& path) {
    return path + ".tmp";
}

SocketGuard OpenTemporary(const std::string& path) {
    return SocketGuard(
        open(TemporaryName(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
}

bool WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(written < 0 ? 0 : written));
    }
    return true;
}

/// Puts the temporary file in the place of `path`, or removes it when it is not complete.
bool Conclude(const std::string& path, bool complete) {
    const std::string temporary = TemporaryName(path);
    if (complete && std::rename(temporary.c_str(), path.c_str()) == 0) {
        return SyncDirectory(path.substr(0, path.rfind('/')));
    }
    std::remove(temporary.c_str());
    return false;
}

}  // namespace

bool SyncDirectory(const std::string& directory) {
    const SocketGuard descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor.Get() >= 0 && fsync(descriptor.Get()) == 0;
}

bool Replace(const std::string& path, std::string_view text) {
    bool complete = false;
    {
        const SocketGuard out = OpenTemporary(path);
        complete = out.Get() >= 0 && WriteAll(out.Get(), text) && fsync(out.Get()) == 0;
    }
    return Conclude(path, complete);
}

bool ReplaceByCopy(const std::string& path, const std::string& source) {
    const SocketGuard in(open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.Get() < 0) {
        return false;
    }
    bool complete = false;
    {
        const SocketGuard out = OpenTemporary(path);
        std::vector<char> block(kBlockSize);  // not on the small stack of a service thread
        ssize_t count = -1;
        complete = out.Get() >= 0;
        while (complete && (count = read(in.Get(), block.data(), block.size())) > 0) {
            complete = WriteAll(out.Get(), {block.data(), static_cast<std::size_t>(count)});
        }
        complete = complete && count == 0 && fsync(out.Get()) == 0;
    }
    return Conclude(path, complete);
}

std::string FirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

}  // namespace FileTools
