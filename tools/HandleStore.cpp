#include "HandleStore.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Characters.h"
#include "DurableFile.h"

namespace HandleStore {
namespace {

namespace fs = std::filesystem;

/// Value of a variable that holds an absolute path (XDG base directories ignore others).
std::string Directory(const char* variable) {
    const char* const value = std::getenv(variable);
    return value != nullptr && *value == '/' ? value : "";
}

std::string FileName(const std::string& deviceId) {
    std::string name;
    for (const char c : deviceId) {
        const bool isPlain = Characters::IsAlphanumeric(c) || c == '-' || c == '_';
        name += isPlain ? std::string(1, c) : "%" + Characters::Hex(c);
    }
    return name;
}

}  // namespace

std::string PathOf(const std::string& deviceId) {
    const std::string state = Directory("XDG_STATE_HOME");
    const std::string home = Directory("HOME");
    if (state.empty() && home.empty()) {
        return "";
    }
    return (state.empty() ? home + "/.local/state" : state) + "/zelctl/" + FileName(deviceId);
}

std::string Get(const std::string& deviceId) {
    std::ifstream file(PathOf(deviceId));
    std::string handle;
    std::getline(file, handle);
    return handle;
}

bool Put(const std::string& deviceId, const std::string& handle) {
    const std::string path = PathOf(deviceId);
    if (path.empty() || deviceId.empty()) {
        return false;
    }
    std::error_code error;
    const fs::path directory = fs::path(path).parent_path();
    if (fs::create_directories(directory, error)) {
        fs::permissions(directory, fs::perms::owner_all, error);
    }
    return !error && DurableFile::Replace(path, handle + "\n", DurableFile::kSecret);
}

void Forget(const std::string& deviceId) {
    std::remove(PathOf(deviceId).c_str());
}

}  // namespace HandleStore
