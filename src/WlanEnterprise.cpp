#include "WlanEnterprise.h"

#include "DurableFile.h"
#include "ZelLogging.h"

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
    const auto quoted = [](const char* name, const std::string& value) {
        return std::string("  ") + name + "=\"" + value + "\"\n";
    };
    const std::string text =
        "ap_scan=1\n"
        "network={\n"
        "  scan_ssid=1\n"
        "  proto=RSN WPA\n"
        "  key_mgmt=WPA-EAP\n"
        "  pairwise=CCMP TKIP\n"
        "  group=CCMP TKIP\n"
        "  eap=TLS\n" +
        quoted("ssid", ssid) + quoted("identity", "host/" + deviceId) +
        quoted("ca_cert", kCaCertificate) + quoted("client_cert", kClientCertificate) +
        quoted("private_key", kPrivateKey) + "}\n";
    if (!DurableFile::Replace(kSupplicantFile, text, DurableFile::kSecret)) {
        ZEL_ERROR("Can't open %s", kSupplicantFile);
        return false;
    }
    return true;
}

}  // namespace WlanEnterprise
