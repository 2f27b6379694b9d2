#include "PreSignInResponse.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Characters.h"
#include "ColorTable.h"
#include "LogText.h"
#include "Numbers.h"
#include "SlpEscapes.h"
#include "StoreKeys.h"
#include "WlanEnterprise.h"
#include "WlanSecurity.h"
#include "ZelLog.h"

namespace PreSignInResponse {
namespace {

using ManagerElements::Answer;

// What stands for "as before".
constexpr char kDummyCredentials[] = "Dummy-Credentials";

/// A file of the enterprise WLAN, and the element of the answer that brings a new one.
struct SecretFile {
    const char* element;
    Answer::Text Answer::*text;
    const char* placeholder;
    const char* path;
};
// In the order of WlanEnterprise::WriteCertificates.
constexpr SecretFile kSecretFiles[] = {
    {"cacertificate", &Answer::caCertificate, "Dummy-CA-Cert", WlanEnterprise::kCaCertificate},
    {"clientcertificate", &Answer::clientCertificate, "Dummy-Client-Cert",
     WlanEnterprise::kClientCertificate},
    {"keypass", &Answer::keyPass, "Lomitrax", WlanEnterprise::kPrivateKey}};

constexpr char kDefaultCountry[] = "DE";

constexpr std::size_t kMaxHostName = 63;     // characters
constexpr std::size_t kMaxSsid = 32;         // IEEE 802.11
constexpr std::size_t kMaxCredentials = 64;  // a pass phrase has up to 63, a key 64 digits

/// Keys and values, in the order in which they are stored.
using Settings = std::vector<std::pair<const char*, std::string>>;

/// What is to be stored of a WLAN: nothing where the present one stays.
struct Wlan {
    Settings settings;
    /// New texts of the files of an enterprise WLAN; empty keeps the present file.
    std::optional<std::array<std::string, std::size(kSecretFiles)>> files;
};

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
    return text.size() == kLength &&
           std::all_of(text.begin(), text.end(), Characters::IsAlphanumeric);
}

bool IsNumber(const std::string& text) {
    return Numbers::Parse<int>(text).has_value();
}

bool IsRawKey(std::string_view text) {
    return text.size() == kMaxCredentials &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

void LogRefused(const char* what) {
    ZEL_ERROR("PreSignIn response: the %s cannot be used, keeping the present one", what);
}

/// Takes a value that can be used.
void Judge(const char* what, bool isUsable, const char* key, std::string value,
           Settings& settings) {
    if (isUsable) {
        settings.emplace_back(key, std::move(value));
    } else {
        LogRefused(what);
    }
}

Settings JudgeBox(const Answer& answer) {
    Settings settings;
    if (answer.hostName) {
        const std::string name = Trimmed(*answer.hostName);
        Judge("host name", IsHostName(name), StoreKeys::kHostName, name, settings);
    }
    ZEL_DEBUG("PreSignIn response color: %s", LogText::Of(answer.color.value_or("")).c_str());
    if (answer.color) {
        const std::string_view name = ColorTable::NameOf(*answer.color);
        Judge("color", !name.empty(), StoreKeys::kColor, std::string(name), settings);
    }
    ZEL_DEBUG("PreSignIn response countryCode: %s",
              LogText::Of(answer.countryCode.value_or("")).c_str());
    if (answer.countryCode) {
        const std::string code =
            answer.countryCode->empty() ? kDefaultCountry : *answer.countryCode;
        Judge("country code", IsCountry(code), StoreKeys::kCountry, code, settings);
    }
    return settings;
}

/// The placeholder and nothing stand for the present file. False when there is none.
bool JudgeCertificates(const Answer& answer, Wlan& wlan) {
    wlan.files.emplace();
    bool isMissing = false;
    for (std::size_t i = 0; i < std::size(kSecretFiles); ++i) {
        const SecretFile& file = kSecretFiles[i];
        const std::string text = (answer.*file.text).value_or("");
        ZEL_DEBUG("PreSignIn response %s: %s", file.element, LogText::Of(text).c_str());
        isMissing = isMissing || (IsBlank(text) && access(file.path, F_OK) != 0);
        if (!IsBlank(text) && Trimmed(text) != file.placeholder) {
            (*wlan.files)[i] = text;
        }
    }
    if (isMissing) {
        LogRefused("set of certificates, of which a part is missing,");
        return false;
    }
    if (std::all_of(wlan.files->begin(), wlan.files->end(),
                    [](const std::string& text) { return text.empty(); })) {
        ZEL_DEBUG("Wlan enterprise configuration not new");
    }
    wlan.settings.emplace_back(StoreKeys::kWlanCredentials, WlanEnterprise::kDirectory);
    return true;
}

/// Takes a new pre-shared key. False when the WLAN settings stay as they are.
bool JudgeKey(const ZelConfig& config, const std::string& credentials, Settings& settings) {
    ZEL_DEBUG("PreSignIn response credentials: %s", LogText::Of(credentials).c_str());
    const std::string trimmed = Trimmed(credentials);
    if (trimmed == kDummyCredentials) {
        ZEL_DEBUG("Wlan psk configuration not new");
        return false;
    }
    const bool hasPassPhrase = !config.Get(StoreKeys::kWlanPassPhrase).empty();
    if (trimmed.empty()) {
        const bool hasKey = config.Get(StoreKeys::kWlanCredentials) != WlanEnterprise::kDirectory;
        if (!hasPassPhrase && !hasKey) {
            LogRefused("WLAN configuration, which has no key,");
        }
        return hasPassPhrase || hasKey;
    }
    if (!ManagerElements::IsLine(credentials, kMaxCredentials)) {
        LogRefused("WLAN configuration");
        return false;
    }
    if (!IsRawKey(credentials)) {
        ZEL_ERROR(
            "PreSignIn response: the WLAN key is not %zu hexadecimal digits, no access point can "
            "be joined with it",
            kMaxCredentials);
    } else if (hasPassPhrase) {
        ZEL_INFO("PreSignIn response: the new WLAN key takes the place of the pass phrase");
        settings.emplace_back(StoreKeys::kWlanPassPhrase, "");
    }
    settings.emplace_back(StoreKeys::kWlanCredentials, credentials);
    return true;
}

/// False when the files of an enterprise WLAN are incomplete.
bool JudgeWlan(const ZelConfig& config, const Answer& answer, Wlan& wlan) {
    const std::string level = Trimmed(answer.securityLevel.value_or(""));
    const std::string ssid = answer.ssid.value_or("");
    const std::string band = Trimmed(answer.band.value_or(""));
    const std::string channel = Trimmed(answer.channel.value_or(""));
    if (level.empty() || IsBlank(ssid)) {
        return true;
    }
    if (!IsNumber(level) || !ManagerElements::IsLine(ssid, kMaxSsid) ||
        !(band.empty() || IsNumber(band)) || !(channel.empty() || IsNumber(channel))) {
        LogRefused("WLAN configuration");
        return true;
    }
    if (WlanSecurity::Is(level, WlanSecurity::kEnterprise)) {
        if (!JudgeCertificates(answer, wlan)) {
            return false;
        }
    } else if ((WlanSecurity::Is(level, WlanSecurity::kRsnPsk) ||
                WlanSecurity::Is(level, WlanSecurity::kThirdRsnPsk)) &&
               !JudgeKey(config, answer.credentials.value_or(""), wlan.settings)) {
        return true;
    }
    wlan.settings.emplace_back(StoreKeys::kWlanSecurity, level);
    wlan.settings.emplace_back(StoreKeys::kWlanSsid, ssid);
    if (!band.empty()) {
        wlan.settings.emplace_back(StoreKeys::kWlanBand, band);
    }
    if (!channel.empty()) {
        wlan.settings.emplace_back(StoreKeys::kWlanChannel, channel);
    }
    return true;
}

void Store(ZelConfig& config, const Settings& settings) {
    for (const auto& [key, value] : settings) {
        config.SetPersistent(key, value);
    }
}

/// False when a file of the WLAN cannot be written.
bool Store(ZelConfig& config, const Answer& answer, const Wlan& wlan) {
    if (wlan.files) {
        const auto& [caCertificate, clientCertificate, privateKey] = *wlan.files;
        if (!WlanEnterprise::WriteCertificates(caCertificate, clientCertificate, privateKey) ||
            !WlanEnterprise::WriteSupplicantFile(*answer.ssid, config.Get(StoreKeys::kDeviceId))) {
            return false;
        }
    }
    Store(config, wlan.settings);
    return true;
}

void LogDate(const Answer& answer) {
    if (!answer.date) {
        return;
    }
    const auto part = [](const Answer::Text& text) { return LogText::Of(text.value_or("")); };
    ZEL_DEBUG("Date of the manager: %s-%s-%s %s:%s", part(answer.year).c_str(),
              part(answer.month).c_str(), part(answer.day).c_str(), part(answer.hour).c_str(),
              part(answer.minute).c_str());
}

}  // namespace

bool Apply(ZelConfig& config, const Answer& answer) {
    Store(config, JudgeBox(answer));
    Wlan wlan;
    if (!JudgeWlan(config, answer, wlan) || !Store(config, answer, wlan)) {
        return false;
    }
    LogDate(answer);
    return true;
}

}  // namespace PreSignInResponse
