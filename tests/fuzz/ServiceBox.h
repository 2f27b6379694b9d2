#pragma once

#include "DeviceReservation.h"
#include "LogClient.h"
#include "ModeSwitch.h"
#include "SetNet.h"
#include "Trigger15.h"
#include "ZelConfig.h"

/// What the services work on, as in the agent, but that no process is started and no mode switched.
/// What they would start is a finding when a value of a peer shows in it, and so is a log line that
/// holds control characters.
class ServiceBox {
public:
    static constexpr char kHandle[] = "4711";

    ServiceBox();

    /// The box is reserved, with the handle above, or free; and the agent service is stopped or
    /// not.
    void Set(bool isReserved, bool isStopped);
    /// What must hold after every request.
    void Check() const;

    ZelConfig config;
    Trigger15 trigger15;
    DeviceReservation reservation{config};
    DiscoverModeCtrl discoverMode{config};
    NetDevice::Context context{config, discoverMode};
    SetNet setNet{context};
    ModeSwitch modeSwitch{context, setNet, [] {}};

private:
    class Log : public LogClient {
    public:
        Log();

    private:
        void Write(const std::string& line) override;
    };
    Log log_;
};
