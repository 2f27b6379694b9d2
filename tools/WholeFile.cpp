#include "WholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Descriptors.h"
#include "File.h"
#include "SocketGuard.h"

namespace WholeFile {
namespace {

namespace fs = std::filesystem;

Outcome Failure(const std::string& path, const std::string& what) {
    return {ExitStatus::kNotWritten, "'" + path + "' " + what};
}

}  // namespace

Outcome Check(const std::string& path) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        return Failure(path, "is no regular file, and cannot be replaced by one");
    }
    const fs::path directory = fs::absolute(path, error).parent_path();
    if (!fs::is_directory(directory, error)) {
        return Failure(path,
                       "cannot be written: there is no directory '" + directory.string() + "'");
    }
    if (access(directory.c_str(), W_OK | X_OK) != 0) {
        return Failure(path, "cannot be written: " + std::string(std::strerror(errno)) + " in '" +
                                 directory.string() + "'");
    }
    return {};
}

Outcome Read(const std::string& path, std::string& text) {
    constexpr std::size_t kMost = std::size_t{8} * 1024 * 1024;
    text.clear();
    const File file = OpenToRead(path);
    if (file == nullptr) {
        return errno == ENOENT
                   ? Outcome()
                   : Failure(path, "cannot be read: " + std::string(std::strerror(errno)));
    }
    text.resize(kMost);
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    return {};
}

Outcome Replace(const std::string& path, std::string_view text, mode_t mode) {
    std::error_code error;
    const fs::path target =
        fs::is_symlink(path, error) ? fs::canonical(path, error) : fs::path(path);
    std::string name =
        (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
    const SocketGuard file(mkostemp(name.data(), O_CLOEXEC));
    if (file.Get() < 0) {
        return Failure(path, "cannot be written: " + std::string(std::strerror(errno)));
    }
    if (fchmod(file.Get(), mode) != 0 || !Descriptors::WriteAll(file.Get(), text) ||
        fsync(file.Get()) != 0 || std::rename(name.c_str(), target.c_str()) != 0) {
        const int why = errno;
        std::remove(name.c_str());
        return Failure(path, "cannot be written: " + std::string(std::strerror(why)));
    }
    return {};
}

}  // namespace WholeFile
