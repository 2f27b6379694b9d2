#pragma once

#include "WlanDevice.h"

/// The Atheros PCI adapter, "ath0", behind the madwifi driver family.
class WlanAtherosDevice : public WlanDevice {
public:
    static constexpr char kInterface[] = "ath0";

    explicit WlanAtherosDevice(const Context& context);

    std::string GetMacAddress() override;

protected:
    NetStatus InitializeDriver(const WlanCountryCode::Country* country) override;
    NetStatus CreateInterface() override;
    NetStatus SetSsid() override;
    NetStatus SetAntennaGain() override;
    NetStatus SetBand() override;
    NetStatus SetChainmaskAndBandwidth() override;
    NetStatus DoIo(ifreq* request, unsigned long code) override;
};
