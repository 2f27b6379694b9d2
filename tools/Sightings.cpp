#include "Sightings.h"

#include <cstdio>
#include <ctime>
#include <filesystem>

#include "DurableFile.h"
#include "File.h"
#include "HandleStore.h"

namespace Sightings {
namespace {

namespace fs = std::filesystem;

constexpr BoxMemory::Seconds kForgetAfter = 7L * 24 * 60 * 60;

std::string Read(const std::string& path) {
    constexpr std::size_t kMost = std::size_t{8} * 1024 * 1024;
    const File file = OpenToRead(path);
    std::string text(file == nullptr ? 0 : kMost, '\0');
    text.resize(file == nullptr ? 0 : std::fread(text.data(), 1, text.size(), file.get()));
    return text;
}

BoxMemory Add(const std::vector<Box>& boxes) {
    BoxMemory memory;
    const std::string path = Path();
    if (!path.empty()) {
        memory.Read(Read(path));
    }
    memory.Add(boxes, std::time(nullptr), kForgetAfter);
    if (!path.empty()) {
        static_cast<void>(DurableFile::Replace(path, memory.ToText(), DurableFile::kSecret));
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
