#include "MetricsCommand.h"

#include <sys/types.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "BoxFinder.h"
#include "BoxMemory.h"
#include "Metrics.h"
#include "Report.h"
#include "Sightings.h"
#include "WholeFile.h"

namespace MetricsCommand {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kForAll = 0644;
constexpr mode_t kForTheUser = 0600;

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
    std::string seen;
    for (Outcome outcome :
         {WholeFile::Check(statePath), toFile ? WholeFile::Check(options.output) : Outcome(),
          WholeFile::Read(statePath, seen)}) {
        if (outcome.Failed()) {
            return outcome;
        }
    }
    BoxMemory memory;
    memory.Read(seen);
    const std::vector<Box> boxes = BoxFinder::Find(options.wait);
    const BoxMemory::Seconds now = std::time(nullptr);
    memory.Add(boxes, now, options.forget.count());
    const auto temperatures =
        options.temperature ? BoxTemperature::Ask(boxes) : std::map<std::string, BoxTemperature>();
    const std::string text = Metrics::Render(
        boxes, memory, now, {options.ownerLabel, options.temperature ? &temperatures : nullptr});
    if (Outcome outcome = toFile ? WholeFile::Replace(options.output, text, kForAll) : Outcome();
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
    return WholeFile::Replace(statePath, memory.ToText(), kForTheUser);
}

}  // namespace MetricsCommand
