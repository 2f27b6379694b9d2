#include "WlanDevice.h"

#include <linux/sockios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Characters.h"
#include "LogText.h"
#include "Numbers.h"
#include "Shell.h"
#include "SupplicantFile.h"
#include "SupplicantLog.h"
#include "WpaCliInterface.h"
#include "ZelLog.h"

namespace {

constexpr char kNetworkFile[] = "/tmp/supplicant/wpa.conf";
constexpr char kFileName[] = "/wpa.conf";
constexpr char kControlDirectory[] = "/tmp/supplicant/ctrl";
constexpr char kPidFile[] = "/var/run/wpa_supplicant.pid";
constexpr unsigned long kDestroyRequest = SIOCDEVPRIVATE + 8;
constexpr int kAssociationAttempts = 60;
constexpr useconds_t kAssociationPause = 1000000;

// Values of "wlan.conf.infra.security.level".
constexpr int kFirstLevel = 102;
constexpr int kRsnPsk = 102;
constexpr int kOtherRsnPsk = 103;
constexpr int kOpen = 104;
constexpr int kThirdRsnPsk = 105;
constexpr int kEnterprise = 106;
constexpr int kWpaPsk = 107;
constexpr int kOtherEnterprise = 108;
constexpr int kLastLevel = 109;

constexpr std::size_t kMaxSsid = 32;
// A longer path would cut the supplicant's command line, and without its last options the
// supplicant stays in the foreground.
constexpr std::size_t kMaxPath = 256;

/// A path that the shell takes as one word and that fits into the command line.
bool IsPlainPath(const std::string& path) {
    constexpr std::string_view kOthers = "/._-";
    return !path.empty() && path.size() <= kMaxPath &&
           std::all_of(path.begin(), path.end(), [&kOthers](char c) {
               return Characters::IsAlphanumeric(c) || kOthers.find(c) != std::string_view::npos;
           });
}

/// A network file that begins with this SSID.
SupplicantFile NetworkFile(const std::string& ssid) {
    SupplicantFile file("\t");
    file.AddText("ssid", ssid);
    return file;
}

int Write(const SupplicantFile& file) {
    if (!file.Replace(kNetworkFile)) {
        ZEL_ERROR("Can't write %s", kNetworkFile);
        return -1;
    }
    return 0;
}

void KillSupplicant() {
    Shell::KillByPidFile(kPidFile);
}

}  // namespace

int WlanDevice::WlanValues::Read(const ZelConfig& config) {
    channel_ = Numbers::Leading<int>(config.Get("wlan.conf.infra.channel"));
    band_ = config.Get("wlan.conf.infra.band");
    if (band_ != "0" && band_ != "1") {
        ZEL_ERROR("Band '%s' is not correct", LogText::Of(band_).c_str());
        return -1;
    }
    ssid_ = config.Get("wlan.conf.infra.ssid");
    if (ssid_.empty()) {
        ZEL_ERROR("SSID '%s' is not correct", ssid_.c_str());
        return -2;
    }
    if (const int code = ReadSecurity(config); code != 0) {
        return code;
    }
    if (const int code = ReadCountry(config); code != 0) {
        return code;
    }
    encryptionType_ = config.Get("wlan.conf.infra.encryption.type");
    ZEL_DEBUG("Enc Type: %s", LogText::Of(encryptionType_).c_str());
    if (!encryptionType_.empty() && encryptionType_ != "AES" && encryptionType_ != "TKIP") {
        ZEL_ERROR("encryption.type '%s' is not correct", LogText::Of(encryptionType_).c_str());
        return -7;
    }
    psk_ = config.Get("wlan.conf.infra.psk");
    return 0;
}

