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

bool WlanDevice::HasLink() {
    return SupplicantProcess::IsAssociated(Name());
}

NetStatus WlanDevice::DisableInterface() {
    SupplicantProcess::End();
    return NetDevice::DisableInterface();
}

NetStatus WlanDevice::Connect(const StopRequested& stopRequested) {
    ZEL_INFO("Try to connect with an access point");
    if (values_.Read(Config()) != 0 || !SupplicantNetwork::CanWrite(values_)) {
        return NetStatus::kFailed;
    }
    SupplicantProcess::End();
    static_cast<void>(DestroyInterface());  // there may be none yet
    if (const NetStatus status = PrepareChip(); Failed(status)) {
        return status;
    }
    if (const NetStatus status = StartSupplicant(); Failed(status)) {
        return status;
    }
    for (int attempt = 0; attempt < kAssociationAttempts; ++attempt) {
        SupplicantLog::Limit();
        if (HasLink()) {
            return NetStatus::kDone;
        }
        if (stopRequested()) {
            break;
        }
        usleep(kAssociationPause);
    }
    SupplicantProcess::End();
    return NetStatus::kFailed;
}

NetStatus WlanDevice::PrepareChip() {
    if (const NetStatus status = InitializeDriver(values_.country); Failed(status)) {
        return status;
    }
    constexpr struct {
        const char* name;
        NetStatus (WlanDevice::*run)();
    } kSteps[] = {{"Create wlan interface", &WlanDevice::CreateInterface},
                  {"Set ssid", &WlanDevice::SetSsid},
                  {"Set antenna gain", &WlanDevice::SetAntennaGain},
                  {"Set wlan band", &WlanDevice::SetBand},
                  {"Set chainmask and bandwidth", &WlanDevice::SetChainmaskAndBandwidth}};
    for (const auto& [name, run] : kSteps) {
        LogStep(name);
        if (const NetStatus status = (this->*run)(); Failed(status)) {
            return status;
        }
    }
    return LoadDriver();
}

NetStatus WlanDevice::StartSupplicant() {
    ZEL_DEBUG("Start supplicant");
    const std::string file = SupplicantNetwork::Write(values_);
    if (file.empty() || !SupplicantProcess::Start(Name(), supplicantDriver_, file)) {
        return NetStatus::kFailed;
    }
    sleep(1);
    return EnableInterface();
}

NetStatus WlanDevice::DestroyInterface() {
    ifreq request{};
    return InterfaceRequest(&request, kDestroyRequest);
}

NetStatus WlanDevice::LoadDriver() {
    ZEL_DEBUG("LoadDriver");
    return NetStatus::kDone;
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
