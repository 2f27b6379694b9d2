#include "WlanRalinkDevice.h"

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "NetRequests.h"
#include "Shell.h"
#include "SupplicantNetwork.h"
#include "ZelLog.h"

namespace {

constexpr char kDriver[] = "wext";
constexpr char kSettingsDirectory[] = "/etc/Wireless/RT2870STA";
constexpr char kSettingsFile[] = "/etc/Wireless/RT2870STA/RT2870STA.dat";
constexpr char kTemplate[] = "/app/velka/wlan/ra/RT2870STA.dat";

/// False when the file cannot be opened.
bool ReadFile(const char* path, std::string& text) {
    std::ifstream file(path, std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(file), {});
    return file.is_open();
}

/// A settings file that ends within the template is a copy that was cut off: by a full disk, or by
/// the end of the agent or of the power.
NetStatus EnsureSettingsFile() {
    std::string whole;
    std::string settings;
    const bool haveTemplate = ReadFile(kTemplate, whole);
    const auto isCut = [&] {
        return settings.size() < whole.size() && whole.starts_with(settings);
    };
    if (ReadFile(kSettingsFile, settings) && !isCut()) {
        return NetStatus::kDone;
    }
    unlink(kSettingsFile);
    std::string output;
    if (!Shell::RunSystemWithResult(
            output, "cp /app/velka/wlan/ra/RT2870STA.dat /etc/Wireless/RT2870STA/.")) {
        return NetStatus::kFailed;
    }
    if (!haveTemplate || !ReadFile(kSettingsFile, settings) || isCut()) {
        unlink(kSettingsFile);
        ZEL_ERROR("Can't copy %s", kTemplate);
        return NetStatus::kFailed;
    }
    return NetStatus::kDone;
}

/// The line is in the file as a whole or not at all.
NetStatus AppendSetting(const std::string& setting) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(kSettingsFile, error);
    std::ofstream file(kSettingsFile, std::ios::app);
    file << setting << '\n';
    file.close();
    if (!file) {
        ZEL_ERROR("Can't write %s", kSettingsFile);
        if (!error) {
            std::filesystem::resize_file(kSettingsFile, size, error);
        }
        return NetStatus::kFailed;
    }
    return NetStatus::kDone;
}

}  // namespace

WlanRalinkDevice::WlanRalinkDevice(const Context& context)
    : WlanDevice(kInterface, kDriver, context, "WlanRalinkDevice: ") {}

NetStatus WlanRalinkDevice::InitializeDriver(const WlanCountryCode::Country* country) {
    LogStep("Initialize wlan driver");
    if (!MakeDirectory(SupplicantNetwork::kDirectory) || !MakeDirectory(kSettingsDirectory) ||
        Failed(EnsureSettingsFile()) || !IsKnown(country)) {
        return NetStatus::kFailed;
    }
    return AppendSetting(std::string("CountryCode=") + country->iso);
}

NetStatus WlanRalinkDevice::DestroyInterface() {
    return NetStatus::kDone;
}

NetStatus WlanRalinkDevice::SetBand() {
    return AppendSetting(std::string("WirelessMode=") + (Values().band == "0" ? "8" : "9"));
}

NetStatus WlanRalinkDevice::LoadDriver() {
    LogStep("LoadDriver");
    for (const std::string module : {"rtutil5572sta", "rt5572sta", "rtnet5572sta"}) {
        if (Shell::LoadModule(module, "/app/velka/wlan/ra/" + module + ".ko", "") != 0) {
            return NetStatus::kFailed;
        }
    }
    return NetStatus::kDone;
}

std::string WlanRalinkDevice::GetMacAddress() {
    std::string output;
    std::string address;
    // Where one of them fails, the address stays empty.
    static_cast<void>(Shell::RunSystemWithResult(output, "/sbin/ifconfig %s up", Name().c_str()));
    static_cast<void>(NetRequests::ReadMacAddress(Name(), address));
    static_cast<void>(Shell::RunSystemWithResult(output, "/sbin/ifconfig %s down", Name().c_str()));
    return address;
}
