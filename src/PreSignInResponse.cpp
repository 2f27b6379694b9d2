#include "PreSignInResponse.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "ColorTable.h"
#include "LogText.h"
#include "WlanEnterprise.h"
#include "XmlText.h"
#include "ZelLogging.h"

namespace PreSignInResponse {
namespace {

// Security levels of the WLAN that have credentials of their own kind.
constexpr char kEnterprise[] = "106";
constexpr char kWpaPsk[] = "102";
constexpr char kWpa2Psk[] = "105";

// What stands for "as before".
constexpr char kDummyCredentials[] = "Dummy-Credentials";
constexpr char kDummyCaCertificate[] = "Dummy-CA-Cert";
constexpr char kDummyClientCertificate[] = "Dummy-Client-Cert";
constexpr char kDummyKeyPass[] = "Lomitrax";

constexpr char kDefaultCountry[] = "DE";

constexpr std::size_t kMaxHostName = 63;     // one label (RFC 1035, section 2.3.4)
constexpr std::size_t kMaxSsid = 32;         // IEEE 802.11
constexpr std::size_t kMaxCredentials = 64;  // a pass phrase has up to 63, a key 64 digits

bool IsAlphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool IsHostName(std::string_view text) {
    return !text.empty() && text.size() <= kMaxHostName && text.front() != '-' &&
           text.front() != '.' && std::all_of(text.begin(), text.end(), [](char c) {
               return IsAlphanumeric(c) || c == '-' || c == '.' || c == '_';
           });
}

bool IsCountry(std::string_view text) {
    constexpr std::size_t kLength = 2;
    return text.size() == kLength && std::all_of(text.begin(), text.end(), IsAlphanumeric);
}

/// One line that the supplicant's file and the configuration file can hold.
bool IsLine(std::string_view text, std::size_t maxLength) {
    constexpr char kDelete = 0x7f;
    return text.size() <= maxLength && std::none_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) < ' ' || c == kDelete;
           });
}

