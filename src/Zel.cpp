#include "Zel.h"

#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "CrashGuard.h"
#include "LogText.h"
#include "OplaMode.h"
#include "SetDateTime.h"
#include "StoreKeys.h"
#include "StoreSetup.h"
#include "SupplicantLog.h"
#include "UpdateFirmware.h"
#include "WlanCountryCode.h"
#include "WlanDeviceDetector.h"
#include "WlanMacFile.h"
#include "ZelLog.h"

namespace {

constexpr char kDefaultHostName[] = "TAVO";
constexpr std::uint16_t kPorts[] = {80, 5302};
constexpr timespec kIdleTime{1, 0};
constexpr unsigned kAllSlpThreads = ZelSlpService::kAnswering | ZelSlpService::kSignIn;

volatile sig_atomic_t running = 1;

void HandleStop(int /*signal*/) {
    running = 0;
}

sigset_t StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

/// The stop signals are let in only while the main thread idles: they interrupt no start-up step
/// and no service thread, which inherit the mask.
void BlockStopSignals() {
    const sigset_t stopSignals = StopSignals();
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
}

void InstallSignalHandling() {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigaction(SIGHUP, &action, nullptr);
    sigaction(SIGPIPE, &action, nullptr);
    action.sa_flags = SA_NOCLDWAIT;
    sigaction(SIGCHLD, &action, nullptr);
    action.sa_handler = HandleStop;
    action.sa_flags = 0;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    CrashGuard::Install();
}

bool IsStopRequested() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGINT) != 0 || sigismember(&pending, SIGTERM) != 0;
}

/// Numeric code of the country of use, read past the store, which does not exist yet; 0 when there
/// is none.
std::uint32_t ConfiguredCountry() {
    std::ifstream file(ZelConfig::kConfigurationFile);
    if (!file) {
        ZEL_ERROR("Can't open %s because of '%s'", ZelConfig::kConfigurationFile,
                  std::strerror(errno));
        return 0;
    }
    std::string line;
    while (std::getline(file, line)) {
        if (line.find(StoreKeys::kCountry) == std::string::npos) {
            continue;
        }
        const std::size_t separator = line.find('=');
        const std::string code = separator == std::string::npos ? "" : line.substr(separator + 1);
        ZEL_INFO("Country: '%s'", LogText::Of(code).c_str());
        const WlanCountryCode::Country* country = WlanCountryCode::FindCountry(code.c_str());
        return country == nullptr ? 0 : country->countryCode;
    }
    return 0;
}

}  // namespace

Zel::Zel() {
    EnsureWlanMacFile();
    SetUpStore(config_, trigger15_, [this] {
        const WlanDevice* wlan = setNet_ ? setNet_->Wlan() : nullptr;
        return wlan == nullptr ? std::string() : wlan->Name();
    });
}

void Zel::EnsureWlanMacFile() {
    WlanMacFile::Ensure([this]() -> std::optional<std::string> {
        const std::uint32_t country = ConfiguredCountry();
        ZEL_DEBUG("Country code of the WLAN adapter: %u", country);
        const std::unique_ptr<WlanDevice> adapter = WlanDeviceDetectorEx().CreateDevice(network_);
        if (!adapter) {
            return std::nullopt;
        }
        return adapter->GetMacAddress();
    });
}

int Zel::Main() {
    prctl(PR_SET_NAME, "Zel::main");
    BlockStopSignals();
    InstallSignalHandling();

    reservation_.CloseLeftPorts();
    ZEL_INFO("* ZEL %s %s starting on TAVO %s...", config_.Get(StoreKeys::kVersion).c_str(),
             config_.Get(StoreKeys::kRevision).c_str(), config_.Get(StoreKeys::kSerial).c_str());
    ZEL_INFO("* OPLA-Mode: %s", config_.Get(StoreKeys::kOplaMode).c_str());
    SetClock();
    SetDefaultHostName();
    if (!SetUpNetwork()) {
        notifier_.SetStopping();
        ZEL_INFO("* ZEL exiting...");
        return EXIT_SUCCESS;
    }
    PrepareWebServer();
    if (!StartServices()) {
        ZEL_ERROR("Can't start a thread for a service, trying again");
    }
    ReportUpdateStates();
    if (!IdleUntilStopped()) {
        // A request or the sign-in is still at work; what it uses must not be destroyed under it.
        std::_Exit(EXIT_SUCCESS);
    }
    return EXIT_SUCCESS;
}

