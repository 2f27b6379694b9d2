#include "DiagnosticChannels.h"

DiagnosticChannels DiagnosticChannels::Read(const ZelConfig& config) {
    const auto isOn = [&config](const char* key) { return config.Get(key) == "1"; };
    return {.dCan = !isOn("diag.connected.tavo_c") && !isOn("diag.connected.tavo_d"),
            .most = isOn("diag.most.lighton") && isOn("diag.most.tavobstate")};
}

std::string DiagnosticChannels::ToText() const {
    return std::string("[KLine") + (dCan ? ",DCAN" : "") + (most ? ",MOST" : "") + "]";
}
