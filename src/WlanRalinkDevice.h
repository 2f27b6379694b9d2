#pragma once

#include "WlanDevice.h"

/// The Ralink USB adapter (RT5572 family), "ra0". Its driver reads a settings file, in which the
/// last value of a key counts.
class WlanRalinkDevice : public WlanDevice {
public:
    static constexpr char kInterface[] = "ra0";

    explicit WlanRalinkDevice(const Context& context);

    std::string GetMacAddress() override;

protected:
    NetStatus InitializeDriver(const WlanCountryCode::Country* country) override;
    NetStatus DestroyInterface() override;
    NetStatus SetBand() override;
    NetStatus LoadDriver() override;
};
