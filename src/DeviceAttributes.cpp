#include "DeviceAttributes.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

#include "KvadVin.h"
#include "NetRequests.h"
#include "NetworkAttributes.h"
#include "WlanMacFile.h"
#include "ZelLog.h"

namespace {

using Kind = ZelConfig::Kind;

constexpr char kDeviceType[] = "TAVO";

constexpr char kTemperatureFile[] = "/proc/sys/atmel/acttemp";
constexpr std::string_view kTemperaturePrefix = "Temp:";
constexpr unsigned kFanOn = 0x02;
constexpr unsigned kTemperatureCritical = 0x10;

constexpr char kUsbDevices[] = "/proc/bus/usb/devices";
constexpr char kOpticalBusId[] = "Vendor=103a ProdID=000b";
constexpr char kOpticalBusState[] = "/tmp/moststate";

constexpr char kMemoryInfo[] = "/proc/meminfo";
constexpr std::string_view kFreeMemory = "MemFree:";

const char* ToDigit(bool value) {
    return value ? "1" : "0";
}

bool SetFromFile(ZelConfig& config, const std::string& key, const char* path) {
    std::string value;
    const bool read = ReadFirstLine(path, value);
    return config.Set(key, value, Kind::kFixed) && read;
}

bool AddIdentity(ZelConfig& config) {
    bool complete = SetFromFile(config, "hardware.serial", "/proc/sys/sysinfo/sernum");
    complete &=
        config.Set("hardware.devid", kDeviceType + config.Get("hardware.serial"), Kind::kFixed);
    complete &= config.Set("hardware.devtype", kDeviceType, Kind::kFixed);
    complete &= SetFromFile(config, "hardware.version", "/proc/sys/sysinfo/version");
    // The key is spelt as its readers spell it.
    complete &= config.Set("hardware.batttery.capactiy", "0", Kind::kFixed);
    return complete;
}

bool AddMacAddresses(ZelConfig& config) {
    std::string mac;
    bool complete = NetRequests::ReadMacAddress(NetworkAttributes::kLanInterface, mac);
    complete &= config.Set("network.mac.lan", mac, Kind::kFixed);
    complete &= SetFromFile(config, "network.mac.wlan", WlanMacFile::kPath);
    return complete;
}

/// "APPLICATION_VERSION=01.02.02" becomes "010202".
void CutApplicationVersion(std::string& version) {
    constexpr std::string_view kPrefix = "APPLICATION_VERSION=";
    if (version.find(kPrefix) == std::string::npos) {
        return;
    }
    version.erase(0, kPrefix.size());
    for (const std::size_t separator : {2U, 4U}) {
        if (separator < version.size()) {
            version.erase(separator, 1);
        }
    }
}

bool AddVersions(ZelConfig& config) {
    struct Version {
        const char* key;
        const char* path;
        std::string text;
    };
    std::array<Version, 4> versions{{{"system.version.boot", "/etc/VERSION", ""},
                                     {"system.version.boot_pkg", "/etc/PACKAGE_VERSION", ""},
                                     {"system.version.app", "/app/VERSION", ""},
                                     {"system.version.app_pkg", "/app/PACKAGE_VERSION", ""}}};
    bool complete = true;
    for (Version& version : versions) {
        complete &= ReadFirstLine(version.path, version.text);
    }
    CutApplicationVersion(versions[2].text);
    for (Version& version : versions) {
        if (version.text.starts_with('0')) {
            version.text.erase(0, 1);
        }
        complete &= config.Set(version.key, version.text, Kind::kFixed);
    }
    complete &= config.Set("system.version.pkg", std::max(versions[1].text, versions[3].text),
                           Kind::kFixed);
    return complete;
}

/// The line is "Temp:<text>,<name>:<status word in hexadecimal>".
bool ReadTemperature(std::string& temperature, unsigned& status) {
    std::string line;
    if (!ReadFirstLine(kTemperatureFile, line) || !line.starts_with(kTemperaturePrefix)) {
        return false;
    }
    const std::size_t comma = line.find(',');
    const std::size_t colon = comma == std::string::npos ? comma : line.find(':', comma);
    if (colon == std::string::npos) {
        return false;
    }
    temperature = line.substr(kTemperaturePrefix.size(), comma - kTemperaturePrefix.size());
    std::string_view word = std::string_view(line).substr(colon + 1);
    word.remove_prefix(std::min(word.find_first_not_of(' '), word.size()));
    if (word.starts_with("0x") || word.starts_with("0X")) {
        word.remove_prefix(2);
    }
    constexpr int kHexadecimal = 16;
    return std::from_chars(word.data(), word.data() + word.size(), status, kHexadecimal).ec ==
           std::errc();
}

bool ProvideTemperature(const std::string& key, std::string& out) {
    std::string temperature;
    unsigned status = 0;
    if (!ReadTemperature(temperature, status)) {
        return false;
    }
    if (key == "system.thermal.temp") {
        out = temperature;
    } else if (key == "system.thermal.tempcrit") {
        out = ToDigit((status & kTemperatureCritical) != 0);
    } else if (key == "system.thermal.fanstate") {
        out = ToDigit((status & kFanOn) != 0);
    } else {
        return false;
    }
    return true;
}

void AddSupply(ZelConfig& config, const Trigger15& trigger15) {
    config.Set("system.voltage.kl15", "/proc/sys/atmel/kl15_ewb", Kind::kFile);
    config.Set("system.voltage.kl30", "/proc/sys/kl30", Kind::kFile);
    config.Set("system.thermal.fanspeed", "/proc/sys/atmel/fanspeed", Kind::kFile);
    config.Register("system.thermal.fanstate", ProvideTemperature);
    config.Register("system.voltage.kl15trig", [&trigger15](const std::string&, std::string& out) {
        bool triggered = false;
        if (!trigger15.Query(triggered)) {
            return false;
        }
        out = ToDigit(triggered);
        return true;
    });
}

bool ProvideVehicleDiagnosis(const std::string& key, std::string& out) {
    KvadVin vehicle;
    if (!vehicle.Read()) {
        return false;
    }
    if (key == "diag.kvad.vin") {
        out = vehicle.vin;
    } else if (key == "diag.kvad.available") {
        out = ToDigit(!vehicle.vin.empty());
    } else if (key == "diag.kvad.gateway") {
        out = vehicle.gateway;
    } else if (key == "diag.kvad.sg_list") {
        out = vehicle.ControlUnitList();
    } else {
        return false;
    }
    return true;
}

bool HasOpticalBus() {
    std::ifstream devices(kUsbDevices);
    for (std::string line; std::getline(devices, line);) {
        if (line.find(kOpticalBusId) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool ProvideOpticalBus(const std::string& key, std::string& out) {
    if (!HasOpticalBus()) {
        out = "0";
        return true;
    }
    if (key == "diag.most.lighton") {
        return ReadFirstLine(kOpticalBusState, out);
    }
    out = "1";
    return true;
}

/// The kernel's version of the head is a number other than zero when one is connected.
bool ProvideHeadC(const std::string& /*key*/, std::string& out) {
    std::string version;
    ReadFirstLine("/proc/sys/tavoc_ver", version);
    out = ToDigit(version.find_first_not_of("0x. \t") != std::string::npos);
    return true;
}

bool ProvideFreeMemory(const std::string& /*key*/, std::string& out) {
    std::ifstream info(kMemoryInfo);
    for (std::string line; std::getline(info, line);) {
        if (line.starts_with(kFreeMemory)) {
            const std::size_t begin = line.find_first_of("0123456789");
            const std::size_t end = line.find_first_not_of("0123456789", begin);
            out = begin == std::string::npos ? "" : line.substr(begin, end - begin);
            return !out.empty();
        }
    }
    return false;
}

bool ProvideTimeStamp(const std::string& /*key*/, std::string& out) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const long long milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    ZEL_DEBUG("Timestamp %lld", milliseconds);
    out = std::to_string(milliseconds);
    return true;
}

}  // namespace

bool AddDeviceAttributes(ZelConfig& config, const Trigger15& trigger15,
                         const NetworkAttributes::InterfaceName& wlanInterface) {
    bool complete = AddIdentity(config);
    complete &= AddMacAddresses(config);
    complete &= AddVersions(config);
    AddSupply(config, trigger15);
    for (const char* key :
         {"diag.kvad.vin", "diag.kvad.available", "diag.kvad.gateway", "diag.kvad.sg_list"}) {
        config.Register(key, ProvideVehicleDiagnosis);
    }
    for (const char* key : {"system.thermal.temp", "system.thermal.tempcrit"}) {
        config.Register(key, ProvideTemperature);
    }
    for (const char* key : {"diag.most.lighton", "diag.most.tavobstate"}) {
        config.Register(key, ProvideOpticalBus);
    }
    config.Register("diag.connected.tavo_c", ProvideHeadC);
    config.Set("diag.connected.tavo_d", "/proc/sys/tavod_avail", Kind::kFile);
    NetworkAttributes::Add(config, wlanInterface);
    return complete;
}

void AddLateAttributes(ZelConfig& config) {
    config.Register("system.info.free_ram", ProvideFreeMemory);
    config.Register("system.timestamp", ProvideTimeStamp);
}
