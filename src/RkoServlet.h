#pragma once

#include <libxml/tree.h>

#include <string>

#include "DeviceReservation.h"
#include "ZelConfig.h"
#include "ZelServlet.h"

/// The WDDX service, for clients that are older than the SOAP services. Every answer has the HTTP
/// status 200; a failure is a bare text in the place of the packet.
class RkoServlet : public ZelServlet {
public:
    /// What the service works on; all of it outlives the servlet and its instances.
    struct Device {
        ZelConfig& config;
        DeviceReservation& reservation;
    };

    explicit RkoServlet(const Device& device);

    int Service(const HttpRequest& request, ServletResponse& response) override;
    std::unique_ptr<ZelServlet> MakeInstance() const override;

private:
    Device device_;
};
