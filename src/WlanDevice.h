#pragma once

#include "NetDevice.h"
#include "WlanCountryCode.h"

/// A WLAN station: before it gets an address it is connected to the configured access point, by the
/// supplicant (a process of its own) and by steps that each kind of chip fills in. Steps return 0
/// or a negative status that Connect() passes on.
class WlanDevice : public NetDevice {
public:
    /// The configured settings of the access point ("wlan.conf.infra.*", "country.code").
    class WlanValues {
    public:
        virtual ~WlanValues() = default;

        /// Reads and checks the settings. Returns 0, or the code of the first that is wrong, with
        /// a line in the log: -1 band, -2 SSID, -3 security level, -4 credentials, -5 country
        /// missing, -6 country unknown or black-listed, -7 encryption type.
        int Read(const ZelConfig& config);

        int Channel() const { return channel_; }
        /// "0" is 2.4 GHz, "1" is 5 GHz.
        const std::string& Band() const { return band_; }
        const std::string& Ssid() const { return ssid_; }
        /// 102 to 109.
        int SecurityLevel() const { return securityLevel_; }
        const std::string& Credentials() const { return credentials_; }
        /// "AES", "TKIP" or empty.
        const std::string& EncryptionType() const { return encryptionType_; }
        const std::string& Psk() const { return psk_; }
        /// Null before the settings were read.
        const WlanCountryCode::Country* Country() const { return country_; }

    private:
        int ReadSecurity(const ZelConfig& config);
        int ReadCountry(const ZelConfig& config);

        int channel_ = -1;
        std::string band_;
        std::string ssid_;
        int securityLevel_ = 0;
        std::string credentials_;
        std::string encryptionType_;
        std::string psk_;
        const WlanCountryCode::Country* country_ = nullptr;
    };

    static constexpr char kSupplicantDirectory[] = "/tmp/supplicant";
    /// Mode of directories that the chips make.
    static constexpr mode_t kDirectoryMode = 0755;

    /// `supplicantDriver` is the name of the supplicant's driver for this chip.
    WlanDevice(std::string interface, std::string supplicantDriver, const Context& context);

    /// 1 when the supplicant says that it is associated, else 0.
    int HasLink() override;
    /// Ends the supplicant, then as every interface.
    NetStatus DisableInterface() override;

    /// Connects to the configured access point; waits up to a minute for it.
    virtual int Connect();
    /// The MAC address as six two-digit hexadecimal bytes with colons between them, empty when
    /// there is none.
    virtual std::string GetMacAddress();

protected:
    virtual int InitializeDriver(const WlanCountryCode::Country* country);
    virtual int DestroyInterface();
    virtual int CreateInterface();
    virtual int SetSsid();
    virtual int SetAntennaGain();
    virtual int SetBand();
    virtual int SetChainmaskAndBandwidth();
    virtual int LoadDriver();
    /// Sends a wireless request of this chip.
    virtual int DoIo(ifreq* request, unsigned long code);

    const WlanValues& Values() const { return values_; }

private:
    bool CanWriteNetworkFile() const;
    int PrepareChip();
    int StartSupplicant();
    int WriteOpenConfig() const;
    int WritePskConfig() const;

    WlanValues values_;
    std::string supplicantDriver_;
};
