#include "WlanEnterprise.h"

#include "DurableFile.h"
#include "SupplicantFile.h"
#include "ZelLog.h"

namespace WlanEnterprise {

bool WriteCertificates(const std::string& caCertificate, const std::string& clientCertificate,
                       const std::string& privateKey) {
    const struct {
        const char* path;
        const std::string& text;
    } files[] = {{kCaCertificate, caCertificate},
                 {kClientCertificate, clientCertificate},
                 {kPrivateKey, privateKey}};
    for (const auto& [path, text] : files) {
        if (!text.empty() && !DurableFile::Replace(path, text, DurableFile::kSecret)) {
            ZEL_ERROR("Can't create %s", path);
            return false;
        }
    }
    return true;
}

bool WriteSupplicantFile(const std::string& ssid, const std::string& deviceId) {
    SupplicantFile file("  ", "ap_scan=1\n");
    file.Add("scan_ssid", "1");
    file.Add("proto", "RSN WPA");
    file.Add("key_mgmt", "WPA-EAP");
    file.Add("pairwise", "CCMP TKIP");
    file.Add("group", "CCMP TKIP");
    file.Add("eap", "TLS");
    file.AddText("ssid", ssid);
    file.AddText("identity", "host/" + deviceId);
    file.AddText("ca_cert", kCaCertificate);
    file.AddText("client_cert", kClientCertificate);
    file.AddText("private_key", kPrivateKey);
    if (!file.Replace(kSupplicantFile)) {
        ZEL_ERROR("Can't open %s", kSupplicantFile);
        return false;
    }
    return true;
}

}  // namespace WlanEnterprise
