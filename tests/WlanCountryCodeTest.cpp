#include "NetworkBox.h"
#include "WlanCountryCode.h"

namespace {

using WlanCountryCode::FindCountry;
using WlanCountryCodeTest = NetworkBox;

std::uint64_t Fnv1a(const std::string& text) {
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char byte : text) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
    }
    return hash;
}

TEST_F(WlanCountryCodeTest, CountriesByTheirTwoLetters) {
    std::filesystem::remove("/app/velka/wlan/black.list");
    int count = 0;
    std::string all;
    for (int i = 0; i < 26 * 26; ++i) {
        const std::string iso{static_cast<char>('A' + i / 26), static_cast<char>('A' + i % 26)};
        if (const auto* country = FindCountry(iso.c_str()); country != nullptr) {
            EXPECT_EQ(country->iso, iso);
            ++count;
            all += iso + " " + country->name + " " + std::to_string(country->countryCode) + "/" +
                   std::to_string(country->regulatoryDomain) + ";";
        }
    }
    EXPECT_EQ(count, 127);
    // Wrong numbers make a radio send where it must not: no row changes unnoticed.
    EXPECT_EQ(Fnv1a(all), 0x1c9405593b1e74d5U) << all;
    WriteFile("/app/velka/wlan/black.list", "US\nAT,BE\n");
    EXPECT_NE(FindCountry("FR"), nullptr);
    for (const char* iso : {"US", "AT", "BE", "", "D", "DEU", "de", "D ", "XX"}) {
        EXPECT_EQ(FindCountry(iso), nullptr) << iso;
    }
}

}  // namespace
