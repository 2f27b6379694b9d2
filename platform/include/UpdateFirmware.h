#pragma once

#include <string>

/// Installs software images. Each image type has two slots, of which one is active; an image goes
/// into the inactive one, which becomes the active one when it is complete. An interruption at any
/// point leaves a complete active slot.
class UpdateFirmware {
public:
    enum ImageType { FIRMWARE = 0, APPLICATION = 1 };

    /// What GetUpdateState answers.
    enum UpdateState {
        CLEAN = 0,   ///< the last update, if any, is complete
        DIRTY = 1,   ///< an update was begun and not completed
        UNKNOWN = 2  ///< the state cannot be read
    };

    /// Installs the file at `imagePath`. Returns 0 on success and -1 on failure; the reason is
    /// logged under the handler "UpdateFirmwareLog".
    [[nodiscard]] int DoUpdateFirmware(ImageType type, const std::string& imagePath);

    /// State of the last update of that type, an UpdateState.
    int GetUpdateState(ImageType type) const;
};
