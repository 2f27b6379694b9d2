#include "SlpAttributes.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <vector>

#include "ColorTable.h"
#include "DeviceReservation.h"
#include "DiagnosticChannels.h"
#include "NetworkType.h"
#include "SlpEscapes.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace SlpAttributes {
namespace {

struct Source {
    const ZelConfig& config;
    std::int32_t counter;
};

/// Makes the value of a row as it stands in the list: only what the agent itself has put together
/// is not escaped. `argument` is what the row holds for it, most often a key.
using Value = std::string (*)(const Source& source, const char* argument);

struct Row {
    const char* label;
    Value value;
    const char* argument;
};

/// Reads a number as scanf's %d (base 10) and %i (base 0) do, held within an int. Returns what
/// follows it, or null when there is no number.
const char* ReadInt(const char* text, int base, int& number) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, base);
    if (end == text) {
        return nullptr;
    }
    number = static_cast<int>(std::clamp(value, static_cast<long>(std::numeric_limits<int>::min()),
                                         static_cast<long>(std::numeric_limits<int>::max())));
    return end;
}

using AddressParts = std::array<int, 4>;

/// Reads "%i.%i.%i.%i": the parts from the first one that is no number on stay as they were.
void ReadAddress(const std::string& text, AddressParts& parts) {
    constexpr int kAnyBase = 0;
    const char* position = text.c_str();
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0 && *position++ != '.') {
            return;
        }
        position = ReadInt(position, kAnyBase, parts[i]);
        if (position == nullptr) {
            return;
        }
    }
}

std::string ToSignedDecimal(const AddressParts& parts) {
    std::uint32_t address = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        constexpr std::uint32_t kPartBits = 8;
        address |= static_cast<std::uint32_t>(parts[i])
                   << (kPartBits * static_cast<std::uint32_t>(parts.size() - 1 - i));
    }
    return std::to_string(static_cast<std::int32_t>(address));
}

std::string Text(const Source& /*source*/, const char* argument) {
    return argument;
}

std::string Stored(const Source& source, const char* argument) {
    return SlpEscapes::Escape(source.config.Get(argument));
}

std::string StoredOrZero(const Source& source, const char* argument) {
    std::string value;
    return source.config.Get(argument, value) ? SlpEscapes::Escape(value) : "0";
}

/// "[a,b,c]"; what is escaped are its members.
std::string StoredList(const Source& source, const char* argument) {
    std::string value;
    return source.config.Get(argument, value) ? SlpEscapes::Escape(value, ",") : "[]";
}

std::string Owner(const Source& source, const char* argument) {
    const std::string owner = source.config.Get(argument);
    return SlpEscapes::Escape(SlpEscapes::FirstCharacters(owner, kMaxOwner));
}

std::string CurrentAddress(const Source& source, const char* /*argument*/) {
    return SlpEscapes::Escape(
        source.config.Get(NetworkType::IpKey(NetworkType::IsLan(source.config))));
}

std::string ColorValue(const Source& source, const char* argument) {
    return std::string(ColorTable::ValueOf(source.config.Get(argument)));
}

std::string Counter(const Source& source, const char* /*argument*/) {
    return std::to_string(source.counter);
}

std::string IsNotZero(const Source& source, const char* argument) {
    return source.config.Get(argument) == "0" ? "false" : "true";
}

std::string UsableChannels(const Source& source, const char* /*argument*/) {
    return DiagnosticChannels::Read(source.config).ToText();
}

AddressParts GatewayParts(const Source& source) {
    AddressParts parts{};
    ReadAddress(source.config.Get(StoreKeys::kDefaultGateway), parts);
    return parts;
}

std::string NetGateway(const Source& source, const char* /*argument*/) {
    return ToSignedDecimal(GatewayParts(source));
}

/// Clients know the net mask that cannot be read as the gateway's address.
std::string NetMask(const Source& source, const char* /*argument*/) {
    AddressParts parts = GatewayParts(source);
    const bool isLan = NetworkType::IsLan(source.config);
    ReadAddress(source.config.Get(NetworkType::NetmaskKey(isLan)), parts);
    return ToSignedDecimal(parts);
}

std::string WithoutLastTwo(const Source& source, const char* argument) {
    constexpr std::size_t kCut = 2;
    const std::string value = source.config.Get(argument);
    return SlpEscapes::Escape(value.size() > kCut ? value.substr(0, value.size() - kCut) : value);
}

std::string IsReserved(const Source& source, const char* argument) {
    return source.config.Get(argument) == DeviceReservation::kReserved ? "1" : "0";
}

constexpr char kEnd[] = ")";

