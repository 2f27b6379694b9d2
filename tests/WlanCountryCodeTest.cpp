#include "NetworkBox.h"
#include "WlanCountryCode.h"

namespace {

using WlanCountryCode::FindCountry;
using WlanCountryCodeTest = NetworkBox;

TEST_F(WlanCountryCodeTest, CountriesByTheirTwoLetters) {
    std::filesystem::remove("/app/velka/wlan/black.list");
    std::string all;
    for (int i = 0; i < 26 * 26; ++i) {
        const std::string iso{static_cast<char>('A' + i / 26), static_cast<char>('A' + i % 26)};
        if (const auto* country = FindCountry(iso.c_str()); country != nullptr) {
            EXPECT_EQ(country->iso, iso);
            all += iso + " " + country->name + " " + std::to_string(country->countryCode) + "/" +
                   std::to_string(country->regulatoryDomain) + "\n";
        }
    }
    // Wrong numbers make a radio send where it must not: no row changes unnoticed.
    WriteFile("/tmp/countries", all);
    EXPECT_EQ(OutputOf("md5sum < /tmp/countries"), "e8a84e18a6f132cad68b52e71facbe97  -\n") << all;
    WriteFile("/app/velka/wlan/black.list", "US\nAT,BE\n");
    EXPECT_NE(FindCountry("FR"), nullptr);
    for (const char* iso : {"US", "AT", "BE", "", "D", "DEU", "de", "D ", "XX"}) {
        EXPECT_EQ(FindCountry(iso), nullptr) << iso;
    }
}

}  // namespace
