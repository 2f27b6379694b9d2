#include "MetricsCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>

#include "BoxFinder.h"
#include "BoxMemory.h"
#include "Descriptors.h"
#include "File.h"
#include "Metrics.h"
#include "Report.h"
#include "Sightings.h"
#include "SocketGuard.h"

namespace MetricsCommand {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kForAll = 0644;
constexpr mode_t kForTheUser = 0600;

Outcome Failure(const std::string& path, const std::string& what) {
    return {ExitStatus::kNotWritten, "'" + path + "' " + what};
}

/// Whether a file may be put at that path. A device or a directory would be no file afterwards, or
/// be in the way when everything else is done.
Outcome CheckTarget(const std::string& path) {
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

/// Puts a file that holds `text` in the place of the one at `path`. Its name while it is written is
/// nobody else's, so that two who write at a time do not mix, and none that a collector reads.
Outcome Replace(const std::string& path, std::string_view text, mode_t mode) {
    std::error_code error;
    // A link stays one.
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

Outcome Read(const std::string& path, BoxMemory& memory) {
    const File file = OpenToRead(path);
    if (file == nullptr) {
        return errno == ENOENT
                   ? Outcome()
                   : Failure(path, "cannot be read: " + std::string(std::strerror(errno)));
    }
    constexpr std::size_t kMost = std::size_t{8} * 1024 * 1024;
    std::string text(kMost, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    memory.Read(text);
    return {};
}

}  // namespace

Outcome Run(const Options& options) {
    const bool toFile = !options.output.empty() && options.output != "-";
    const std::string statePath = options.stateFile.empty() ? Sightings::Path() : options.stateFile;
    if (statePath.empty()) {
        return {ExitStatus::kNotWritten,
                "what was seen cannot be kept, for HOME is not set; name a file with --state"};
    }
    const auto whole = [](const std::string& path) {
        std::error_code error;
        return fs::absolute(path, error).lexically_normal();
    };
    if (toFile && whole(options.output) == whole(statePath)) {
        return {ExitStatus::kUsage, "'" + statePath + "' cannot be both --output and --state"};
    }
    BoxMemory memory;
    for (Outcome outcome :
         {CheckTarget(statePath), toFile ? CheckTarget(options.output) : Outcome(),
          Read(statePath, memory)}) {
        if (outcome.Failed()) {
            return outcome;
        }
    }
    const std::vector<Box> boxes = BoxFinder::Find(options.wait);
    const BoxMemory::Seconds now = std::time(nullptr);
    memory.Add(boxes, now, options.forget.count());
    const auto temperatures =
        options.temperature ? BoxTemperature::Ask(boxes) : std::map<std::string, BoxTemperature>();
    const std::string text = Metrics::Render(
        boxes, memory, now, {options.ownerLabel, options.temperature ? &temperatures : nullptr});
    if (Outcome outcome = toFile ? Replace(options.output, text, kForAll) : Outcome();
        outcome.Failed()) {
        return outcome;
    }
    if (options.json) {
        Report::Print({{"boxes", boxes.size()},
                       {"output", toFile ? Report::Json(options.output) : Report::Json()},
                       {"metrics", toFile ? Report::Json() : Report::Json(text)}});
    } else if (!toFile) {
        std::fputs(text.c_str(), stdout);
    } else if (!options.output.ends_with(".prom")) {
        std::fprintf(stderr, "zelctl: node_exporter reads files that end in .prom only\n");
    }
    return Replace(statePath, memory.ToText(), kForTheUser);
}

}  // namespace MetricsCommand
