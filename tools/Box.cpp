#include "Box.h"

#include <array>
#include <cstdio>

#include "AnyCase.h"
#include "ColorTable.h"
#include "Numbers.h"
#include "SlpEscapes.h"

namespace {

constexpr char kFree[] = "4";
constexpr char kReserved[] = "5";

}  // namespace

Box Box::Read(const std::string& address, std::string_view attributeList) {
    Box box{address, {}};
    while (!attributeList.empty() && box.attributes.size() < kMaxAttributes) {
        constexpr std::string_view kBetween = "),(";
        const std::size_t end = attributeList.find(kBetween);
        std::string_view attribute = attributeList.substr(0, end);
        attributeList.remove_prefix(end == std::string_view::npos ? attributeList.size()
                                                                  : end + kBetween.size());
        if (attribute.starts_with('(')) {
            attribute.remove_prefix(1);
        }
        if (end == std::string_view::npos && attribute.ends_with(')')) {
            attribute.remove_suffix(1);
        }
        const std::size_t equals = attribute.find('=');
        if (equals != std::string_view::npos && equals > 0) {
            box.attributes.emplace(attribute.substr(0, equals),
                                   SlpEscapes::Unescape(attribute.substr(equals + 1)));
        }
    }
    return box;
}

std::string Box::Attribute(const std::string& name) const {
    const auto found = attributes.find(name);
    return found == attributes.end() ? "" : found->second;
}

std::string Box::State() const {
    const std::string state = Attribute("State");
    return state == kFree ? "free" : state == kReserved ? "reserved" : state;
}

std::string Box::Color() const {
    const std::string value = Attribute("Color");
    const std::string_view name = ColorTable::NameOf(value);
    return name.empty() ? value : std::string(name);
}

std::string Box::Voltage() const {
    std::string text = Attribute("Kl30Voltage");
    const auto millivolts = Numbers::Parse<unsigned>(text);
    if (!millivolts) {
        return text;
    }
    std::array<char, 32> volts{};
    std::snprintf(volts.data(), volts.size(), "%.1f V", *millivolts / 1000.0);
    return volts.data();
}

std::string Box::Network() const {
    const std::string type = Attribute("NetworkType");
    return type == kCable ? "cable" : type == kWlan ? "WLAN " + Attribute("SignalStrength") : type;
}

bool Box::HasSerial(std::string_view serial) const {
    const std::string id = DeviceId();
    const std::size_t number = id.find_first_of("0123456789");
    return !serial.empty() &&
           (AnyCase::Equal(id, serial) ||
            (number != std::string::npos && AnyCase::Equal(id.substr(number), serial)));
}