constexpr Row kConnectorRows[] = {
    {"(DevId=", Stored, StoreKeys::kHostName},
    {"),(Service=", Text, "zel-connector"},
    {"),(Serial=TAVO", Stored, StoreKeys::kSerial},
    {"),(MacAddress=", Stored, StoreKeys::kLanMac},
    {"),(DevType=", Stored, StoreKeys::kDeviceType},
    {"),(ImageVersionBoot=", Stored, StoreKeys::kBootVersion},
    {"),(ImageVersionApplication=", Stored, StoreKeys::kApplicationVersion},
    {"),(ImageVersionPackage=", Stored, StoreKeys::kPackage},
    {"),(Color=", ColorValue, StoreKeys::kColor},
    {"),(Counter=", Counter, nullptr},
    {"),(State=", Stored, StoreKeys::kState},
    {"),(Owner=", Owner, StoreKeys::kOwner},
    {"),(Kl15Voltage=", Stored, StoreKeys::kKl15},
    {"),(Kl30Voltage=", Stored, StoreKeys::kKl30},
    {"),(Kl15Trigger=", IsNotZero, StoreKeys::kKl15Edge},
    {"),(SignalStrength=", StoredOrZero, StoreKeys::kWlanQuality},
    {"),(VIN=", Stored, StoreKeys::kVin},
    {"),(Gateway=", Stored, StoreKeys::kGatewayAddress},
    {"),(Diag=", StoredList, StoreKeys::kControlUnits},
    {"),(AccuCapacity=", Stored, StoreKeys::kBatteryCapacity},
    {"),(VciChannels=", UsableChannels, nullptr},
    {"),(Netmask=", NetMask, nullptr},
    {"),(NetGateway=", NetGateway, nullptr},
    {"),(NetworkType=", Stored, StoreKeys::kNetworkType},
    {"),(UUID=", Stored, StoreKeys::kUuid},
};

constexpr Row kLegacyRows[] = {
    {"(DevClass=HUX-VCI)(FirmwareRev=", WithoutLastTwo, StoreKeys::kApplicationVersion},
    {")(MacAddress=", Stored, StoreKeys::kLanMac},
    {")(VciChannel1=TELMANO:", Stored, StoreKeys::kHostName},
    {":6801)(VciChannel2=TELMANO:", Stored, StoreKeys::kHostName},
    {":6802)(RkoUrl=//", Stored, StoreKeys::kHostName},
    {":5302/rKO)(description=TAVO, Velka, QK20417B)(IsAllocated=", IsReserved, StoreKeys::kState},
    {")(IpAddress=", CurrentAddress, nullptr},
    {")(AssignedColor=", Stored, StoreKeys::kColor},
    {")(VciChannels=2)(DevType=", Stored, StoreKeys::kDeviceType},
};

/// Bytes of a list without its values.
template <std::size_t N>
constexpr std::size_t FrameSize(const Row (&rows)[N]) {
    std::size_t size = std::string_view(kEnd).size();
    for (const Row& row : rows) {
        size += std::string_view(row.label).size();
    }
    return size;
}

template <std::size_t N>
constexpr bool HasRoom(const Row (&rows)[N]) {
    return FrameSize(rows) + N * kAlwaysWhole <= kMaxList;
}
static_assert(HasRoom(kConnectorRows) && HasRoom(kLegacyRows));

std::string Cut(const Row& row, const std::string& value, std::size_t size) {
    if (value.size() <= size) {
        return value;
    }
    std::string cut(SlpEscapes::CutEscaped(value, size));
    if (row.value == StoredList) {
        // Whole members, and the closing bracket where the next comma was.
        const std::size_t comma = cut.rfind(',');
        cut = (comma == std::string::npos ? "[" : cut.substr(0, comma)) + "]";
    }
    return cut;
}

template <std::size_t N>
std::string MakeList(const Row (&rows)[N], const Source& source) {
    std::vector<std::string> values;
    for (const Row& row : rows) {
        values.push_back(row.value(source, row.argument));
    }
    const auto fits = [&](std::size_t longest) {
        std::size_t size = FrameSize(rows);
        for (const std::string& value : values) {
            size += std::min(value.size(), longest);
        }
        return size <= kMaxList;
    };
    std::size_t longest = kMaxList;
    while (!fits(longest)) {
        --longest;
    }
    std::string list;
    for (std::size_t i = 0; i < N; ++i) {
        list += rows[i].label + Cut(rows[i], values[i], longest);
    }
    return list + kEnd;
}

int ReadVoltage(const ZelConfig& config, const char* key) {
    constexpr int kDecimal = 10;
    int voltage = 0;
    ReadInt(config.Get(key).c_str(), kDecimal, voltage);
    return voltage;
}

}  // namespace

std::string ConnectorList(const ZelConfig& config, std::int32_t counter) {
    ZEL_DEBUG("Kl30 voltage %d: Kl15 voltage %d", ReadVoltage(config, StoreKeys::kKl30),
              ReadVoltage(config, StoreKeys::kKl15));
    return MakeList(kConnectorRows, {config, counter});
}

std::string LegacyList(const ZelConfig& config) {
    return MakeList(kLegacyRows, {config, 0});
}

}  // namespace SlpAttributes
