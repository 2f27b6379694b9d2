#pragma once

#include <chrono>
#include <cstddef>

#include "DeviceReservation.h"
#include "ZelConfig.h"
#include "ZelWsdlServlet.h"

/// The agent service, with which the box is supervised: self test, monitoring, restart, and taking
/// the box away from clients ("zel.state.is_stopped") by reserving it for itself.
class OrsAgentServlet : public ZelWsdlServlet {
public:
    /// What the service works on; all of it outlives the servlet and its instances.
    struct Device {
        ZelConfig& config;
        DeviceReservation& reservation;
    };

    /// Bytes of a wrong service name that a fault tells.
    static constexpr std::size_t kMaxName = std::size_t{4} * 1024;
    /// What a request to stop or start the service waits for another one at work; then it is
    /// answered as while a client has the box.
    static constexpr std::chrono::seconds kServiceTimeout{4};

    explicit OrsAgentServlet(const Device& device);

    std::unique_ptr<ZelServlet> MakeInstance() const override;

    const Device& GetDevice() const { return device_; }

protected:
    void RewriteDescription(std::string& text) const override;

private:
    Device device_;
};