int WlanDevice::WlanValues::ReadSecurity(const ZelConfig& config) {
    const std::string level = config.Get("wlan.conf.infra.security.level");
    securityLevel_ = Numbers::Leading<int>(level);
    if (securityLevel_ < kFirstLevel || securityLevel_ > kLastLevel) {
        ZEL_ERROR("security.level '%s' is not correct", LogText::Of(level).c_str());
        return -3;
    }
    credentials_ = config.Get("wlan.conf.infra.credentials");
    const bool needed = securityLevel_ == kEnterprise || securityLevel_ == kOtherEnterprise;
    if (needed && credentials_.empty()) {
        ZEL_ERROR("credentials '%s' is not correct %d", credentials_.c_str(), securityLevel_);
        return -4;
    }
    return 0;
}

int WlanDevice::WlanValues::ReadCountry(const ZelConfig& config) {
    const std::string code = config.Get("country.code");
    if (code.empty()) {
        ZEL_ERROR("CountryCode '%s' is empty", code.c_str());
        return -5;
    }
    ZEL_DEBUG("Country code: %s", LogText::Of(code).c_str());
    country_ = WlanCountryCode::FindCountry(code.c_str());
    if (country_ == nullptr) {
        ZEL_ERROR("CountryCode '%s' is not correct", LogText::Of(code).c_str());
        return -6;
    }
    ZEL_DEBUG("Country code: %d Regdomain %d", static_cast<int>(country_->countryCode),
              static_cast<int>(country_->regulatoryDomain));
    return 0;
}

WlanDevice::WlanDevice(std::string interface, std::string supplicantDriver, const Context& context)
    : NetDevice(std::move(interface), context), supplicantDriver_(std::move(supplicantDriver)) {}

int WlanDevice::HasLink() {
    WpaCliInterface supplicant;
    if (supplicant.Open(std::string(kControlDirectory) + "/" + Name()) != 0) {
        return 0;
    }
    std::string reply;
    const int failed = supplicant.Request("STATUS", reply);
    supplicant.Close();
    if (failed != 0) {
        return 0;
    }
    ZEL_DEBUG("wpa_cli: %s", reply.c_str());
    return strcasestr(reply.c_str(), "wpa_state=COMPLETED") != nullptr ? 1 : 0;
}

NetStatus WlanDevice::DisableInterface() {
    KillSupplicant();
    return NetDevice::DisableInterface();
}

int WlanDevice::Connect() {
    ZEL_INFO("Try to connect with an access point");
    if (values_.Read(Config()) != 0 || !CanWriteNetworkFile()) {
        return -1;
    }
    KillSupplicant();
    DestroyInterface();
    if (const int status = PrepareChip(); status != 0) {
        return status;
    }
    if (const int status = StartSupplicant(); status != 0) {
        return status;
    }
    for (int attempt = 0; attempt < kAssociationAttempts; ++attempt) {
        SupplicantLog::Limit();
        if (HasLink() != 0) {
            return 0;
        }
        usleep(kAssociationPause);
    }
    KillSupplicant();
    return -1;
}

/// Whether the supplicant would read the settings as they are meant, and only them.
bool WlanDevice::CanWriteNetworkFile() const {
    switch (values_.SecurityLevel()) {
        case kEnterprise:
            if (!IsPlainPath(values_.Credentials() + kFileName)) {
                ZEL_ERROR(
                    "The directory of the supplicant's file, '%s', is too long or holds more than "
                    "letters, digits and \"/._-\"",
                    LogText::Of(values_.Credentials()).c_str());
                return false;
            }
            return true;
        case kRsnPsk:
        case kOtherRsnPsk:
        case kThirdRsnPsk:
        case kWpaPsk: {
            if (!(values_.Psk().empty() ? SupplicantFile::CanStandAlone(values_.Credentials())
                                        : SupplicantFile::CanQuote(values_.Psk()))) {
                ZEL_ERROR(
                    "The WLAN key is too long or has control characters or a comment mark, check "
                    "wlan.conf.infra.psk and wlan.conf.infra.credentials");
                return false;
            }
            break;
        }
        default:
            break;
    }
    if (values_.Ssid().size() > kMaxSsid) {
        ZEL_ERROR("SSID '%s' is longer than %zu bytes", LogText::Of(values_.Ssid()).c_str(),
                  kMaxSsid);
        return false;
    }
    return true;
}

