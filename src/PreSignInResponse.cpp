#include "PreSignInResponse.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <string>
#include <string_view>

#include "ColorTable.h"
#include "LogText.h"
#include "ManagerElements.h"
#include "SlpEscapes.h"
#include "StoreKeys.h"
#include "WlanEnterprise.h"
#include "WlanSecurity.h"
#include "XmlText.h"
#include "ZelLog.h"

namespace PreSignInResponse {
namespace {

// What stands for "as before".
constexpr char kDummyCredentials[] = "Dummy-Credentials";

/// A file of the enterprise WLAN, and the element of the answer that brings a new one.
struct SecretFile {
    const char* element;
    const char* placeholder;
    const char* path;
};
// In the order of WlanEnterprise::WriteCertificates.
constexpr SecretFile kSecretFiles[] = {
    {"cacertificate", "Dummy-CA-Cert", WlanEnterprise::kCaCertificate},
    {"clientcertificate", "Dummy-Client-Cert", WlanEnterprise::kClientCertificate},
    {"keypass", "Lomitrax", WlanEnterprise::kPrivateKey}};

constexpr char kCredentialsKey[] = "wlan.conf.infra.credentials";
constexpr char kPassPhraseKey[] = "wlan.conf.infra.psk";

constexpr char kDefaultCountry[] = "DE";

constexpr std::size_t kMaxHostName = 63;     // characters
constexpr std::size_t kMaxSsid = 32;         // IEEE 802.11
constexpr std::size_t kMaxCredentials = 64;  // a pass phrase has up to 63, a key 64 digits

bool IsAlphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

/// Without the white space that the layout of a document may put around a value.
std::string Trimmed(const std::string& text) {
    constexpr char kWhiteSpace[] = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kWhiteSpace);
    return first == std::string::npos
               ? std::string()
               : text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

bool IsBlank(const std::string& text) {
    return Trimmed(text).empty();
}

/// Printable text: nothing in it that a log line or an SLP list could hold only escaped.
bool IsHostName(std::string_view text) {
    return !text.empty() && SlpEscapes::FirstCharacters(text, kMaxHostName) == text &&
           LogText::Of(text) == text && SlpEscapes::Escape(text) == text;
}

bool IsCountry(std::string_view text) {
    constexpr std::size_t kLength = 2;
    return text.size() == kLength && std::all_of(text.begin(), text.end(), IsAlphanumeric);
}

bool IsNumber(std::string_view text) {
    if (text.starts_with('-')) {
        text.remove_prefix(1);
    }
    constexpr std::size_t kMaxDigits = 9;
    return !text.empty() && text.size() <= kMaxDigits &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool IsRawKey(std::string_view text) {
    return text.size() == kMaxCredentials &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
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
    const std::string hostName = Trimmed(XmlText::ChildText(device, "hostname"));
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

/// The text of a new file; empty for the placeholder and for nothing, which stand for the present
/// one.
std::string NewText(const xmlNode* wlan, const SecretFile& file) {
    std::string text = XmlText::ChildText(wlan, file.element);
    ZEL_DEBUG("PreSignIn response %s: %s", file.element, LogText::Of(text).c_str());
    return IsBlank(text) || Trimmed(text) == file.placeholder ? std::string() : text;
}

bool TakeCertificates(const xmlNode* wlan) {
    std::array<std::string, std::size(kSecretFiles)> texts;
    std::transform(std::begin(kSecretFiles), std::end(kSecretFiles), texts.begin(),
                   [wlan](const SecretFile& file) { return NewText(wlan, file); });
    const auto isMissing = [wlan](const SecretFile& file) {
        return IsBlank(XmlText::ChildText(wlan, file.element)) && access(file.path, F_OK) != 0;
    };
    if (std::any_of(std::begin(kSecretFiles), std::end(kSecretFiles), isMissing)) {
        return Refuse("set of certificates, of which a part is missing,");
    }
    if (std::all_of(texts.begin(), texts.end(), [](const auto& text) { return text.empty(); })) {
        ZEL_DEBUG("Wlan enterprise configuration not new");
        return true;
    }
    return WlanEnterprise::WriteCertificates(texts[0], texts[1], texts[2]);
}

/// Stores a new pre-shared key. False when the WLAN settings stay as they are.
bool TakeKey(ZelConfig& config, const std::string& credentials) {
    ZEL_DEBUG("PreSignIn response credentials: %s", LogText::Of(credentials).c_str());
    const std::string trimmed = Trimmed(credentials);
    if (trimmed == kDummyCredentials) {
        ZEL_DEBUG("Wlan psk configuration not new");
        return false;
    }
    const bool hasPassPhrase = !config.Get(kPassPhraseKey).empty();
    if (trimmed.empty()) {
        const bool hasKey = config.Get(kCredentialsKey) != WlanEnterprise::kDirectory;
        return hasPassPhrase || hasKey || Refuse("WLAN configuration, which has no key,");
    }
    if (!ManagerElements::IsLine(credentials, kMaxCredentials)) {
        return Refuse("WLAN configuration");
    }
    if (!IsRawKey(credentials)) {
        ZEL_ERROR(
            "PreSignIn response: the WLAN key is not %zu hexadecimal digits, no access point can "
            "be "
            "joined with it",
            kMaxCredentials);
    } else if (hasPassPhrase) {
        ZEL_INFO("PreSignIn response: the new WLAN key takes the place of the pass phrase");
        Store(config, kPassPhraseKey, "");
    }
    Store(config, kCredentialsKey, credentials);
    return true;
}

/// Stores a value unless there is none, which stands for the present one.
void StoreNew(ZelConfig& config, const char* key, const std::string& value) {
    if (!value.empty()) {
        Store(config, key, value);
    }
}

bool IsNumberOrNone(std::string_view text) {
    return text.empty() || IsNumber(text);
}

/// False when the files of an enterprise WLAN are incomplete or cannot be written.
bool ApplyWlan(ZelConfig& config, const xmlNode* wlan) {
    const auto number = [wlan](const char* name) {
        return Trimmed(XmlText::ChildText(wlan, name));
    };
    const std::string level = number("securityLevel");
    const std::string ssid = XmlText::ChildText(wlan, "ssid");
    const std::string band = number("band");
    const std::string channel = number("channel");
    if (level.empty() || IsBlank(ssid)) {
        return true;
    }
    if (!IsNumber(level) || !ManagerElements::IsLine(ssid, kMaxSsid) || !IsNumberOrNone(band) ||
        !IsNumberOrNone(channel)) {
        Refuse("WLAN configuration");
        return true;
    }
    if (WlanSecurity::Is(level, WlanSecurity::kEnterprise)) {
        if (!TakeCertificates(wlan) ||
            !WlanEnterprise::WriteSupplicantFile(ssid, config.Get("hardware.devid"))) {
            return false;
        }
        Store(config, kCredentialsKey, WlanEnterprise::kDirectory);
    } else if ((WlanSecurity::Is(level, WlanSecurity::kRsnPsk) ||
                WlanSecurity::Is(level, WlanSecurity::kThirdRsnPsk)) &&
               !TakeKey(config, XmlText::ChildText(wlan, "credentials"))) {
        return true;
    }
    Store(config, StoreKeys::kWlanSecurity, level);
    Store(config, "wlan.conf.infra.ssid", ssid);
    StoreNew(config, "wlan.conf.infra.band", band);
    StoreNew(config, "wlan.conf.infra.channel", channel);
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
