#include "StoreSetup.h"

#include "DeviceAttributes.h"
#include "DeviceReservation.h"
#include "NetworkType.h"
#include "OplaMode.h"
#include "Revision.h"
#include "ZelLog.h"

namespace {

constexpr struct {
    const char* key;
    const char* value;
} kInitialState[] = {
    {"zel.state.current", DeviceReservation::kFree},
    {"zel.state.startup", "0"},
    {"zel.state.owner", ""},
    {"zel.state.uuid", DeviceReservation::kFreeUuid},
    {"zel.version", kVersion},
    {"zel.svn.version", kRevision},
    {NetworkType::kKey, NetworkType::kLan},
    {kOplaModeKey, "OPLA"},
};

}  // namespace

void SetUpStore(ZelConfig& config, Trigger15& trigger15,
                const NetworkAttributes::InterfaceName& wlanInterface) {
    bool complete = AddDeviceAttributes(config, trigger15, wlanInterface);
    for (const auto& [key, value] : kInitialState) {
        complete &= config.Set(key, value, ZelConfig::Kind::kFixed);
    }
    complete &= config.Load();
    if (IsOplaNext(config)) {
        complete &= config.Set("zel.state.startup", "1", ZelConfig::Kind::kFixed);
    }
    AddLateAttributes(config);
    if (!complete) {
        ZEL_INFO("Warning: not all attributes initialized successfully!");
    }
    trigger15.Open();
}
