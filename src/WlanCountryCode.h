#pragma once

#include <cstdint>

/// The countries in which a WLAN adapter may be operated.
namespace WlanCountryCode {

struct Country {
    std::uint32_t countryCode;       ///< "countrycode=" of the Atheros driver
    std::uint32_t regulatoryDomain;  ///< "myregdomain=" of the Atheros driver
    char iso[3];                     ///< two upper-case letters (ISO 3166-1)
    const char* name;                ///< English, upper case, "_" for blanks
};

/// The country with that code, two upper-case letters; null when there is none or it is
/// black-listed.
[[nodiscard]] const Country* FindCountry(const char* iso);

/// 1 when a line of the box's black list contains the code, else 0.
[[nodiscard]] int IsBlackListed(const char* iso);

}  // namespace WlanCountryCode
