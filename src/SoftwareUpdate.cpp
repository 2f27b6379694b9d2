#include "SoftwareUpdate.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "Characters.h"
#include "LogText.h"
#include "Shell.h"
#include "StoreKeys.h"
#include "UpdateFirmware.h"
#include "ZelLog.h"

namespace {

constexpr char kDirectory[] = "/tmp/";
constexpr char kFetchCommand[] = "wget -q -O /tmp/%s \"%s\"";
constexpr std::string_view kProtocols[] = {"http", "https", "ftp"};

std::string TextOr(const ManagerElements::Answer::Text& text, const char* otherwise) {
    return text.value_or("").empty() ? otherwise : *text;
}

/// Bytes that a file in the directory of images may have; none when that cannot be told.
rlim_t RoomForImage() {
    struct statvfs disk {};
    if (statvfs(kDirectory, &disk) != 0) {
        return 0;
    }
    const rlim_t available = rlim_t{disk.f_bavail} * disk.f_frsize;
    return available - std::min(available, SoftwareUpdate::kFreeReserve);
}

/// "01.02.03" as "10203", the form in which the box reads its versions at start; another text as it
/// is. Empty when that is no line, or too long.
std::string ToRecorded(const std::string& version) {
    std::array<int, 3> parts{};
    constexpr int kMaxPart = 99;
    // NOLINTNEXTLINE(cert-err34-c): checked below; five digits cannot overflow
    const int count = std::sscanf(version.c_str(), "%5d.%5d.%5d", &parts[0], &parts[1], &parts[2]);
    if (count == static_cast<int>(parts.size()) &&
        std::all_of(parts.begin(), parts.end(),
                    [](int part) { return part >= 0 && part <= kMaxPart; })) {
        std::array<char, 16> text{};
        std::snprintf(text.data(), text.size(), "%d%02d%02d", parts[0], parts[1], parts[2]);
        return text.data();
    }
    return ManagerElements::IsLine(version, SoftwareUpdate::kMaxVersion) ? version : "";
}

}  // namespace

SoftwareUpdate::SoftwareUpdate(const ManagerElements::Answer& answer)
    : present_(answer.update.has_value()),
      mandated_(present_ && answer.updateSoftware != "false"),
      application_(answer.updateType == "Application"),
      type_(answer.updateType.value_or("")),
      protocol_(TextOr(answer.protocol, "http")),
      host_(answer.ip.value_or("")),
      url_(protocol_ + "://" + host_ + ":" + TextOr(answer.port, "80") +
           answer.context.value_or("")),
      digest_(answer.digest),
      fileName_(answer.fileName),
      version_((application_ ? answer.appVersion : answer.firmwareVersion).value_or("")) {}

bool SoftwareUpdate::Run(ZelConfig& config, Installed& installed) const {
    if (!present_) {
        return false;
    }
    if (!mandated_) {
        ZEL_INFO("ZEL master signals firmware is up-to-date!");
        return false;
    }
    ZEL_INFO("======== UPDATE TYPE: '%s'", LogText::Of(type_).c_str());
    if (!HasUsableAddress()) {
        ZEL_ERROR("ZEL Master mandates update but address supplied is not valid");
        return false;
    }
    ZEL_INFO("ZEL Master mandates software update of %s from %s", LogText::Of(type_).c_str(),
             LogText::Of(url_).c_str());
    ZEL_INFO("   md5: %s, filename: %s", LogText::Of(digest_).c_str(),
             LogText::Of(fileName_).c_str());
    const std::string image = application_ ? "application" : "firmware";
    if (installed.contains({image, digest_}) || installed.contains({image, version_})) {
        ZEL_INFO("This update has just been installed, it is not installed again before a restart");
        return false;
    }
    const bool isInstalled = Fetch() && Install();
    if (isInstalled) {
        installed.insert({image, digest_});
        if (!version_.empty()) {
            installed.insert({image, version_});
        }
        RecordVersion(config);
    }
    RemoveFile();
    return isInstalled;
}

/// All of it becomes part of a command line, within double quotes: of the characters that a URL may
/// hold (RFC 3986, section 2) the dollar sign still means something there.
bool SoftwareUpdate::HasUsableAddress() const {
    const bool isKnown =
        std::find(std::begin(kProtocols), std::end(kProtocols), protocol_) != std::end(kProtocols);
    const std::size_t commandLength = sizeof kFetchCommand + fileName_.size() + url_.size();
    return isKnown && !host_.empty() && Characters::IsMadeOf(host_, ".-:[]") &&
           Characters::IsMadeOf(url_, "-._~:/?#[]@!&'()*+,;=%") && !fileName_.empty() &&
           !fileName_.starts_with('.') && Characters::IsMadeOf(fileName_, "_.-") &&
           commandLength <= Shell::kCommandSize;
}

bool SoftwareUpdate::Fetch() const {
    ZEL_INFO("Downloading update file %s...", LogText::Of(fileName_).c_str());
    RemoveFile();  // what an earlier download has left must not pass for this one
    const rlim_t room = RoomForImage();
    std::string output;
    // What there is of the file is looked at, however the tool ended.
    static_cast<void>(Shell::RunWithin({.time = kDownloadTime, .fileSize = room}, output,
                                       kFetchCommand, fileName_.c_str(), url_.c_str()));
    struct stat status {};
    if (stat((kDirectory + fileName_).c_str(), &status) == 0 &&
        static_cast<rlim_t>(status.st_size) >= room) {
        ZEL_ERROR("The update file is larger than the %llu bytes that there is room for",
                  static_cast<unsigned long long>(room));
    }

    std::string digest;
    static_cast<void>(Shell::RunSystemWithResult(digest, "md5sum /tmp/%s | awk '{print $1}'",
                                                 fileName_.c_str()));  // the digest tells
    digest.resize(digest.find_last_not_of('\n') + 1);
    if (digest.empty() || digest != digest_) {
        RemoveFile();  // it may have filled the disk that the log is on
    }
    if (digest.empty()) {
        ZEL_ERROR("Error calculating md5 checksum of update file!");
        return false;
    }
    if (digest != digest_) {
        ZEL_ERROR("Checksum mismatch! Expected '%s', got '%s'", LogText::Of(digest_).c_str(),
                  digest.c_str());
        return false;
    }
    return true;
}

void SoftwareUpdate::RemoveFile() const {
    unlink((kDirectory + fileName_).c_str());
}

bool SoftwareUpdate::Install() const {
    UpdateFirmware update;
    const auto type = application_ ? UpdateFirmware::APPLICATION : UpdateFirmware::FIRMWARE;
    if (update.DoUpdateFirmware(type, kDirectory + fileName_) != 0) {
        ZEL_ERROR("Firmware update failed!");
        return false;
    }
    return true;
}

void SoftwareUpdate::RecordVersion(ZelConfig& config) const {
    ZEL_INFO("New version: %s", LogText::Of(version_).c_str());
    const std::string version = ToRecorded(version_);
    if (version.empty()) {
        ZEL_ERROR(
            "The new version is missing, or no line of up to %zu bytes; it is known after the "
            "next start",
            kMaxVersion);
        return;
    }
    config.SetFixed(application_ ? StoreKeys::kApplicationVersion : StoreKeys::kBootVersion,
                    version);
}
