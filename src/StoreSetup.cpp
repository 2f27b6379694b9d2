#include "StoreSetup.h"

#include "DeviceAttributes.h"
#include "DeviceReservation.h"
#include "NetworkType.h"
#include "OplaMode.h"
#include "Revision.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace {

constexpr struct {
    const char* key;
    const char* value;
} kInitialState[] = {
    {StoreKeys::kState, DeviceReservation::kFree},
    {StoreKeys::kServing, "0"},
    {StoreKeys::kOwner, ""},
    {StoreKeys::kUuid, DeviceReservation::kFreeUuid},
    {StoreKeys::kVersion, kVersion},
    {StoreKeys::kRevision, kRevision},
    {StoreKeys::kNetworkType, NetworkType::kLan},
    {StoreKeys::kOplaMode, "OPLA"},
};

/// What answers are made of, but for what is stored.
constexpr const char* kLiveKeys[] = {
    StoreKeys::kKl15,   StoreKeys::kKl30,           StoreKeys::kHeadC, StoreKeys::kHeadD,
    StoreKeys::kVin,    StoreKeys::kDefaultGateway, StoreKeys::kLanIp, StoreKeys::kOpticalBusLight,
    StoreKeys::kTooHot, StoreKeys::kFanSpeed,
};

}  // namespace

void SetUpStore(ZelConfig& config, Trigger15& trigger15,
                const NetworkAttributes::InterfaceName& wlanInterface) {
    bool complete = AddDeviceAttributes(config, trigger15, wlanInterface);
    for (const auto& [key, value] : kInitialState) {
        config.SetFixed(key, value);
    }
    complete &= config.Load();
    if (IsOplaNext(config)) {
        config.SetFixed(StoreKeys::kServing, "1");
    }
    AddLateAttributes(config);
    if (!complete) {
        ZEL_INFO("Warning: not all attributes initialized successfully!");
    }
    trigger15.Open();
    // Their sources stay open: answers find them so even where descriptors have become scarce.
    for (const char* key : kLiveKeys) {
        config.Get(key);
    }
}
