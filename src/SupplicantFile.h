#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

/// A configuration file of the WPA supplicant (wpa_supplicant.conf) with one network.
class SupplicantFile {
public:
    /// Most bytes of a value. The supplicant reads its file in pieces of 511 bytes: the rest of a
    /// longer line would count as a setting of its own.
    static constexpr std::size_t kMaxValue = 256;

    /// Whether the supplicant reads `text`, in double quotes, as it is meant: not when it is too
    /// long, has control characters, or would end at a comment mark.
    static bool CanQuote(std::string_view text);
    /// The same of `value` without quotes.
    static bool CanStandAlone(std::string_view value);

    /// Whether the shell takes a path as one word, and the supplicant as one value: letters, digits
    /// and "/._-".
    static bool IsPlainPath(std::string_view path);

    /// The first value of that setting in a file, without quotes around it; empty when there is
    /// none. Of the line " ca_cert=\"/config/cacert\"" it is "/config/cacert".
    static std::string Value(std::istream& file, std::string_view name);

    /// `before` stands in front of the network, `indent` in front of each of its settings.
    explicit SupplicantFile(std::string indent, std::string_view before = {});

    /// Adds a setting whose value is written as it stands.
    void Add(std::string_view name, std::string_view value);
    /// Adds a setting whose value is any text: in double quotes, or in hexadecimal where they
    /// cannot hold it. The supplicant takes both for an SSID or an identity, but not for a pass
    /// phrase.
    void AddText(std::string_view name, std::string_view text);

    /// Puts the file in the place of the one at `path`; it is its owner's alone. Returns false when
    /// it cannot be written.
    [[nodiscard]] bool Replace(const std::string& path) const;

private:
    std::string indent_;
    std::string text_;
};
