#include "Report.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>

#include "Ipv4.h"
#include "Numbers.h"
#include "SafeText.h"
#include "XmlText.h"

namespace Report {
namespace {

Json Text(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

Json Integer(std::string_view text) {
    const auto number = Numbers::Parse<std::int64_t>(text);
    return number ? Json(*number) : Json();
}

Json Truth(std::string_view text) {
    return text == "true" || text == "false" ? Json(text == "true") : Json();
}

Json Address(const std::string& number) {
    const std::string dotted = Dotted(number);
    return Ipv4::Parse(dotted) ? Json(dotted) : Json();
}

/// The members of "[a,b]".
Json List(std::string_view text) {
    if (text.size() < 2 || text.front() != '[' || text.back() != ']') {
        return {};
    }
    Json list = Json::array();
    text = text.substr(1, text.size() - 2);
    while (!text.empty()) {
        const std::size_t comma = std::min(text.find(','), text.size());
        list.push_back(std::string(text.substr(0, comma)));
        text.remove_prefix(std::min(comma + 1, text.size()));
    }
    return list;
}

std::string WithoutLetters(const std::string& deviceId) {
    const std::size_t number = deviceId.find_first_of("0123456789");
    return number == std::string::npos ? deviceId : deviceId.substr(number);
}

Json NetworkType(const std::string& code) {
    return code == Box::kCable ? Json("cable") : code == Box::kWlan ? Json("wlan") : Text(code);
}

/// As the card's driver counts it; boxes say 0 where they do not know.
Json SignalQuality(const std::string& text) {
    const Json quality = Integer(text);
    return quality == 0 ? Json() : quality;
}

/// How the box is told to get its address; whatever is no other way is DHCP to it.
Json AddressMode(const std::string& code) {
    return code.empty()                   ? Json()
           : code == "2" || code == "201" ? Json("linklocal")
           : code == "202"                ? Json("static")
                                          : Json("dhcp");
}

Json Channels(const xmlNode* values) {
    Json channels = Json::array();
    for (const xmlNode* channel :
         XmlText::Children(XmlText::FindChild(values, "channels"), "Channel")) {
        const auto value = [channel](const char* name) {
            return XmlText::ChildText(channel, name);
        };
        channels.push_back({{"name", Text(value("name"))},
                            {"type", Integer(value("type"))},
                            {"address", Address(value("ip"))},
                            {"port", Integer(value("port"))},
                            {"active", Truth(value("active"))}});
    }
    return channels;
}

const char* NameOf(ExitStatus status) {
    switch (status) {
        case ExitStatus::kDone:
            return "done";
        case ExitStatus::kRefused:
            return "refused";
        case ExitStatus::kUsage:
            return "usage";
        case ExitStatus::kUnreachable:
            return "unreachable";
        case ExitStatus::kNotUnderstood:
            return "not_understood";
        case ExitStatus::kNotWritten:
            return "not_written";
    }
    return "";
}

/// RFC 3339, of this second.
std::string Now() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%FT%TZ", &utc);
    return text.data();
}

std::string ToLine(const Json& report) {
    constexpr int kNoIndent = -1;
    constexpr bool kAscii = true;
    return report.dump(kNoIndent, ' ', kAscii, Json::error_handler_t::replace) + "\n";
}

}  // namespace

Json Of(const Box& box) {
    const auto value = [&box](const char* name) { return box.Attribute(name); };
    Json report = {{"address", box.address},
                   {"device_id", Text(box.DeviceId())},
                   {"serial", Text(WithoutLetters(box.DeviceId()))},
                   {"name", Text(box.HostName())},
                   {"color", Text(box.Color())},
                   {"color_value", Text(value("Color"))},
                   {"state", Text(box.State())},
                   {"owner", Text(value("Owner"))},
                   {"voltage_kl15_mv", Integer(value("Kl15Voltage"))},
                   {"voltage_kl30_mv", Integer(value("Kl30Voltage"))},
                   {"kl15_edge", Truth(value("Kl15Trigger"))},
                   {"vin", Text(value("VIN"))},
                   {"network",
                    {{"type", NetworkType(value("NetworkType"))},
                     {"signal_quality", SignalQuality(value("SignalStrength"))},
                     {"netmask", Address(value("Netmask"))},
                     {"gateway", Address(value("NetGateway"))},
                     {"mac_address", Text(value("MacAddress"))}}},
                   {"versions",
                    {{"boot", Text(value("ImageVersionBoot"))},
                     {"application", Text(value("ImageVersionApplication"))},
                     {"package", Text(value("ImageVersionPackage"))}}},
                   {"usable_channels", List(value("VciChannels"))},
                   {"control_units", List(value("Diag"))},
                   {"vehicle_gateway", Text(value("Gateway"))},
                   {"attributes", Json::object()}};
    for (const auto& [name, text] : box.attributes) {
        report["attributes"][name] = text;
    }
    return report;
}

Json Of(const BoxChanges::Change& change) {
    constexpr const char* kEvents[] = {"there", "changed", "gone"};
    Json changed = Json::array();
    for (std::string column : change.columns) {
        std::transform(column.begin(), column.end(), column.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        changed.push_back(column);
    }
    return {{"time", Now()},
            {"event", kEvents[static_cast<std::size_t>(change.event)]},
            {"changed", std::move(changed)},
            {"box", Of(change.box)}};
}

Json OfInformation(const std::string& address, const xmlNode* values) {
    const auto value = [values](const char* name) { return XmlText::ChildText(values, name); };
    const xmlNode* const network = XmlText::FindChild(values, "currentNetworkConfig");
    const auto ofNetwork = [network](const char* name) {
        return XmlText::ChildText(network, name);
    };
    const Box box{address, {{"State", value("state")}}};
    return {{"address", address},
            {"device_id", Text(value("id"))},
            {"serial", Text(value("serial"))},
            {"description", Text(value("deviceDescriptionOrNull"))},
            {"state", Text(box.State())},
            {"owner", Text(value("sessionOwnerOrNull"))},
            {"voltage_kl15_mv", Integer(value("kl15"))},
            {"voltage_kl30_mv", Integer(value("kl30"))},
            {"kl15_edge", Truth(value("kl15Edge"))},
            {"vin", Text(value("vin"))},
            {"network",
             {{"type", NetworkType(ofNetwork("type"))},
              {"signal_quality", SignalQuality(ofNetwork("wlanSignal"))},
              {"address", Address(ofNetwork("ip4Address"))},
              {"netmask", Address(ofNetwork("netmask"))},
              {"gateway", Address(ofNetwork("gateway"))},
              {"address_mode", AddressMode(ofNetwork("lanDiscoverMode"))}}},
            {"versions",
             {{"boot", Text(value("firmware"))}, {"hardware", Text(value("hardwareVersion"))}}},
            {"channels", Channels(values)}};
}

std::string Dotted(const std::string& number) {
    const auto address = Numbers::Parse<std::int32_t>(number);
    return address ? Ipv4::Dotted({htonl(static_cast<std::uint32_t>(*address))}) : number;
}

void Print(const Json& report) {
    std::fputs(ToLine(report).c_str(), stdout);
    std::fflush(stdout);
}

void PrintFailure(const Outcome& outcome, bool asJson) {
    constexpr std::size_t kMaxText = 1000;
    std::string text = outcome.text;
    std::replace(text.begin(), text.end(), '\n', ' ');
    text = SafeText::Shorten(SafeText::Line(text), kMaxText);
    const std::string line = asJson ? ToLine({{"error",
                                               {{"status", NameOf(outcome.status)},
                                                {"exit", static_cast<int>(outcome.status)},
                                                {"message", text}}}})
                                    : "zelctl: " + text + "\n";
    std::fputs(line.c_str(), stderr);
}

}  // namespace Report
