#pragma once

/// Restarts the device.
class Reboot {
public:
    /// Asks the system to reboot and returns at once: 0 when the request was accepted, else -1.
    [[nodiscard]] int DoReboot();
};
