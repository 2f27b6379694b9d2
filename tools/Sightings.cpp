#include "Sightings.h"

#include <ctime>
#include <filesystem>

#include "HandleStore.h"
#include "WholeFile.h"

namespace Sightings {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kForTheUser = 0600;
constexpr BoxMemory::Seconds kForgetAfter = 7L * 24 * 60 * 60;

BoxMemory Add(const std::vector<Box>& boxes) {
    BoxMemory memory;
    const std::string path = Path();
    std::string text;
    if (!path.empty() && !WholeFile::Read(path, text).Failed()) {
        memory.Read(text);
    }
    memory.Add(boxes, std::time(nullptr), kForgetAfter);
    if (!path.empty()) {
        static_cast<void>(WholeFile::Replace(path, memory.ToText(), kForTheUser));
    }
    return memory;
}

}  // namespace

std::string Path() {
    const std::string directory = HandleStore::PathOf("");
    std::error_code error;
    if (!directory.empty() && fs::create_directories(directory, error)) {
        fs::permissions(directory, fs::perms::owner_all, error);
    }
    return directory.empty() ? "" : directory + "metrics.state";
}

void Note(const std::vector<Box>& boxes) {
    if (!boxes.empty()) {
        Add(boxes);
    }
}

std::optional<BoxMemory::Seconds> NoteReserved(const Box& box) {
    const BoxMemory memory = Add({box});
    const auto found = memory.All().find(BoxMemory::KeyOf(box));
    return found == memory.All().end() || found->second.reservedSince == 0
               ? std::nullopt
               : std::optional(found->second.reservedSince);
}

}  // namespace Sightings
