#include "SlpAttributes.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "ColorTable.h"
#include "DeviceReservation.h"
#include "DiagnosticChannels.h"
#include "NetworkType.h"
#include "SlpEscapes.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace SlpAttributes {
namespace {

using AddressParts = std::array<int, 4>;

/// What one list is made of: what several of its rows need is read once.
struct Source {
    const ZelConfig& config;
    LiveSources live = {};
    std::string kl15 = {};
    std::string kl30 = {};
    AddressParts gateway = {};
    std::string value = {};  // room for that of the row at work

    const std::string& Get(const char* key) {
        config.Get(key, value, live);
        return value;
    }
};

/// Puts the value of a row at the end of the list: only what the agent itself has put together is
/// not escaped. `argument` is what the row holds for it, most often a key.
using Value = void (*)(std::string& list, Source& source, const char* argument);

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

void AppendAddress(std::string& list, const AddressParts& parts) {
    std::uint32_t address = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        constexpr std::uint32_t kPartBits = 8;
        address |= static_cast<std::uint32_t>(parts[i])
                   << (kPartBits * static_cast<std::uint32_t>(parts.size() - 1 - i));
    }
    list += std::to_string(static_cast<std::int32_t>(address));
}

void Text(std::string& list, Source& /*source*/, const char* argument) {
    list += argument;
}

void Stored(std::string& list, Source& source, const char* argument) {
    SlpEscapes::AppendEscaped(list, source.Get(argument));
}

void Kl15Voltage(std::string& list, Source& source, const char* /*argument*/) {
    SlpEscapes::AppendEscaped(list, source.kl15);
}

void Kl30Voltage(std::string& list, Source& source, const char* /*argument*/) {
    SlpEscapes::AppendEscaped(list, source.kl30);
}

void StoredOrZero(std::string& list, Source& source, const char* argument) {
    const bool isThere = source.config.Get(argument, source.value, source.live);
    SlpEscapes::AppendEscaped(list, isThere ? source.value : "0");
}

/// "[a,b,c]"; what is escaped are its members.
void StoredList(std::string& list, Source& source, const char* argument) {
    const bool isThere = source.config.Get(argument, source.value, source.live);
    SlpEscapes::AppendEscaped(list, isThere ? source.value : "[]", ",");
}

void Owner(std::string& list, Source& source, const char* argument) {
    SlpEscapes::AppendEscaped(list, SlpEscapes::FirstCharacters(source.Get(argument), kMaxOwner));
}

void CurrentAddress(std::string& list, Source& source, const char* /*argument*/) {
    Stored(list, source, NetworkType::IpKey(NetworkType::IsLan(source.config)));
}

void ColorValue(std::string& list, Source& source, const char* argument) {
    list += ColorTable::ValueOf(source.Get(argument));
}

/// Every list has one of its own.
void Counter(std::string& /*list*/, Source& /*source*/, const char* /*argument*/) {}

void IsNotZero(std::string& list, Source& source, const char* argument) {
    list += source.Get(argument) == "0" ? "false" : "true";
}

void UsableChannels(std::string& list, Source& source, const char* /*argument*/) {
    list += DiagnosticChannels::Read(source.config, source.live).ToText();
}

/// What is missing in the mask is the gateway's.
void NetMask(std::string& list, Source& source, const char* /*argument*/) {
    ReadAddress(source.Get(StoreKeys::kDefaultGateway), source.gateway);
    AddressParts mask = source.gateway;
    ReadAddress(source.Get(NetworkType::NetmaskKey(NetworkType::IsLan(source.config))), mask);
    AppendAddress(list, mask);
}

/// Stands behind the mask.
void NetGateway(std::string& list, Source& source, const char* /*argument*/) {
    AppendAddress(list, source.gateway);
}

void WithoutLastTwo(std::string& list, Source& source, const char* argument) {
    constexpr std::size_t kCut = 2;
    const std::string_view value = source.Get(argument);
    SlpEscapes::AppendEscaped(list,
                              value.substr(0, value.size() - (value.size() > kCut ? kCut : 0)));
}

void IsReserved(std::string& list, Source& source, const char* argument) {
    list += source.Get(argument) == DeviceReservation::kReserved ? "1" : "0";
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
    {"),(Kl15Voltage=", Kl15Voltage, nullptr},
    {"),(Kl30Voltage=", Kl30Voltage, nullptr},
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

constexpr std::size_t kCounterRow = [] {
    std::size_t row = 0;
    while (kConnectorRows[row].value != Counter) {
        ++row;
    }
    return row;
}();

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

std::string Cut(const Row& row, std::string_view value, std::size_t size) {
    if (value.size() <= size) {
        return std::string(value);
    }
    std::string cut(SlpEscapes::CutEscaped(value, size));
    if (row.value == StoredList) {
        // Whole members, and the closing bracket where the next comma was.
        const std::size_t comma = cut.rfind(',');
        cut = (comma == std::string::npos ? "[" : cut.substr(0, comma)) + "]";
    }
    return cut;
}

/// A list with its values cut.
template <std::size_t N>
std::string CutList(const Row (&rows)[N], const std::array<std::string_view, N>& values) {
    const auto fits = [&](std::size_t longest) {
        std::size_t size = FrameSize(rows);
        for (const std::string_view value : values) {
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

template <std::size_t N>
Values ReadValues(const Row (&rows)[N], Source& source) {
    Values values;
    values.text.reserve(kMaxList);
    values.spans.reserve(N);
    for (const Row& row : rows) {
        values.text += row.label;
        const std::size_t begin = values.text.size();
        row.value(values.text, source, row.argument);
        values.spans.emplace_back(begin, values.text.size());
    }
    values.text += kEnd;
    return values;
}

/// The list with `text` as the value of that row; what it has there is empty.
template <std::size_t N>
std::string MakeList(const Row (&rows)[N], const Values& values, std::size_t row,
                     std::string_view text) {
    if (values.text.size() + text.size() <= kMaxList) {
        std::string list;
        list.reserve(kMaxList);
        list = values.text;
        return list.insert(values.spans[row].first, text);
    }
    std::array<std::string_view, N> views;
    std::transform(values.spans.begin(), values.spans.end(), views.begin(), [&](const auto& span) {
        return std::string_view(values.text).substr(span.first, span.second - span.first);
    });
    if (!text.empty()) {
        views[row] = text;
    }
    return CutList(rows, views);
}

int ReadVoltage(const std::string& text) {
    constexpr int kDecimal = 10;
    int voltage = 0;
    ReadInt(text.c_str(), kDecimal, voltage);
    return voltage;
}

}  // namespace

std::string ConnectorList::With(std::int32_t counter) {
    if (values_.spans.empty()) {
        Source source{config_};
        source.kl15 = source.Get(StoreKeys::kKl15);
        source.kl30 = source.Get(StoreKeys::kKl30);
        kl15_ = ReadVoltage(source.kl15);
        kl30_ = ReadVoltage(source.kl30);
        values_ = ReadValues(kConnectorRows, source);
    }
    ZEL_DEBUG("Kl30 voltage %d: Kl15 voltage %d", kl30_, kl15_);
    return MakeList(kConnectorRows, values_, kCounterRow, std::to_string(counter));
}

std::string LegacyList(const ZelConfig& config) {
    Source source{config};
    return MakeList(kLegacyRows, ReadValues(kLegacyRows, source), 0, {});
}

}  // namespace SlpAttributes
