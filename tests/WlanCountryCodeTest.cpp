#include "NetworkBox.h"
#include "WlanCountryCode.h"

namespace {

using WlanCountryCode::FindCountry;
using WlanCountryCodeTest = NetworkBox;

TEST_F(WlanCountryCodeTest, CountriesByTheirTwoLetters) {
    std::filesystem::remove("/app/velka/wlan/black.list");
    int count = 0;
    for (int i = 0; i < 26 * 26; ++i) {
        const std::string iso{static_cast<char>('A' + i / 26), static_cast<char>('A' + i % 26)};
        const auto* country = FindCountry(iso.c_str());
        count += country == nullptr ? 0 : 1;
        EXPECT_TRUE(country == nullptr || country->iso == iso) << iso;
    }
    EXPECT_EQ(count, 127);
    for (const char* iso : {"DE", "ZM", "CS"}) {
        const auto* country = FindCountry(iso);
        EXPECT_TRUE(country->countryCode == 276 && country->regulatoryDomain == 55) << iso;
    }
    WriteFile("/app/velka/wlan/black.list", "US\nAT,BE\n");
    EXPECT_NE(FindCountry("FR"), nullptr);
    for (const char* iso : {"US", "AT", "BE", "", "D", "DEU", "de", "D ", "XX"}) {
        EXPECT_EQ(FindCountry(iso), nullptr) << iso;
    }
}

}  // namespace
