#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// What the box knows of a manager's answer to a PreSignIn. Managers write it with or without
/// namespaces, and write more than the box reads.
namespace ManagerElements {

/// The text of each element of preSignInTavoReturn that the box reads, as the manager has written
/// it; nothing for one that is not there. Of elements of one name in one place the first counts.
struct Answer {
    using Text = std::optional<std::string>;

    Text hostName, color, countryCode;
    // infrastructureConfig
    Text band, channel, securityLevel, ssid, credentials, caCertificate, clientCertificate, keyPass;
    Text date;  ///< empty: its parts follow
    Text minute, hour, day, month, year;
    Text update;  ///< updateConfigurationExt; empty: its parts follow
    Text updateSoftware, updateType, appVersion, firmwareVersion, protocol, ip, port, context;
    // Of the first "attributes" at any depth, known or not; empty where there is none.
    std::string digest, fileName;
};

/// Reads the element preSignInTavoResponse (null gives an answer of nothing) and leaves in it what
/// the schemas are to check: no element that the box does not read, none in a namespace that is not
/// of the manager's service, none that is nil (a preSignInTavoReturn stays all the same), and
/// neither attributes nor namespaces of those below it. Nothing of what they hold is checked.
Answer Read(xmlNode* response);

/// Whether a value is one line of up to that many bytes, without control characters: one that
/// becomes part of a file of settings stays one setting.
[[nodiscard]] bool IsLine(std::string_view value, std::size_t maxLength);

}  // namespace ManagerElements
