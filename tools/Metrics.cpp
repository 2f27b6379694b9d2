#include "Metrics.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "Numbers.h"

namespace Metrics {
namespace {

using Labels = std::vector<std::pair<const char*, std::string>>;

std::string Escape(std::string_view value) {
    std::string escaped;
    for (const char c : value) {
        if (c == '\\' || c == '"') {
            escaped += '\\';
        }
        escaped += c;  // there are no line feeds in what is fit to be shown
    }
    return escaped;
}

/// A metric: its samples follow each other, below what is said of it once.
class Family {
public:
    Family(std::string& text, const char* name, const char* help, const char* unit = "")
        : text_(text), name_(name) {
        text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " gauge\n";
        if (*unit != '\0') {
            text_ += "# UNIT " + name_ + " " + unit + "\n";
        }
    }

    void Add(const Labels& labels, const std::string& value) {
        std::string list;
        for (const auto& [label, text] : labels) {
            list += (list.empty() ? "" : ",") + std::string(label) + "=\"" +
                    Escape(BoxMemory::Value(text)) + "\"";
        }
        text_ += name_ + (list.empty() ? "" : "{" + list + "}") + " " + value + "\n";
    }

private:
    std::string& text_;
    std::string name_;
};

Labels LabelsOf(const BoxMemory::Key& key) {
    return {{"serial", key.serial}, {"address", key.address}};
}

Labels LabelsOf(const Box& box, const Labels& further = {}) {
    Labels labels = LabelsOf(BoxMemory::KeyOf(box));
    labels.insert(labels.end(), further.begin(), further.end());
    return labels;
}

/// Of a number of millivolts.
std::optional<std::string> Volts(const std::string& text) {
    const auto millivolts = Numbers::Parse<unsigned>(text);
    if (!millivolts) {
        return std::nullopt;
    }
    constexpr unsigned kMilli = 1000;
    std::array<char, 32> volts{};
    std::snprintf(volts.data(), volts.size(), "%u.%03u", *millivolts / kMilli,
                  *millivolts % kMilli);
    return volts.data();
}

std::optional<std::string> Signal(const Box& box) {
    const auto quality = Numbers::Parse<std::uint8_t>(box.Attribute("SignalStrength"));
    return quality && box.Network().starts_with("WLAN") ? std::optional(std::to_string(*quality))
                                                        : std::nullopt;
}

std::optional<std::string> Reserved(const Box& box) {
    const std::string state = box.State();
    return state == "reserved" ? std::optional<std::string>("1")
           : state == "free"   ? std::optional<std::string>("0")
                               : std::nullopt;
}

struct BoxMetric {
    const char* name;
    const char* help;
    const char* unit;
    std::optional<std::string> (*value)(const Box& box);
};

constexpr BoxMetric kBoxMetrics[] = {
    {"zel_box_reserved", "Whether somebody has reserved the box.", "", Reserved},
    {"zel_box_voltage_kl15_volts", "Voltage at terminal 15 (ignition).", "volts",
     [](const Box& box) { return Volts(box.Attribute("Kl15Voltage")); }},
    {"zel_box_voltage_kl30_volts", "Voltage at terminal 30 (battery).", "volts",
     [](const Box& box) { return Volts(box.Attribute("Kl30Voltage")); }},
    {"zel_box_signal_strength",
     "Quality of the WLAN as its adapter tells it, 0 to 255; boxes on a cable have none.", "",
     Signal},
};

void AddInfo(std::string& text, const std::vector<Box>& boxes) {
    Family info(text, "zel_box_info", "What a box that answers says of itself.");
    for (const Box& box : boxes) {
        const std::string network = box.Network();
        info.Add(LabelsOf(box, {{"name", box.HostName()},
                                {"type", box.Attribute("DevType")},
                                {"mac", box.Attribute("MacAddress")},
                                {"color", box.Color()},
                                {"network", network.starts_with("WLAN ") ? "WLAN" : network},
                                {"application_version", box.Attribute("ImageVersionApplication")},
                                {"boot_version", box.Attribute("ImageVersionBoot")},
                                {"package_version", box.Attribute("ImageVersionPackage")}}),
                 "1");
    }
}

void AddOwners(std::string& text, const std::vector<Box>& boxes) {
    Family owners(text, "zel_box_owner_info", "Who has reserved the box.");
    for (const Box& box : boxes) {
        if (box.State() == "reserved") {
            owners.Add(LabelsOf(box, {{"owner", box.Attribute("Owner")}}), "1");
        }
    }
}

void AddTemperatures(std::string& text, const std::vector<Box>& boxes,
                     const std::map<std::string, BoxTemperature>& temperatures) {
    Family critical(text, "zel_box_temperature_critical",
                    "Whether the box is too hot to be reserved.");
    std::string further;
    Family celsius(further, "zel_box_temperature_celsius", "Temperature of the box.", "celsius");
    for (const Box& box : boxes) {
        const auto found = temperatures.find(box.address);
        if (found != temperatures.end()) {
            const BoxTemperature& temperature = found->second;
            critical.Add(LabelsOf(box), temperature.isTooHot ? "1" : "0");
            if (temperature.celsius) {
                celsius.Add(LabelsOf(box), std::to_string(*temperature.celsius));
            }
        }
    }
    text += further;
}

void AddMemory(std::string& text, const BoxMemory& memory) {
    Family lastSeen(text, "zel_box_last_seen_timestamp_seconds",
                    "When the box has last answered a search.", "seconds");
    for (const auto& [key, entry] : memory.All()) {
        lastSeen.Add(LabelsOf(key), std::to_string(entry.lastSeen));
    }
    Family reservedSince(text, "zel_box_reserved_since_timestamp_seconds",
                         "The first search that has found the box reserved by its present owner.",
                         "seconds");
    for (const auto& [key, entry] : memory.All()) {
        if (entry.reservedSince > 0 && entry.isThere) {
            reservedSince.Add(LabelsOf(key), std::to_string(entry.reservedSince));
        }
    }
}

void AddSums(std::string& text, const std::vector<Box>& boxes, const BoxMemory& memory,
             BoxMemory::Seconds now) {
    std::map<std::string, std::size_t> states{{"free", 0}, {"reserved", 0}, {"other", 0}};
    std::map<std::string, std::size_t> serials;
    for (const Box& box : boxes) {
        const auto state = states.find(box.State());
        ++(state == states.end() ? states["other"] : state->second);
        ++serials[BoxMemory::KeyOf(box).serial];
    }
    states["gone"] = static_cast<std::size_t>(
        std::count_if(memory.All().begin(), memory.All().end(),
                      [](const auto& each) { return !each.second.isThere; }));
    serials.erase("");
    Family byState(text, "zel_boxes",
                   "Boxes by state; those that are gone have answered an earlier search.");
    for (const auto& [state, count] : states) {
        byState.Add({{"state", state}}, std::to_string(count));
    }
    Family(text, "zel_duplicate_serials", "Serial numbers that more than one box says it has.")
        .Add({}, std::to_string(std::count_if(serials.begin(), serials.end(),
                                              [](const auto& each) { return each.second > 1; })));
    Family(text, "zel_search_timestamp_seconds", "When the boxes were searched for.", "seconds")
        .Add({}, std::to_string(now));
}

}  // namespace

std::string Render(const std::vector<Box>& boxes, const BoxMemory& memory, BoxMemory::Seconds now,
                   const Detail& detail) {
    std::string text;
    AddInfo(text, boxes);
    for (const BoxMetric& metric : kBoxMetrics) {
        Family family(text, metric.name, metric.help, metric.unit);
        for (const Box& box : boxes) {
            if (const auto value = metric.value(box)) {
                family.Add(LabelsOf(box), *value);
            }
        }
    }
    if (detail.ownerLabel) {
        AddOwners(text, boxes);
    }
    if (detail.temperatures != nullptr) {
        AddTemperatures(text, boxes, *detail.temperatures);
    }
    AddMemory(text, memory);
    AddSums(text, boxes, memory, now);
    return text + "# EOF\n";
}

}  // namespace Metrics
