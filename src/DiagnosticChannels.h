#pragma once

#include <string>

#include "ZelConfig.h"

/// Which of the box's diagnostic channels the connected hardware lets a client use. The K-Line is
/// always there; who may use the channels is the reservation's matter.
struct DiagnosticChannels {
    bool dCan = false;  ///< no diagnosis head is connected that takes the bus
    bool most = false;  ///< the optical bus interface is there and sees light

    static DiagnosticChannels Read(const ZelConfig& config, LiveSources& sources);

    /// The usable channels in brackets, with commas between them and always in this order:
    /// "[KLine,DCAN,MOST]", at least "[KLine]".
    std::string ToText() const;
};
