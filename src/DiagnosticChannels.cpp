#include "DiagnosticChannels.h"

#include "StoreKeys.h"

DiagnosticChannels DiagnosticChannels::Read(const ZelConfig& config, LiveSources& sources) {
    const auto isOn = [&](const char* key) { return config.Get(key, sources) == "1"; };
    return {.dCan = !isOn(StoreKeys::kHeadC) && !isOn(StoreKeys::kHeadD),
            .most = isOn(StoreKeys::kOpticalBusLight) && isOn(StoreKeys::kOpticalBusThere)};
}

std::string DiagnosticChannels::ToText() const {
    return std::string("[KLine") + (dCan ? ",DCAN" : "") + (most ? ",MOST" : "") + "]";
}
