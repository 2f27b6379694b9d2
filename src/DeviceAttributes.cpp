#include "DeviceAttributes.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

#include "NetRequests.h"
#include "NetworkAttributes.h"
#include "Numbers.h"
#include "SourceFile.h"
#include "StoreKeys.h"
#include "WlanMacFile.h"
#include "ZelLog.h"

namespace {

using Kind = ZelConfig::Kind;

constexpr char kDeviceType[] = "TAVO";

constexpr char kTemperatureFile[] = "/proc/sys/atmel/acttemp";
constexpr std::string_view kTemperaturePrefix = "Temp:";
constexpr unsigned kFanOn = 0x02;
constexpr unsigned kTemperatureCritical = 0x10;

constexpr char kOpticalBusState[] = "/tmp/moststate";

constexpr char kMemoryInfo[] = "/proc/meminfo";
constexpr std::string_view kFreeMemory = "MemFree:";

const char* ToDigit(bool value) {
    return value ? "1" : "0";
}

bool SetFromFile(ZelConfig& config, const std::string& key, const char* path) {
    std::string value;
    const bool read = SourceFile(path).ReadFirstLine(value);
    config.SetFixed(key, value);
    return read;
}

void SetSource(ZelConfig& config, const char* key, const char* path) {
    static_cast<void>(config.Set(key, path, Kind::kFile));  // a kind that is stored
}

bool AddIdentity(ZelConfig& config) {
    const bool hasSerial = SetFromFile(config, StoreKeys::kSerial, "/proc/sys/sysinfo/sernum");
    config.SetFixed(StoreKeys::kDeviceId, kDeviceType + config.Get(StoreKeys::kSerial));
    config.SetFixed(StoreKeys::kDeviceType, kDeviceType);
    config.SetFixed(StoreKeys::kBatteryCapacity, "0");
    return SetFromFile(config, StoreKeys::kHardwareVersion, "/proc/sys/sysinfo/version") &&
           hasSerial;
}

bool AddMacAddresses(ZelConfig& config) {
    std::string mac;
    const bool hasLan = NetRequests::ReadMacAddress(NetworkAttributes::kLanInterface, mac);
    config.SetFixed(StoreKeys::kLanMac, mac);
    return SetFromFile(config, StoreKeys::kWlanMac, WlanMacFile::kPath) && hasLan;
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
    std::array<Version, 4> versions{{{StoreKeys::kBootVersion, "/etc/VERSION", ""},
                                     {StoreKeys::kBootPackage, "/etc/PACKAGE_VERSION", ""},
                                     {StoreKeys::kApplicationVersion, "/app/VERSION", ""},
                                     {StoreKeys::kApplicationPackage, "/app/PACKAGE_VERSION", ""}}};
    bool complete = true;
    for (Version& version : versions) {
        complete &= SourceFile(version.path).ReadFirstLine(version.text);
    }
    CutApplicationVersion(versions[2].text);
    for (Version& version : versions) {
        if (version.text.starts_with('0')) {
            version.text.erase(0, 1);
        }
        config.SetFixed(version.key, version.text);
    }
    config.SetFixed(StoreKeys::kPackage, std::max(versions[1].text, versions[3].text));
    return complete;
}

/// The line is "Temp:<text>,<name>:<status word in hexadecimal>".
bool ReadTemperature(std::string& temperature, unsigned& status) {
    static SourceFile file(kTemperatureFile);
    std::string line;
    if (!file.ReadFirstLine(line) || !line.starts_with(kTemperaturePrefix)) {
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
    return std::from_chars(word.data(), word.data() + word.size(), status, Numbers::kHexadecimal)
               .ec == std::errc();
}

bool ProvideTemperature(const std::string& key, std::string& out) {
    std::string temperature;
    unsigned status = 0;
    if (!ReadTemperature(temperature, status)) {
        return false;
    }
    if (key == StoreKeys::kTemperature) {
        out = temperature;
    } else if (key == StoreKeys::kTooHot) {
        out = ToDigit((status & kTemperatureCritical) != 0);
    } else if (key == StoreKeys::kFanOn) {
        out = ToDigit((status & kFanOn) != 0);
    } else {
        return false;
    }
    return true;
}

void AddSupply(ZelConfig& config, const Trigger15& trigger15) {
    SetSource(config, StoreKeys::kKl15, "/proc/sys/atmel/kl15_ewb");
    SetSource(config, StoreKeys::kKl30, "/proc/sys/kl30");
    SetSource(config, StoreKeys::kFanSpeed, "/proc/sys/atmel/fanspeed");
    config.Register(StoreKeys::kFanOn, ProvideTemperature);
    config.Register(StoreKeys::kKl15Edge, [&trigger15](const std::string&, std::string& out) {
        bool triggered = false;
        if (!trigger15.Query(triggered)) {
            return false;
        }
        out = ToDigit(triggered);
        return true;
    });
}

bool ProvideVehicleDiagnosis(const std::string& key, std::string& out, LiveSources& sources) {
    const KvadVin* vehicle = sources.Vehicle();
    if (vehicle == nullptr) {
        return false;
    }
    if (key == StoreKeys::kVin) {
        out = vehicle->vin;
    } else if (key == StoreKeys::kHasVin) {
        out = ToDigit(!vehicle->vin.empty());
    } else if (key == StoreKeys::kGatewayAddress) {
        out = vehicle->gateway;
    } else if (key == StoreKeys::kControlUnits) {
        out = vehicle->ControlUnitList();
    } else {
        return false;
    }
    return true;
}

bool ProvideOpticalBus(const std::string& key, std::string& out, LiveSources& sources) {
    if (!sources.HasOpticalBus()) {
        out = "0";
        return true;
    }
    if (key == StoreKeys::kOpticalBusLight) {
        static SourceFile state(kOpticalBusState);
        return state.ReadFirstLine(out);
    }
    out = "1";
    return true;
}

/// The kernel's version of the head is a number other than zero when one is connected.
bool ProvideHeadC(const std::string& /*key*/, std::string& out) {
    static SourceFile file("/proc/sys/tavoc_ver");
    std::string version;
    file.ReadFirstLine(version);
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
    for (const char* key : {StoreKeys::kVin, StoreKeys::kHasVin, StoreKeys::kGatewayAddress,
                            StoreKeys::kControlUnits}) {
        config.Register(key, ProvideVehicleDiagnosis);
    }
    for (const char* key : {StoreKeys::kTemperature, StoreKeys::kTooHot}) {
        config.Register(key, ProvideTemperature);
    }
    for (const char* key : {StoreKeys::kOpticalBusLight, StoreKeys::kOpticalBusThere}) {
        config.Register(key, ProvideOpticalBus);
    }
    config.Register(StoreKeys::kHeadC, ProvideHeadC);
    SetSource(config, StoreKeys::kHeadD, "/proc/sys/tavod_avail");
    NetworkAttributes::Add(config, wlanInterface);
    return complete;
}

void AddLateAttributes(ZelConfig& config) {
    config.Register(StoreKeys::kFreeMemory, ProvideFreeMemory);
    config.Register(StoreKeys::kTimestamp, ProvideTimeStamp);
}
