#pragma once

#include "StoreKeys.h"
#include "ZelConfig.h"

/// Whether the box is integrated in the way that needs no manager: it then serves at once.
inline bool IsOplaNext(const ZelConfig& config) {
    return config.Get(StoreKeys::kOplaMode) == "OPLA-Next";
}
