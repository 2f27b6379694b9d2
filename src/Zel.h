#pragma once

#include <atomic>
#include <optional>

#include "DeviceReservation.h"
#include "DiscoverModeCtrl.h"
#include "FileDownloadServlet.h"
#include "ModeSwitch.h"
#include "OrsAgentServlet.h"
#include "OrsSignIn.h"
#include "RkoServlet.h"
#include "SetNet.h"
#include "SystemdNotifier.h"
#include "TestServlet.h"
#include "Trigger15.h"
#include "WebServer.h"
#include "ZelConfig.h"
#include "ZelConnectorServlet.h"
#include "ZelLogging.h"
#include "ZelSlpService.h"

/// The agent: owns every service, brings them up in order, idles until SIGINT or SIGTERM and takes
/// them down again.
class Zel {
public:
    /// Sets up logging, the WLAN MAC file and the store.
    Zel();
    Zel(const Zel&) = delete;
    Zel& operator=(const Zel&) = delete;

    /// Runs the agent until it is asked to stop. Returns the exit status, always 0.
    int Main();

    /// After a fault of the thread in Main(): the services run on until the agent is asked to stop;
    /// without any, or when the fault was in the stop, the process ends at once.
    [[noreturn]] void GoOnAfterFault();

private:
    void EnsureWlanMacFile();
    void SetClock();
    void SetDefaultHostName();
    bool SetUpNetwork();
    void PrepareWebServer();
    bool StartServices();
    void TellServing(bool isOnEveryPort);
    static void ReportUpdateStates();
    /// What Stop() says.
    bool IdleUntilStopped();
    /// False when something is still at work.
    bool Stop();

    // First, since it changes the environment, which threads read.
    SystemdNotifier notifier_;
    ZelLogging logging_;
    ZelConfig config_;
    Trigger15 trigger15_;
    DeviceReservation reservation_{config_};
    DiscoverModeCtrl discoverMode_{config_};
    const NetDevice::Context network_{config_, discoverMode_};
    // Built when their turn comes in the start-up.
    std::optional<SetNet> setNet_;
    std::optional<ModeSwitch> modeSwitch_;
    std::optional<ZelConnectorServlet> connectorServlet_;
    OrsAgentServlet agentServlet_{{config_, reservation_}};
    RkoServlet rkoServlet_{{config_, reservation_}};
    FileDownloadServlet fileDownloadServlet_;
    TestServlet testServlet_;
    WebServer webServer_{config_};
    OrsSignIn signIn_{config_, reservation_, discoverMode_};
    bool slpStarted_ = false;
    bool webStarted_ = false;
    bool isStopping_ = false;
    std::atomic<bool> served_ = false;
    ZelSlpService slpService_{config_, discoverMode_, [this] { signIn_.Run(); }};
};
