#pragma once

#include "DeviceReservation.h"
#include "ModeSwitch.h"
#include "Trigger15.h"
#include "ZelConfig.h"
#include "ZelWsdlServlet.h"

/// The connector service: device information, reservation, host lock, terminal-15 edge, network
/// mode and generic commands for diagnostic clients. Bad values are answered with a code in the
/// response's `error` element, never with a fault.
class ZelConnectorServlet : public ZelWsdlServlet {
public:
    /// What the service works on; all of it outlives the servlet and its instances.
    struct Device {
        ZelConfig& config;
        DeviceReservation& reservation;
        Trigger15& trigger15;
        ModeSwitch& modeSwitch;
    };

    /// Parameters of one generic command that are logged: thousands would roll the log over.
    static constexpr int kMaxLoggedParameters = 32;

    explicit ZelConnectorServlet(const Device& device);

    std::unique_ptr<ZelServlet> MakeInstance() const override;

    const Device& GetDevice() const { return device_; }

protected:
    void RewriteDescription(std::string& text) const override;

private:
    Device device_;
};
