#pragma once

#include <map>
#include <string>
#include <string_view>

/// A box that has answered a search: its address and what it says of itself. Nothing of that is
/// fit to be shown as it is (SafeText).
struct Box {
    // What boxes say for a network (attribute "NetworkType").
    static constexpr char kCable[] = "0";
    static constexpr char kWlan[] = "1";

    std::string address;
    std::map<std::string, std::string> attributes;

    /// A box has some 25; forgers may fill a datagram with them, and may be many.
    static constexpr std::size_t kMaxAttributes = 128;

    /// Reads an attribute list (RFC 2608, section 5) and takes the escapes out of its values. Older
    /// boxes do not escape: a value ends at the next ")" that ends the list or that a comma and the
    /// next attribute follow, and the first one of a name counts, since who reserves such a box
    /// chooses a part of the list. What a list has beyond kMaxAttributes is not read.
    static Box Read(const std::string& address, std::string_view attributeList);

    /// Empty when the box does not say.
    std::string Attribute(const std::string& name) const;
    std::string DeviceId() const { return Attribute("Serial"); }
    std::string HostName() const { return Attribute("DevId"); }
    /// "free", "reserved", or what else the box says.
    std::string State() const;
    /// Name of its colour, or what else the box says.
    std::string Color() const;
    /// Supply in volts, as "12.3 V".
    std::string Voltage() const;
    /// "cable" or "WLAN" with the signal's strength, or what else the box says.
    std::string Network() const;

    /// Whether `serial` is its device id, or that without the letters before the number, in upper
    /// or lower case.
    bool HasSerial(std::string_view serial) const;
};
