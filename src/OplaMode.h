#pragma once

#include "ZelConfig.h"

inline constexpr char kOplaModeKey[] = "opla.mode";

/// Whether the box is integrated in the way that needs no manager: it then serves at once.
inline bool IsOplaNext(const ZelConfig& config) {
    return config.Get(kOplaModeKey) == "OPLA-Next";
}
