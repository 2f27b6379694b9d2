#include "WlanDevice.h"

#include <linux/sockios.h>
#include <unistd.h>

#include "Shell.h"
#include "SupplicantLog.h"
#include "SupplicantNetwork.h"
#include "SupplicantProcess.h"
#include "ZelLog.h"

namespace {

constexpr unsigned long kDestroyRequest = SIOCDEVPRIVATE + 8;
constexpr int kAssociationAttempts = 60;
constexpr useconds_t kAssociationPause = 1000000;
constexpr mode_t kDirectoryMode = 0755;

}  // namespace

WlanDevice::WlanDevice(std::string interface, std::string supplicantDriver, const Context& context,
                       const char* logPrefix)
    : NetDevice(std::move(interface), context),
      supplicantDriver_(std::move(supplicantDriver)),
      logPrefix_(logPrefix) {}

int WlanDevice::HasLink() {
    return SupplicantProcess::IsAssociated(Name()) ? 1 : 0;
}

NetStatus WlanDevice::DisableInterface() {
    SupplicantProcess::End();
    return NetDevice::DisableInterface();
}

int WlanDevice::Connect(const StopRequested& stopRequested) {
    ZEL_INFO("Try to connect with an access point");
    if (values_.Read(Config()) != 0 || !SupplicantNetwork::CanWrite(values_)) {
        return -1;
    }
    SupplicantProcess::End();
    static_cast<void>(DestroyInterface());  // there may be none yet
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
        if (stopRequested()) {
            break;
        }
        usleep(kAssociationPause);
    }
    SupplicantProcess::End();
    return -1;
}

int WlanDevice::PrepareChip() {
    if (const int status = InitializeDriver(values_.country); status != 0) {
        return status;
    }
    constexpr struct {
        const char* name;
        int (WlanDevice::*run)();
    } kSteps[] = {{"Create wlan interface", &WlanDevice::CreateInterface},
                  {"Set ssid", &WlanDevice::SetSsid},
                  {"Set antenna gain", &WlanDevice::SetAntennaGain},
                  {"Set wlan band", &WlanDevice::SetBand},
                  {"Set chainmask and bandwidth", &WlanDevice::SetChainmaskAndBandwidth}};
    for (const auto& [name, run] : kSteps) {
        LogStep(name);
        if (const int status = (this->*run)(); status != 0) {
            return status;
        }
    }
    return LoadDriver();
}

int WlanDevice::StartSupplicant() {
    ZEL_DEBUG("Start supplicant");
    const std::string file = SupplicantNetwork::Write(values_);
    if (file.empty() || !SupplicantProcess::Start(Name(), supplicantDriver_, file)) {
        return -1;
    }
    sleep(1);
    return static_cast<int>(EnableInterface());
}

int WlanDevice::DestroyInterface() {
    ifreq request{};
    return static_cast<int>(InterfaceRequest(&request, kDestroyRequest));
}

int WlanDevice::LoadDriver() {
    ZEL_DEBUG("LoadDriver");
    return 0;
}

void WlanDevice::LogStep(const char* name) const {
    ZEL_DEBUG("%s%s", logPrefix_, name);
}

bool WlanDevice::IsKnown(const WlanCountryCode::Country* country) {
    if (country == nullptr) {
        ZEL_ERROR("CountryDefinition is null");
    }
    return country != nullptr;
}

bool WlanDevice::MakeDirectory(const char* path) {
    if (Shell::MakeDirectoryPath(path, kDirectoryMode) != 0) {
        ZEL_ERROR("Can't create %s", path);
        return false;
    }
    return true;
}
