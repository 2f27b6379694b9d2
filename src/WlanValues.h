#pragma once

#include <string>

#include "WlanCountryCode.h"
#include "ZelConfig.h"

/// The configured settings of the access point ("wlan.conf.infra.*", "country.code").
struct WlanValues {
    int channel = -1;
    std::string band;  ///< "0" is 2.4 GHz, "1" is 5 GHz
    std::string ssid;
    int securityLevel = 0;    ///< one of WlanSecurity
    std::string credentials;  ///< a raw key, or the directory of the supplicant's file
    const WlanCountryCode::Country* country = nullptr;  ///< null before the settings were read
    std::string encryptionType;                         ///< "AES", "TKIP" or empty
    std::string psk;                                    ///< a pass phrase

    /// Reads and checks the settings. Returns 0, or the code of the first that is wrong, with a
    /// line in the log: -1 band, -2 SSID, -3 security level, -4 credentials, -5 country missing, -6
    /// country unknown or black-listed, -7 encryption type.
    [[nodiscard]] int Read(const ZelConfig& config);

private:
    int ReadSecurity(const ZelConfig& config);
    int ReadCountry(const ZelConfig& config);
};