void Zel::GoOnAfterFault() {
    BlockStopSignals();
    if (slpStarted_ && !isStopping_) {
        IdleUntilStopped();
    }
    std::_Exit(EXIT_SUCCESS);
}

bool Zel::Stop() {
    isStopping_ = true;
    // Who waits for a tool goes on, and none is started any more.
    ChildProcess::EndAll();
    reservation_.Stop();
    const bool stopped = webServer_.Stop();
    signIn_.Stop();
    return slpService_.Stop(kAllSlpThreads) && stopped;
}

void Zel::SetClock() {
    if (IsOplaNext(config_)) {
        // The box starts with the clock that it has.
        static_cast<void>(SetDateTime(config_).Set());
        ZEL_INFO("* SetDateTime done.");
    } else {
        discoverMode_.Enable();
    }
}

/// False when the agent was asked to stop before there was a network.
bool Zel::SetUpNetwork() {
    notifier_.SetActivity("bringing up the network");
    setNet_.emplace(network_);
    if (Failed(setNet_->SetUpNetwork(IsStopRequested))) {
        return false;
    }
    ZEL_INFO("* Network setup done.");
    return true;
}

/// Starts what does not run yet. False when there was no thread for a service.
bool Zel::StartServices() {
    if (!slpStarted_) {
        notifier_.SetActivity(IsOplaNext(config_) ? "" : "looking for the central manager");
        slpStarted_ = slpService_.Start(kAllSlpThreads);
        if (!slpStarted_) {
            return false;
        }
        ZEL_INFO("* SLP service started.");
    }
    if (!webStarted_) {
        webStarted_ = webServer_.Start();
        if (!webStarted_) {
            return false;
        }
        ZEL_INFO("* Webserver service started.");
    }
    return true;
}

/// The box serves when SLP and the web server answer: both do as soon as "zel.state.startup" is not
/// "0", SLP before the web server listens.
void Zel::TellServing(bool isOnEveryPort) {
    if (!isOnEveryPort) {
        notifier_.SetState("Not every web port can be opened, see the log", "");
    } else if (!slpService_.IsOpen()) {
        notifier_.SetState("The SLP port cannot be opened, see the log", "");
    } else {
        notifier_.SetState("Serving", "READY=1");
    }
}

void Zel::SetDefaultHostName() {
    const std::string hostName = config_.Get(StoreKeys::kHostName);
    if (hostName.empty() || hostName == kDefaultHostName) {
        config_.SetPersistent(StoreKeys::kHostName,
                              kDefaultHostName + config_.Get(StoreKeys::kSerial));
    }
}

void Zel::PrepareWebServer() {
    modeSwitch_.emplace(network_, *setNet_, [this] { slpService_.JoinGroups(); });
    connectorServlet_.emplace(
        ZelConnectorServlet::Device{config_, reservation_, trigger15_, *modeSwitch_});
    webServer_.AddRegistration(*connectorServlet_);
    webServer_.AddRegistration(agentServlet_);
    webServer_.AddRegistration(rkoServlet_);
    webServer_.AddRegistration(fileDownloadServlet_);
    webServer_.AddRegistration(testServlet_);
    webServer_.OnServed([this] {
        discoverMode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
        served_ = true;
    });
    webServer_.OnListening([this](bool isOnEveryPort) { TellServing(isOnEveryPort); });
    signIn_.OnStep([this](const char* step) { notifier_.SetActivity(step); });
    for (const std::uint16_t port : kPorts) {
        static_cast<void>(webServer_.AddPort(port));  // there is room for more than these
    }
}

void Zel::ReportUpdateStates() {
    const UpdateFirmware update;
    if (update.GetUpdateState(UpdateFirmware::APPLICATION) != UpdateFirmware::CLEAN) {
        ZEL_ERROR("Update of application image failed, status not Clean");
    }
    if (update.GetUpdateState(UpdateFirmware::FIRMWARE) != UpdateFirmware::CLEAN) {
        ZEL_ERROR("Update of firmware image failed, status not Clean");
    }
}

bool Zel::IdleUntilStopped() {
    sigset_t unblocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &unblocked);
    sigdelset(&unblocked, SIGINT);
    sigdelset(&unblocked, SIGTERM);
    while (running != 0) {
        ppoll(nullptr, 0, &kIdleTime, &unblocked);
        StartServices();
        notifier_.Repeat();
        SupplicantLog::Limit();
        if (served_.exchange(false)) {
            malloc_trim(0);  // what many requests at once have taken goes back to the system
        }
    }
    notifier_.SetStopping();
    ZEL_INFO("* ZEL exiting...");
    return Stop();
}
