#pragma once

#include <sys/time.h>

#include <cstdint>
#include <functional>
#include <string>

#include "ZelConfig.h"

/// Sets the system clock from the certificates of an enterprise WLAN. The box's own clock cannot be
/// trusted at start, and the WLAN is joined only while its certificates are valid: so the clock is
/// set to one day before the earlier of their end dates.
class SetDateTime {
public:
    /// Sets the clock; 0, or -1 with errno set.
    using SetClock = std::function<int(const timeval&)>;

    /// With the system's own clock.
    explicit SetDateTime(const ZelConfig& config);
    SetDateTime(const ZelConfig& config, SetClock setClock);

    /// Returns 0 when the clock was set, or when the WLAN's security level is none of an enterprise
    /// and nothing had to be done. Returns -1 when no end date could be read or the clock not set.
    [[nodiscard]] int Set() const;

    /// End date of the certificate that the supplicant's file names under `key` ("ca_cert" or
    /// "client_cert"), in seconds since 1970-01-01 00:00 UTC; -1 when there is none. Dates that
    /// 32-bit seconds cannot hold are moved to the last that they can.
    [[nodiscard]] static std::int64_t ReadEndDate(const std::string& key);

private:
    const ZelConfig& config_;
    SetClock setClock_;
};
