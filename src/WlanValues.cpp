#include "WlanValues.h"

#include "LogText.h"
#include "Numbers.h"
#include "StoreKeys.h"
#include "WlanSecurity.h"
#include "ZelLog.h"

namespace {

int Wrong(int code, const char* what, const std::string& value) {
    ZEL_ERROR("%s '%s' is not correct", what, LogText::Of(value).c_str());
    return code;
}

}  // namespace

int WlanValues::Read(const ZelConfig& config) {
    channel = Numbers::Leading<int>(config.Get(StoreKeys::kWlanChannel));
    band = config.Get(StoreKeys::kWlanBand);
    if (band != "0" && band != "1") {
        return Wrong(-1, "Band", band);
    }
    ssid = config.Get(StoreKeys::kWlanSsid);
    if (ssid.empty()) {
        return Wrong(-2, "SSID", ssid);
    }
    if (const int code = ReadSecurity(config); code != 0) {
        return code;
    }
    if (const int code = ReadCountry(config); code != 0) {
        return code;
    }
    encryptionType = config.Get(StoreKeys::kWlanEncryption);
    ZEL_DEBUG("Enc Type: %s", LogText::Of(encryptionType).c_str());
    if (!encryptionType.empty() && encryptionType != "AES" && encryptionType != "TKIP") {
        return Wrong(-7, "encryption.type", encryptionType);
    }
    psk = config.Get(StoreKeys::kWlanPassPhrase);
    return 0;
}

int WlanValues::ReadSecurity(const ZelConfig& config) {
    securityLevel = WlanSecurity::Configured(config);
    if (!WlanSecurity::IsLevel(securityLevel)) {
        return Wrong(-3, "security.level", config.Get(StoreKeys::kWlanSecurity));
    }
    credentials = config.Get(StoreKeys::kWlanCredentials);
    if (WlanSecurity::IsEnterprise(securityLevel) && credentials.empty()) {
        ZEL_ERROR("credentials '' is not correct %d", securityLevel);
        return -4;
    }
    return 0;
}

int WlanValues::ReadCountry(const ZelConfig& config) {
    const std::string code = config.Get(StoreKeys::kCountry);
    if (code.empty()) {
        ZEL_ERROR("CountryCode '' is empty");
        return -5;
    }
    ZEL_DEBUG("Country code: %s", LogText::Of(code).c_str());
    country = WlanCountryCode::FindCountry(code.c_str());
    if (country == nullptr) {
        return Wrong(-6, "CountryCode", code);
    }
    ZEL_DEBUG("Country code: %d Regdomain %d", static_cast<int>(country->countryCode),
              static_cast<int>(country->regulatoryDomain));
    return 0;
}
