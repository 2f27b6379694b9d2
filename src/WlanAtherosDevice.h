#pragma once

#include "WlanDevice.h"

/// The Atheros PCI adapter, "ath0", behind the madwifi driver family.
class WlanAtherosDevice : public WlanDevice {
public:
    static constexpr char kInterface[] = "ath0";

    // Statuses of DoIo() when the interface does not exist.
    static constexpr int kInactive = -6;  ///< the card is there
    static constexpr int kNoCard = -7;

    explicit WlanAtherosDevice(const Context& context);

    std::string GetMacAddress() override;

protected:
    int InitializeDriver(const WlanCountryCode::Country* country) override;
    int CreateInterface() override;
    int SetSsid() override;
    int SetAntennaGain() override;
    int SetBand() override;
    int SetChainmaskAndBandwidth() override;
    int DoIo(ifreq* request, unsigned long code) override;
};
