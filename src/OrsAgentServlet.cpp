#include "OrsAgentServlet.h"

#include <atomic>
#include <fstream>
#include <mutex>

#include "HeldMutex.h"
#include "LogText.h"
#include "Namespaces.h"
#include "Reboot.h"
#include "SelfTest.h"
#include "XmlText.h"
#include "ZelLog.h"

namespace {

constexpr char kName[] = "OrsAgentServlet";
constexpr char kPath[] = "/services/Agent";
constexpr std::uint16_t kEveryPort = 0;
constexpr ServiceDescription::File kDescription[] = {{"wsdl", "zelOrsAgent.wsdl"}};

constexpr char kServiceName[] = "VCI-Agent";
constexpr char kGroup[] = "TAVO";
constexpr char kStoppedKey[] = "zel.state.is_stopped";
constexpr char kOwnHost[] = "127.0.0.1";

// Clients match on these texts.
constexpr char kAlreadyLocked[] =
    "com.tembra.lusora.statemachine.UnknownStateException: Can't lock a already locked device!";
constexpr char kReserved[] =
    "com.tembra.lusora.statemachine.UnknownStateException: Cant lock a reserved device!";

const OrsAgentServlet::Device& DeviceOf(const ZelWsdlServlet& servlet) {
    return static_cast<const OrsAgentServlet&>(servlet).GetDevice();
}

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
    return config.Get(kStoppedKey) == "1";
}

std::string Told(const std::string& name) {
    return XmlText::Escape(name.substr(0, OrsAgentServlet::kMaxName));
}

int RefuseName(HttpResponse& response, const std::string& name) {
    return ZelWsdlServlet::SendFault(
        response, "java.lang.IllegalArgumentException: No service " + Told(name) + " found!");
}

int DoSelftest(const xmlNode* /*method*/, const HttpRequest& request, HttpResponse& response,
               ZelWsdlServlet& /*servlet*/) {
    // One test at a time: it works on the hardware, and its result is a file. Who has waited takes
    // the result of a test that began after he came, so that callers do not queue up.
    static HeldMutex mutex;
    static std::atomic<unsigned> begun = 0;
    static unsigned done = 0;
    const unsigned begunBefore = begun;
    std::string lines;
    if (const std::unique_lock lock = mutex.LockInTurn(OrsAgentServlet::kSelfTestPatience); !lock) {
        ZEL_ERROR("The self test at work takes too long, no result is told");
    } else {
        SelfTest selfTest;
        if (done <= begunBefore) {
            const unsigned test = ++begun;
            selfTest.DoSelfTest();
            done = test;
        }
        std::ifstream file(selfTest.GetResultFileName());
        std::string line;
        while (std::getline(file, line)) {
            ZEL_DEBUG("Read line: '%s'", LogText::Of(line).c_str());
            lines += line + ";";
        }
    }
    return ZelWsdlServlet::Answer(
        request, response,
        Response("doSelftest", "\t\t\t<return>" + XmlText::Escape(lines) + "</return>\n"));
}

int GetMonitoringStatus(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
                        ZelWsdlServlet& servlet) {
    constexpr char kOperation[] = "getMonitoringStatus";
    if (XmlText::ChildText(method, "groupId") != kGroup) {
        return ZelWsdlServlet::Answer(request, response, EmptyResponse(kOperation));
    }
    // Nothing is measured but the time.
    const std::string item = "\t\t\t\t\t\t<lastCheck>" +
                             DeviceOf(servlet).config.Get("system.timestamp") +
                             "</lastCheck>\n"
                             "\t\t\t\t\t\t<name>Fan State</name>\n"
                             "\t\t\t\t\t\t<status>OK</status>\n"
                             "\t\t\t\t\t\t<type>HARDWARE</type>\n"
                             "\t\t\t\t\t\t<infoLabel>status:LID~EVERYTHING_IS_OK</infoLabel>\n";
    return ZelWsdlServlet::Answer(request, response,
                                  Response(kOperation,
                                           "\t\t\t<return>\n"
                                           "\t\t\t\t<items>\n"
                                           "\t\t\t\t\t<MonitoringStatusItem>\n" +
                                               item +
                                               "\t\t\t\t\t</MonitoringStatusItem>\n"
                                               "\t\t\t\t</items>\n"
                                               "\t\t\t</return>\n"));
}

