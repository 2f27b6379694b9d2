#include "OrsAgentServlet.h"

#include "HeldMutex.h"
#include "Namespaces.h"
#include "Reboot.h"
#include "SharedSelfTest.h"
#include "StoreKeys.h"
#include "XmlText.h"

namespace {

using Answer = ZelWsdlServlet::Answer;
using Call = ZelWsdlServlet::Call<OrsAgentServlet::Device>;

constexpr char kName[] = "OrsAgentServlet";
constexpr char kPath[] = "/services/Agent";
constexpr std::uint16_t kEveryPort = 0;
constexpr ServiceDescription::File kDescription[] = {{"wsdl", "zelOrsAgent.wsdl"}};

constexpr char kServiceName[] = "VCI-Agent";
constexpr char kGroup[] = "TAVO";
constexpr char kOwnHost[] = "127.0.0.1";

// Clients match on these texts.
constexpr char kAlreadyLocked[] =
    "com.tembra.lusora.statemachine.UnknownStateException: Can't lock a already locked device!";
constexpr char kReserved[] =
    "com.tembra.lusora.statemachine.UnknownStateException: Cant lock a reserved device!";

std::string OpenTag(const char* operation, const char* end) {
    return std::string("\t\t<ns2:") + operation + "Response xmlns:ns2=\"" +
           Namespaces::kAgentService + "\"" + end;
}

std::string EmptyResponse(const char* operation) {
    return OpenTag(operation, "/>\n");
}

/// `children` is what stands between the tags, the indentation of the closing tag included.
std::string Response(const char* operation, const std::string& children) {
    return OpenTag(operation, ">\n") + children + "\t\t</ns2:" + operation + "Response>\n";
}

bool IsStopped(const ZelConfig& config) {
    return config.Get(StoreKeys::kStopped) == "1";
}

std::string Told(const std::string& name) {
    return XmlText::Escape(name.substr(0, OrsAgentServlet::kMaxName));
}

Answer DoSelftest(const Call& /*call*/) {
    static SharedSelfTest selfTest;
    return {
        Response("doSelftest", "\t\t\t<return>" + XmlText::Escape(selfTest.Run()) + "</return>\n")};
}

Answer GetMonitoringStatus(const Call& call) {
    constexpr char kOperation[] = "getMonitoringStatus";
    if (call.Text("groupId") != kGroup) {
        return {EmptyResponse(kOperation)};
    }
    // Nothing is measured but the time.
    return {Response(kOperation,
                     "\t\t\t<return>\n"
                     "\t\t\t\t<items>\n"
                     "\t\t\t\t\t<MonitoringStatusItem>\n"
                     "\t\t\t\t\t\t<lastCheck>" +
                         call.device.config.Get(StoreKeys::kTimestamp) +
                         "</lastCheck>\n"
                         "\t\t\t\t\t\t<name>Fan State</name>\n"
                         "\t\t\t\t\t\t<status>OK</status>\n"
                         "\t\t\t\t\t\t<type>HARDWARE</type>\n"
                         "\t\t\t\t\t\t<infoLabel>status:LID~EVERYTHING_IS_OK</infoLabel>\n"
                         "\t\t\t\t\t</MonitoringStatusItem>\n"
                         "\t\t\t\t</items>\n"
                         "\t\t\t</return>\n")};
}

Answer IsServiceRunning(const Call& call) {
    const std::string name = call.Text("name");
    if (name != kServiceName) {
        return Answer::Fault("java.lang.IllegalArgumentException: WRONG service name!: " +
                             Told(name));
    }
    const char* running = IsStopped(call.device.config) ? "false" : "true";
    return {Response("isServiceRunning", std::string("\t\t\t<return>") + running + "</return>\n")};
}

Answer RestartDevice(const Call& /*call*/) {
    static_cast<void>(Reboot().DoReboot());  // there is no answer for it
    return {EmptyResponse("restartDevice")};
}

/// Stops or starts the service: `change` does it, with the handle of the stopped service's own
/// reservation, and returns the message of a fault, or null. State and reservation change together.
Answer ChangeService(const Call& call, const char* operation,
                     const char* (*change)(const OrsAgentServlet::Device&, std::string& handle)) {
    static HeldMutex mutex;
    static std::string handle;
    const std::string name = call.Text("name");
    if (name != kServiceName) {
        return Answer::Fault("java.lang.IllegalArgumentException: No service " + Told(name) +
                             " found!");
    }
    const std::unique_lock lock = mutex.LockInTurn(OrsAgentServlet::kServiceTimeout);
    const char* fault = lock ? change(call.device, handle) : kReserved;
    return fault != nullptr ? Answer::Fault(fault) : Answer{EmptyResponse(operation)};
}

const char* Start(const OrsAgentServlet::Device& device, std::string& handle) {
    if (IsStopped(device.config)) {
        // Somebody may have released it already, and a client may have come since.
        static_cast<void>(device.reservation.Release(handle));
        device.config.SetFixed(StoreKeys::kStopped, "0");
    }
    return nullptr;
}

const char* Stop(const OrsAgentServlet::Device& device, std::string& handle) {
    if (IsStopped(device.config)) {
        return kAlreadyLocked;
    }
    if (!device.reservation.Reserve(kServiceName, kOwnHost, handle)) {
        return kReserved;
    }
    device.config.SetFixed(StoreKeys::kStopped, "1");
    return nullptr;
}

Answer StartService(const Call& call) {
    return ChangeService(call, "startService", Start);
}

Answer StopService(const Call& call) {
    return ChangeService(call, "stopService", Stop);
}

template <auto kOperation>
constexpr ZelWsdlServlet::Handler kHandler = ZelWsdlServlet::Handle<OrsAgentServlet, kOperation>;

const ZelWsdlServlet::MethodTable& Methods() {
    static const ZelWsdlServlet::MethodTable methods = {
        {"doSelftest", kHandler<DoSelftest>},
        {"getMonitoringStatus", kHandler<GetMonitoringStatus>},
        {"isServiceRunning", kHandler<IsServiceRunning>},
        {"restartDevice", kHandler<RestartDevice>},
        {"startService", kHandler<StartService>},
        {"stopService", kHandler<StopService>},
    };
    return methods;
}

}  // namespace

OrsAgentServlet::OrsAgentServlet(const Device& device)
    : ZelWsdlServlet({kName, kPath, MatchMode::kPathPrefix, kEveryPort},
                     {Methods(), Namespaces::kAgentService, kDescription}),
      device_(device) {}

void OrsAgentServlet::RewriteDescription(std::string& text) const {
    ServiceDescription::RewriteAddress(text, device_.config.Get(StoreKeys::kLanIp));
}

std::unique_ptr<ZelServlet> OrsAgentServlet::MakeInstance() const {
    return std::make_unique<OrsAgentServlet>(device_);
}
