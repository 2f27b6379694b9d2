#pragma once

#include "NetDevice.h"
#include "WlanValues.h"

/// A WLAN station: before it gets an address it is connected to the configured access point, by the
/// supplicant (SupplicantNetwork, SupplicantProcess) and by steps that each kind of chip fills in.
/// Connect() passes the status of a step that fails on.
class WlanDevice : public NetDevice {
public:
    using WlanValues = ::WlanValues;

    /// `supplicantDriver` is the name of the supplicant's driver for this chip, `logPrefix` stands
    /// in front of the names of the steps in the log.
    WlanDevice(std::string interface, std::string supplicantDriver, const Context& context,
               const char* logPrefix = "");

    /// Whether the supplicant says that it is associated.
    bool HasLink() override;
    /// Ends the supplicant, then as every interface.
    NetStatus DisableInterface() override;

    /// Connects to the configured access point; waits up to a minute for it, a wait that ends
    /// within two seconds when it is asked to stop.
    virtual NetStatus Connect(const StopRequested& stopRequested);
    /// The MAC address as six two-digit hexadecimal bytes with colons between them, empty when
    /// there is none.
    [[nodiscard]] virtual std::string GetMacAddress() { return ""; }

protected:
    virtual NetStatus InitializeDriver(const WlanCountryCode::Country* /*country*/) {
        return NetStatus::kDone;
    }
    virtual NetStatus DestroyInterface();
    // Steps whose name is in the log already when they run.
    virtual NetStatus CreateInterface() { return NetStatus::kDone; }
    virtual NetStatus SetSsid() { return NetStatus::kDone; }
    virtual NetStatus SetAntennaGain() { return NetStatus::kDone; }
    virtual NetStatus SetBand() { return NetStatus::kDone; }
    virtual NetStatus SetChainmaskAndBandwidth() { return NetStatus::kDone; }

    virtual NetStatus LoadDriver();
    /// Sends a wireless request of this chip.
    virtual NetStatus DoIo(ifreq* /*request*/, unsigned long /*code*/) { return NetStatus::kDone; }

    void LogStep(const char* name) const;
    /// False, and a line in the log, without a country.
    [[nodiscard]] static bool IsKnown(const WlanCountryCode::Country* country);
    /// Makes a directory that the chip or the supplicant needs. False, and a line in the log, when
    /// that fails.
    [[nodiscard]] static bool MakeDirectory(const char* path);

    const WlanValues& Values() const { return values_; }

private:
    NetStatus PrepareChip();
    NetStatus StartSupplicant();

    WlanValues values_;
    std::string supplicantDriver_;
    const char* logPrefix_;
};