int IsServiceRunning(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
                     ZelWsdlServlet& servlet) {
    const std::string name = XmlText::ChildText(method, "name");
    if (name != kServiceName) {
        return ZelWsdlServlet::SendFault(
            response, "java.lang.IllegalArgumentException: WRONG service name!: " + Told(name));
    }
    const char* running = IsStopped(DeviceOf(servlet).config) ? "false" : "true";
    return ZelWsdlServlet::Answer(
        request, response,
        Response("isServiceRunning", std::string("\t\t\t<return>") + running + "</return>\n"));
}

int RestartDevice(const xmlNode* /*method*/, const HttpRequest& request, HttpResponse& response,
                  ZelWsdlServlet& /*servlet*/) {
    Reboot().DoReboot();
    return ZelWsdlServlet::Answer(request, response, EmptyResponse("restartDevice"));
}

/// What the stopped service holds. The mutex is held while the service is stopped or started: state
/// and reservation change together.
struct OwnReservation {
    HeldMutex mutex;
    std::string handle;

    static OwnReservation& Get() {
        static OwnReservation reservation;
        return reservation;
    }
};

int StartService(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
                 ZelWsdlServlet& servlet) {
    const std::string name = XmlText::ChildText(method, "name");
    if (name != kServiceName) {
        return RefuseName(response, name);
    }
    const OrsAgentServlet::Device& device = DeviceOf(servlet);
    OwnReservation& own = OwnReservation::Get();
    const std::unique_lock lock = own.mutex.LockInTurn(OrsAgentServlet::kServicePatience);
    if (!lock) {
        return ZelWsdlServlet::SendFault(response, kReserved);
    }
    if (IsStopped(device.config)) {
        // Somebody may have released it already, and a client may have come since.
        device.reservation.Release(own.handle);
        device.config.Set(kStoppedKey, "0", ZelConfig::Kind::kFixed);
    }
    return ZelWsdlServlet::Answer(request, response, EmptyResponse("startService"));
}

int StopService(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
                ZelWsdlServlet& servlet) {
    const std::string name = XmlText::ChildText(method, "name");
    if (name != kServiceName) {
        return RefuseName(response, name);
    }
    const OrsAgentServlet::Device& device = DeviceOf(servlet);
    OwnReservation& own = OwnReservation::Get();
    const std::unique_lock lock = own.mutex.LockInTurn(OrsAgentServlet::kServicePatience);
    if (lock && IsStopped(device.config)) {
        return ZelWsdlServlet::SendFault(response, kAlreadyLocked);
    }
    if (!lock || !device.reservation.Reserve(name, kOwnHost, own.handle)) {
        return ZelWsdlServlet::SendFault(response, kReserved);
    }
    device.config.Set(kStoppedKey, "1", ZelConfig::Kind::kFixed);
    return ZelWsdlServlet::Answer(request, response, EmptyResponse("stopService"));
}

const ZelWsdlServlet::MethodTable& Methods() {
    static const ZelWsdlServlet::MethodTable methods = {
        {"doSelftest", DoSelftest},
        {"getMonitoringStatus", GetMonitoringStatus},
        {"isServiceRunning", IsServiceRunning},
        {"restartDevice", RestartDevice},
        {"startService", StartService},
        {"stopService", StopService},
    };
    return methods;
}

}  // namespace

OrsAgentServlet::OrsAgentServlet(const Device& device)
    : ZelWsdlServlet({kName, kPath, MatchMode::kPathPrefix, kEveryPort},
                     {Methods(), Namespaces::kAgentService, kDescription}),
      device_(device) {}

void OrsAgentServlet::RewriteDescription(std::string& text) const {
    ServiceDescription::RewriteAddress(text, device_.config.Get("network.current.lan.ip"));
}

std::unique_ptr<ZelServlet> OrsAgentServlet::MakeInstance() const {
    return std::make_unique<OrsAgentServlet>(device_);
}
