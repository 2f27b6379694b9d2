#include "WlanCountryCode.h"

#include <cstring>
#include <fstream>
#include <string>

#include "ZelLog.h"

namespace WlanCountryCode {
namespace {

constexpr char kBlackList[] = "/app/velka/wlan/black.list";

// Several countries deliberately borrow the numbers of Germany or of the United States.
constexpr Country kCountries[] = {
    {8, 3, "AL", "ALBANIA"},
    {276, 55, "AO", "ANGOLA"},
    {32, 71, "AR", "ARGENTINA"},
    {51, 48, "AM", "ARMENIA"},
    {36, 33, "AU", "AUSTRALIA"},
    {40, 55, "AT", "AUSTRIA"},
    {31, 48, "AZ", "AZERBAIJAN"},
    {48, 91, "BH", "BAHRAIN"},
    {840, 58, "BB", "BARBADOS"},
    {112, 55, "BY", "BELARUS"},
    {56, 55, "BE", "BELGIUM"},
    {276, 55, "BJ", "BENIN"},
    {840, 58, "BM", "BERMUDA"},
    {276, 55, "BA", "BOSNIA_HERZEGOWINA"},
    {76, 59, "BR", "BRAZIL"},
    {96, 82, "BN", "BRUNEI_DARUSSALAM"},
    {100, 52, "BG", "BULGARIA"},
    {124, 32, "CA", "CANADA"},
    {840, 58, "KY", "CAYMAN_ISLANDS"},
    {152, 91, "CL", "CHILE"},
    {156, 82, "CN", "CHINA"},
    {170, 16, "CO", "COLOMBIA"},
    {188, 17, "CR", "COSTA_RICA"},
    {191, 54, "HR", "CROATIA"},
    {196, 54, "CY", "CYPRUS"},
    {203, 54, "CZ", "CZECH_REPUBLIC"},
    {208, 55, "DK", "DENMARK"},
    {214, 16, "DO", "DOMINICAN_REPUBLIC"},
    {218, 17, "EC", "ECUADOR"},
    {818, 54, "EG", "EGYPT"},
    {222, 17, "SV", "EL_SALVADOR"},
    {233, 55, "EE", "ESTONIA"},
    {231, 3, "ET", "ETHIOPIA"},
    {840, 58, "FJ", "FIJI"},
    {246, 55, "FI", "FINLAND"},
    {250, 55, "FR", "FRANCE"},
    {276, 55, "GF", "FRENCH_GUIANA"},
    {276, 55, "GA", "GABON"},
    {268, 48, "GE", "GEORGIA"},
    {276, 55, "DE", "GERMANY"},
    {276, 55, "GH", "GHANA"},
    {300, 55, "GR", "GREECE"},
    {276, 55, "GP", "GUADELOUPE"},
    {840, 58, "GU", "GUAM"},
    {320, 16, "GT", "GUATEMALA"},
    {340, 59, "HN", "HONDURAS"},
    {344, 33, "HK", "HONG_KONG"},
    {348, 48, "HU", "HUNGARY"},
    {352, 55, "IS", "ICELAND"},
    {356, 91, "IN", "INDIA"},
    {360, 82, "ID", "INDONESIA"},
    {372, 55, "IE", "IRELAND"},
    {376, 54, "IL", "ISRAEL"},
    {380, 55, "IT", "ITALY"},
    {840, 58, "JM", "JAMAICA"},
    {392, 64, "JP", "JAPAN"},
    {400, 53, "JO", "JORDAN"},
    {398, 3, "KZ", "KAZAKHSTAN"},
    {276, 55, "KE", "KENYA"},
    {410, 94, "KR", "KOREA_REPUBLIC"},
    {414, 54, "KW", "KUWAIT"},
    {428, 55, "LV", "LATVIA"},
    {422, 82, "LB", "LEBANON"},
    {440, 55, "LT", "LITHUANIA"},
    {442, 55, "LU", "LUXEMBOURG"},
    {446, 33, "MO", "MACAU"},
    {807, 55, "MK", "MACEDONIA"},
    {276, 55, "MG", "MADAGASCAR"},
    {276, 55, "MW", "MALAWI"},
    {458, 93, "MY", "MALAYSIA"},
    {470, 55, "MT", "MALTA"},
    {276, 55, "MQ", "MARTINIQUE"},
    {276, 55, "MR", "MAURITANIA"},
    {276, 55, "MU", "MAURITIUS"},
    {484, 16, "MX", "MEXICO"},
    {276, 55, "MD", "MOLDOVA"},
    {276, 55, "ME", "MONTENEGRO"},
    {504, 3, "MA", "MOROCCO"},
    {528, 55, "NL", "NETHERLANDS"},
    {276, 55, "AN", "NETHERLANDS_ANTILLES"},
    {276, 55, "NC", "NEW_CALEDONIA"},
    {554, 34, "NZ", "NEW_ZEALAND"},
    {840, 58, "NI", "NICARAGUA"},
    {840, 58, "NG", "NIGERIA"},
    {578, 55, "NO", "NORWAY"},
    {512, 91, "OM", "OMAN"},
    {586, 82, "PK", "PAKISTAN"},
    {275, 54, "PS", "PALESTINIAN_TERRITORY"},
    {591, 16, "PA", "PANAMA"},
    {840, 58, "PY", "PARAGUAY"},
    {604, 82, "PE", "PERU"},
    {608, 82, "PH", "PHILIPPINES"},
    {616, 55, "PL", "POLAND"},
    {620, 55, "PT", "PORTUGAL"},
    {634, 82, "QA", "QATAR"},
    {276, 55, "RE", "REUNION"},
    {642, 55, "RO", "ROMANIA"},
    {643, 88, "RU", "RUSSIA"},
    {840, 58, "LC", "SAINT_LUCIA"},
    {276, 55, "SM", "SAN_MARINO"},
    {682, 17, "SA", "SAUDI_ARABIA"},
    {276, 55, "SN", "SENEGAL"},
    {276, 55, "CS", "SERBIA"},
    {702, 91, "SG", "SINGAPORE"},
    {703, 55, "SK", "SLOVAK_REPUBLIC"},
    {705, 55, "SI", "SLOVENIA"},
    {710, 59, "ZA", "SOUTH_AFRICA"},
    {724, 55, "ES", "SPAIN"},
    {276, 55, "LK", "SRI_LANKA"},
    {752, 55, "SE", "SWEDEN"},
    {756, 55, "CH", "SWITZERLAND"},
    {276, 55, "PF", "TAHITI"},
    {158, 80, "TW", "TAIWAN"},
    {764, 59, "TH", "THAILAND"},
    {276, 55, "TG", "TOGO"},
    {780, 48, "TT", "TRINIDAD&TOBAGO"},
    {788, 54, "TN", "TUNISIA"},
    {792, 54, "TR", "TURKEY"},
    {276, 55, "UG", "UGANDA"},
    {804, 3, "UA", "UKRAINE"},
    {784, 55, "AE", "UNITED_ARAB_EMIRATES"},
    {826, 55, "GB", "UNITED_KINGDOM"},
    {840, 58, "US", "UNITED_STATES"},
    {858, 17, "UY", "URUGUAY"},
    {862, 86, "VE", "VENEZUELA"},
    {704, 48, "VN", "VIET_NAM"},
    {276, 55, "ZM", "ZAMBIA"},
};
static_assert(std::size(kCountries) == 127);

}  // namespace

const Country* FindCountry(const char* iso) {
    if (std::strlen(iso) != 2) {
        ZEL_DEBUG("strlen isonam != 2");
        return nullptr;
    }
    if (IsBlackListed(iso) != 0) {
        return nullptr;
    }
    for (const Country& country : kCountries) {
        if (std::strcmp(country.iso, iso) == 0) {
            return &country;
        }
    }
    return nullptr;
}

int IsBlackListed(const char* iso) {
    std::ifstream file(kBlackList);
    if (!file) {
        ZEL_DEBUG("Can't open black.list file");
        return 0;
    }
    std::string line;
    while (std::getline(file, line)) {
        if (line.find(iso) != std::string::npos) {
            return 1;
        }
    }
    return 0;
}

}  // namespace WlanCountryCode