bool IsNumber(std::string_view text) {
    if (text.starts_with('-')) {
        text.remove_prefix(1);
    }
    constexpr std::size_t kMaxDigits = 9;
    return !text.empty() && text.size() <= kMaxDigits &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool Refuse(const char* what) {
    ZEL_ERROR("PreSignIn response: the %s cannot be used, keeping the present one", what);
    return false;
}

void Store(ZelConfig& config, const char* key, const std::string& value) {
    config.Set(key, value, ZelConfig::Kind::kPersistent);
}

void ApplyHostName(ZelConfig& config, const xmlNode* device) {
    if (XmlText::FindChild(device, "hostname") == nullptr) {
        return;
    }
    const std::string hostName = XmlText::ChildText(device, "hostname");
    if (IsHostName(hostName)) {
        Store(config, "tavo.hostname", hostName);
    } else {
        Refuse("host name");
    }
}

void ApplyColor(ZelConfig& config, const xmlNode* color) {
    const std::string code = XmlText::Content(color);
    ZEL_DEBUG("PreSignIn response color: %s", LogText::Of(code).c_str());
    if (color == nullptr) {
        return;
    }
    const std::string_view name = ColorTable::NameOf(code);
    if (name.empty()) {
        Refuse("color");
    } else {
        Store(config, "tavo.color", std::string(name));
    }
}

void ApplyCountry(ZelConfig& config, const xmlNode* country) {
    const std::string code = XmlText::Content(country);
    ZEL_DEBUG("PreSignIn response countryCode: %s", LogText::Of(code).c_str());
    if (country == nullptr) {
        return;
    }
    if (code.empty()) {
        Store(config, "country.code", kDefaultCountry);
    } else if (IsCountry(code)) {
        Store(config, "country.code", code);
    } else {
        Refuse("country code");
    }
}

bool TakeCertificates(const xmlNode* wlan) {
    const std::string caCertificate = XmlText::ChildText(wlan, "cacertificate");
    const std::string clientCertificate = XmlText::ChildText(wlan, "clientcertificate");
    const std::string keyPass = XmlText::ChildText(wlan, "keypass");
    ZEL_DEBUG("PreSignIn response cacertificate: %s", LogText::Of(caCertificate).c_str());
    ZEL_DEBUG("PreSignIn response clientcertificate: %s", LogText::Of(clientCertificate).c_str());
    ZEL_DEBUG("PreSignIn response keypass: %s", LogText::Of(keyPass).c_str());
    if (caCertificate == kDummyCaCertificate && clientCertificate == kDummyClientCertificate &&
        keyPass == kDummyKeyPass) {
        ZEL_DEBUG("Wlan enterprise configuration not new");
        return true;
    }
    if (caCertificate.empty() || clientCertificate.empty() || keyPass.empty()) {
        return Refuse("set of certificates, of which a part is missing,");
    }
    // A placeholder beside new files stands for the present one, too.
    const auto newOrNone = [](const std::string& text, const char* placeholder) {
        return text == placeholder ? std::string() : text;
    };
    return WlanEnterprise::WriteCertificates(newOrNone(caCertificate, kDummyCaCertificate),
                                             newOrNone(clientCertificate, kDummyClientCertificate),
                                             newOrNone(keyPass, kDummyKeyPass));
}

bool ApplyWlan(ZelConfig& config, const xmlNode* wlan) {
    if (XmlText::FindChild(wlan, "securityLevel") == nullptr ||
        XmlText::FindChild(wlan, "ssid") == nullptr) {
        return true;
    }
    const std::string level = XmlText::ChildText(wlan, "securityLevel");
    const std::string ssid = XmlText::ChildText(wlan, "ssid");
    const std::string band = XmlText::ChildText(wlan, "band");
    const std::string channel = XmlText::ChildText(wlan, "channel");
    const std::string credentials = XmlText::ChildText(wlan, "credentials");
    if (!IsNumber(level) || !IsLine(ssid, kMaxSsid) || (!band.empty() && !IsNumber(band)) ||
        (!channel.empty() && !IsNumber(channel))) {
        Refuse("WLAN configuration");
        return true;
    }
    if (level == kEnterprise) {
        if (!TakeCertificates(wlan) ||
            !WlanEnterprise::WriteSupplicantFile(ssid, config.Get("hardware.devid"))) {
            return false;
        }
        Store(config, "wlan.conf.infra.credentials", WlanEnterprise::kDirectory);
    } else if (level == kWpaPsk || level == kWpa2Psk) {
        ZEL_DEBUG("PreSignIn response credentials: %s", LogText::Of(credentials).c_str());
        if (credentials == kDummyCredentials) {
            ZEL_DEBUG("Wlan psk configuration not new");
            return true;
        }
        if (!IsLine(credentials, kMaxCredentials)) {
            Refuse("WLAN configuration");
            return true;
        }
        Store(config, "wlan.conf.infra.credentials", credentials);
    }
    Store(config, "wlan.conf.infra.security.level", level);
    Store(config, "wlan.conf.infra.ssid", ssid);
    Store(config, "wlan.conf.infra.band", band);
    Store(config, "wlan.conf.infra.channel", channel);
    return true;
}

void LogDate(const xmlNode* date) {
    if (date == nullptr) {
        return;
    }
    const auto part = [date](const char* name) {
        return LogText::Of(XmlText::ChildText(date, name));
    };
    ZEL_DEBUG("Date of the manager: %s-%s-%s %s:%s", part("year").c_str(), part("month").c_str(),
              part("day").c_str(), part("hour").c_str(), part("minute").c_str());
}

}  // namespace

bool Apply(ZelConfig& config, const xmlNode* preSignInReturn) {
    ApplyHostName(config, XmlText::FindChild(preSignInReturn, "device"));
    ApplyColor(config, XmlText::FindChild(preSignInReturn, "color"));
    ApplyCountry(config, XmlText::FindChild(preSignInReturn, "countryCode"));
    if (!ApplyWlan(config, XmlText::FindChild(preSignInReturn, "infrastructureConfig"))) {
        return false;
    }
    LogDate(XmlText::FindChild(preSignInReturn, "date"));
    return true;
}

}  // namespace PreSignInResponse
