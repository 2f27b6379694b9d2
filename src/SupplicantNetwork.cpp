#include "SupplicantNetwork.h"

#include "LogText.h"
#include "SupplicantFile.h"
#include "WlanSecurity.h"
#include "ZelLog.h"

namespace SupplicantNetwork {
namespace {

constexpr char kFileName[] = "/wpa.conf";
constexpr std::size_t kMaxSsid = 32;
// A longer path would cut the supplicant's command line, and without its last options the
// supplicant stays in the foreground.
constexpr std::size_t kMaxPath = 256;

bool HasUsableKey(const WlanValues& values) {
    return values.psk.empty() ? SupplicantFile::CanStandAlone(values.credentials)
                              : SupplicantFile::CanQuote(values.psk);
}

void AddPsk(SupplicantFile& file, const WlanValues& values) {
    file.Add("proto", values.securityLevel == WlanSecurity::kWpaPsk ? "WPA" : "RSN");
    if (!values.encryptionType.empty()) {
        // The preferred cipher first; the other is allowed.
        const char* const ciphers = values.encryptionType == "AES" ? "CCMP TKIP" : "TKIP CCMP";
        file.Add("pairwise", ciphers);
        file.Add("group", ciphers);
    }
    file.Add("key_mgmt", "WPA-PSK");
    if (values.psk.empty()) {
        file.Add("psk", values.credentials);
    } else {
        file.AddText("psk", values.psk);
    }
}

}  // namespace

bool CanWrite(const WlanValues& values) {
    if (values.securityLevel == WlanSecurity::kEnterprise) {
        const std::string path = values.credentials + kFileName;
        if (path.size() > kMaxPath || !SupplicantFile::IsPlainPath(path)) {
            ZEL_ERROR(
                "The directory of the supplicant's file, '%s', is too long or holds more than "
                "letters, digits and \"/._-\"",
                LogText::Of(values.credentials).c_str());
            return false;
        }
        return true;
    }
    if (WlanSecurity::IsPsk(values.securityLevel) && !HasUsableKey(values)) {
        ZEL_ERROR(
            "The WLAN key is too long or has control characters or a comment mark, check "
            "wlan.conf.infra.psk and wlan.conf.infra.credentials");
        return false;
    }
    if (values.ssid.size() > kMaxSsid) {
        ZEL_ERROR("SSID '%s' is longer than %zu bytes", LogText::Of(values.ssid).c_str(), kMaxSsid);
        return false;
    }
    return true;
}

std::string Write(const WlanValues& values) {
    const int level = values.securityLevel;
    const std::string directory =
        level == WlanSecurity::kEnterprise ? values.credentials : kDirectory;
    std::string path = directory + kFileName;
    if (level != WlanSecurity::kOpen && !WlanSecurity::IsPsk(level)) {
        return path;
    }
    ZEL_DEBUG("Write %s config", level == WlanSecurity::kOpen ? "open" : "wpa psk");
    SupplicantFile file("\t");
    file.AddText("ssid", values.ssid);
    if (level == WlanSecurity::kOpen) {
        file.Add("key_mgmt", "NONE");
    } else {
        AddPsk(file, values);
    }
    if (!file.Replace(path)) {
        ZEL_ERROR("Can't write %s", path.c_str());
        return "";
    }
    return path;
}

}  // namespace SupplicantNetwork
