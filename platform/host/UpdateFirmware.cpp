#include "UpdateFirmware.h"

#include <filesystem>
#include <fstream>
#include <mutex>
#include <system_error>

#include "DurableFile.h"
#include "LogHandler.h"

// An image type has a directory with
//   a/image, b/image   the two slots
//   active             the name of the slot that is started
//   state              "dirty" from the first step of an update to its last, then "clean"

namespace {

constexpr char kImageDirectory[] = "/app/zel/images/";
constexpr char kClean[] = "clean";
constexpr char kDirty[] = "dirty";
constexpr int kInfo = 101;
constexpr int kError = 103;

LogHandler& Log() {
    return LogHandler::GetLogHandler("UpdateFirmwareLog");
}

std::string DirectoryOf(UpdateFirmware::ImageType type) {
    return std::string(kImageDirectory) +
           (type == UpdateFirmware::APPLICATION ? "application/" : "firmware/");
}

bool IsImage(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error) &&
           std::filesystem::file_size(path, error) > 0 && !error;
}

/// First line of a file, empty when it cannot be read.
std::string FirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

bool WriteState(const std::string& directory, const char* state) {
    return DurableFile::Replace(directory + "state", std::string(state) + "\n",
                                DurableFile::kPublic);
}

bool Install(const std::string& directory, const std::string& imagePath) {
    const std::string slot = FirstLine(directory + "active") == "a" ? "b" : "a";
    std::error_code error;
    std::filesystem::create_directories(directory + slot, error);
    return DurableFile::SyncDirectoryOf(directory) &&
           DurableFile::ReplaceByCopy(directory + slot + "/image", imagePath,
                                      DurableFile::kPublic) &&
           DurableFile::Replace(directory + "active", slot + "\n", DurableFile::kPublic);
}

}  // namespace

int UpdateFirmware::DoUpdateFirmware(ImageType type, const std::string& imagePath) {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    const std::string directory = DirectoryOf(type);
    if (!IsImage(imagePath)) {
        Log().Log(kError, "UpdateFirmware", __LINE__,
                  "%s is no image: it must be a regular file that is not empty", imagePath.c_str());
        return -1;
    }
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (!WriteState(directory, kDirty) || !Install(directory, imagePath) ||
        !WriteState(directory, kClean)) {
        Log().Log(kError, "UpdateFirmware", __LINE__,
                  "%s could not be installed below %s; the software installed before stays active",
                  imagePath.c_str(), directory.c_str());
        return -1;
    }
    Log().Log(kInfo, "UpdateFirmware", __LINE__, "%s is installed, slot %s is active",
              imagePath.c_str(), FirstLine(directory + "active").c_str());
    return 0;
}

int UpdateFirmware::GetUpdateState(ImageType type) const {
    const std::string path = DirectoryOf(type) + "state";
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        return error ? UNKNOWN : CLEAN;  // never updated
    }
    const std::string state = FirstLine(path);
    return state == kClean ? CLEAN : state == kDirty ? DIRTY : UNKNOWN;
}