int WlanDevice::PrepareChip() {
    if (const int status = InitializeDriver(values_.Country()); status != 0) {
        return status;
    }
    constexpr int (WlanDevice::*const kSteps[])() = {
        &WlanDevice::CreateInterface,          &WlanDevice::SetSsid,
        &WlanDevice::SetAntennaGain,           &WlanDevice::SetBand,
        &WlanDevice::SetChainmaskAndBandwidth, &WlanDevice::LoadDriver};
    for (const auto step : kSteps) {
        if (const int status = (this->*step)(); status != 0) {
            return status;
        }
    }
    return 0;
}

int WlanDevice::StartSupplicant() {
    ZEL_DEBUG("Start supplicant");
    std::string directory = kSupplicantDirectory;
    int status = 0;
    switch (values_.SecurityLevel()) {
        case kOpen:
            status = WriteOpenConfig();
            break;
        case kRsnPsk:
        case kOtherRsnPsk:
        case kThirdRsnPsk:
        case kWpaPsk:
            status = WritePskConfig();
            break;
        case kEnterprise:
            directory = values_.Credentials();
            break;
        default:
            break;
    }
    if (status != 0) {
        return -1;
    }
    const std::string file = directory + kFileName;
    std::string output;
    if (Shell::RunWithin(
            {}, output,
            "/app/velka/wlan/sta/wpa_supplicant -i %s -D %s -c %s -B -C /tmp/supplicant/ctrl "
            "-tddf /tmp/log/wpa_supplicant -P /var/run/wpa_supplicant.pid",
            Name().c_str(), supplicantDriver_.c_str(), file.c_str()) < Shell::Fate::kEnded) {
        return -1;
    }
    sleep(1);
    return static_cast<int>(EnableInterface());
}

int WlanDevice::WriteOpenConfig() const {
    ZEL_DEBUG("Write open config");
    SupplicantFile file = NetworkFile(values_.Ssid());
    file.Add("key_mgmt", "NONE");
    return Write(file);
}

int WlanDevice::WritePskConfig() const {
    ZEL_DEBUG("Write wpa psk config");
    SupplicantFile file = NetworkFile(values_.Ssid());
    file.Add("proto", values_.SecurityLevel() == kWpaPsk ? "WPA" : "RSN");
    if (!values_.EncryptionType().empty()) {
        // The preferred cipher first; the other is allowed.
        const char* const ciphers = values_.EncryptionType() == "AES" ? "CCMP TKIP" : "TKIP CCMP";
        file.Add("pairwise", ciphers);
        file.Add("group", ciphers);
    }
    file.Add("key_mgmt", "WPA-PSK");
    // A pass phrase, or else a raw key.
    if (values_.Psk().empty()) {
        file.Add("psk", values_.Credentials());
    } else {
        file.AddText("psk", values_.Psk());  // Connect has seen that quotes can hold it
    }
    return Write(file);
}

std::string WlanDevice::GetMacAddress() {
    return "";
}

int WlanDevice::InitializeDriver(const WlanCountryCode::Country* /*country*/) {
    return 0;
}

int WlanDevice::DestroyInterface() {
    ifreq request{};
    return static_cast<int>(InterfaceRequest(&request, kDestroyRequest));
}

int WlanDevice::CreateInterface() {
    ZEL_DEBUG("Create wlan interface");
    return 0;
}

int WlanDevice::SetSsid() {
    ZEL_DEBUG("Set ssid");
    return 0;
}

int WlanDevice::SetAntennaGain() {
    ZEL_DEBUG("Set antenna gain");
    return 0;
}

int WlanDevice::SetBand() {
    ZEL_DEBUG("Set wlan band");
    return 0;
}

int WlanDevice::SetChainmaskAndBandwidth() {
    ZEL_DEBUG("Set chainmask and bandwidth");
    return 0;
}

int WlanDevice::LoadDriver() {
    ZEL_DEBUG("LoadDriver");
    return 0;
}

int WlanDevice::DoIo(ifreq* /*request*/, unsigned long /*code*/) {
    return 0;
}
