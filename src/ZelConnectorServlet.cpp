#include "ZelConnectorServlet.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "DiagnosticChannels.h"
#include "Dispatcher.h"
#include "Ipv4.h"
#include "LogText.h"
#include "Namespaces.h"
#include "NetworkType.h"
#include "Numbers.h"
#include "XmlText.h"
#include "ZelLog.h"

namespace {

constexpr char kName[] = "ZelConnectorServlet";
constexpr char kPath[] = "/zel/services/ConnectorService";
constexpr std::uint16_t kPort = 5302;

constexpr ServiceDescription::File kDescription[] = {{"wsdl", "zelConnector.wsdl"},
                                                     {"xsd=1", "ZELConnector_v1.xsd"},
                                                     {"xsd=2", "ZELDriver_v1.xsd"},
                                                     {"xsd=3", "beans.xsd"},
                                                     {"xsd=4", "pembAgentShared.xsd"}};

// Codes of the `error` element, besides those of DeviceReservation::Session.
constexpr int kSuccess = 0;
constexpr int kWrongHandle = 7;
constexpr int kNotReserved = 9;
constexpr int kReserveRefused = 10;
constexpr int kTriggerNotReset = 17;
constexpr int kWrongDevice = 20;
constexpr int kOverTemperature = 21;

constexpr char kDeviceDescription[] = "TAVO, Velka, QK20417B";
constexpr char kHardwareVersion[] = "164306";
constexpr char kDeviceName[] = "TAVO";
constexpr char kDeviceType[] = "2";

std::string Tabs(int count) {
    return std::string(static_cast<std::size_t>(count), '\t');
}

/// One line: the element `name` with `value`, which is escaped.
std::string Element(int depth, const std::string& name, std::string_view value) {
    return Tabs(depth) + "<" + name + ">" + XmlText::Escape(value) + "</" + name + ">\n";
}

std::string OpenTag(int depth, const char* operation) {
    return Tabs(depth) + "<ns2:" + operation + "Response xmlns=\"" + Namespaces::kConnectorBean +
           "\" xmlns:ns2=\"" + Namespaces::kConnectorService + "\" xmlns:ns3=\"" +
           Namespaces::kManagerBean + "\" xmlns:ns4=\"" + Namespaces::kBeans + "\">";
}

std::string CloseTag(int depth, const char* operation) {
    return Tabs(depth) + "</ns2:" + operation + "Response>";
}

constexpr int kResponseDepth = 2;
constexpr char kOutOpen[] = "\t\t<ns2:out>\n";
constexpr char kOutClose[] = "\t\t</ns2:out>\n";
constexpr int kOutChildDepth = 3;

/// A response of `error` and, in some operations, further children. `afterOpenTag` is the line
/// feed that one operation leaves out.
std::string CodeResponse(const char* operation, int code, const std::string& furtherChildren = "",
                         const char* afterOpenTag = "\n") {
    return OpenTag(kResponseDepth, operation) + afterOpenTag + kOutOpen +
           Element(kOutChildDepth, "error", std::to_string(code)) + furtherChildren + kOutClose +
           CloseTag(kResponseDepth, operation) + "\n";
}

const ZelConnectorServlet::Device& DeviceOf(const ZelWsdlServlet& servlet) {
    return static_cast<const ZelConnectorServlet&>(servlet).GetDevice();
}

/// A dotted address as the signed decimal of its 32-bit value, first octet most significant; other
/// text gives an empty one. Clients expect the sign.
std::string SignedAddress(const std::string& dotted) {
    const std::optional<in_addr> address = Ipv4::Parse(dotted);
    return address ? std::to_string(static_cast<std::int32_t>(ntohl(address->s_addr))) : "";
}

/// The text as a hexadecimal number up to its first other character (of a MAC address: the first
/// byte), in decimal and cut at 15 characters.
std::string HexPrefixAsDecimal(const std::string& text) {
    constexpr std::size_t kMaxDigits = 15;
    return std::to_string(Numbers::Leading<long long>(text, Numbers::kHexadecimal))
        .substr(0, kMaxDigits);
}

bool IsOtherDevice(const ZelConfig& config, const std::string& deviceId) {
    const std::string ownId = config.Get("hardware.devid");
    if (ownId == deviceId) {
        return false;
    }
    ZEL_DEBUG("devid('%s') != device_id('%s')", ownId.c_str(), LogText::Of(deviceId).c_str());
    return true;
}

const char* ToXml(bool value) {
    return value ? "true" : "false";
}

std::string Channel(const std::string& ip, const char* name, const char* port, const char* type,
                    bool active) {
    return Tabs(5) + "<ns3:Channel>\n" + Element(6, "ns3:active", ToXml(active)) +
           Element(6, "ns3:ip", ip) + Element(6, "ns3:name", name) + Element(6, "ns3:port", port) +
           Element(6, "ns3:type", type) + Tabs(5) + "</ns3:Channel>\n";
}

std::string Channels(const ZelConfig& config, bool reserved) {
    const std::string ip = SignedAddress(config.Get("network.current.lan.ip"));
    const DiagnosticChannels usable = DiagnosticChannels::Read(config);
    return Tabs(4) + "<channels>\n" + Channel(ip, "KLine", "6801", "0", reserved) +
           Channel(ip, "DCAN", "6801", "1", usable.dCan && reserved) +
           Channel(ip, "MOST", "6802", "2", usable.most && reserved) + Tabs(4) + "</channels>\n";
}

std::string CurrentNetworkConfig(const ZelConfig& config) {
    const std::string current =
        NetworkType::IsLan(config) ? "network.current.lan." : "network.current.wlan.";
    const std::string mac = config.Get("network.mac.lan");
    ZEL_DEBUG("MAC address: %s", mac.c_str());
    return Tabs(4) + "<currentNetworkConfig>\n" +
           Element(5, "gateway", SignedAddress(config.Get("network.current.defaultgateway"))) +
           Element(5, "ip4Address", SignedAddress(config.Get(current + "ip"))) +
           Element(5, "lanDiscoverMode", config.Get("network.config.discover.mode")) +
           Element(5, "macAddress", HexPrefixAsDecimal(mac)) +
           Element(5, "netmask", SignedAddress(config.Get(current + "netmask"))) +
           Element(5, "type", config.Get(NetworkType::kKey)) +
           Element(5, "wlanSignal", config.Get("network.current.wlan.quality")) + Tabs(4) +
           "</currentNetworkConfig>\n";
}

int GetDeviceInformation(const xmlNode* /*method*/, const HttpRequest& request,
                         HttpResponse& response, ZelWsdlServlet& servlet) {
    constexpr char kOperation[] = "getDeviceInformation";
    const ZelConfig& config = DeviceOf(servlet).config;
    const std::string state = config.Get("zel.state.current");
    const std::string kl15 = config.Get("system.voltage.kl15");
    const std::string kl30 = config.Get("system.voltage.kl30");
    ZEL_DEBUG("Kl30 voltage %s, Kl15 voltage %s", kl30.c_str(), kl15.c_str());

    std::string body = OpenTag(kResponseDepth, kOperation) + "\n" + Tabs(3) + "<ns2:out>\n";
    body += Element(4, "accu", "0");
    body += Channels(config, state == DeviceReservation::kReserved);
    body += Tabs(4) + "<color xmlns:xsi=\"" + Namespaces::kXmlSchemaInstance +
            "\" xsi:nil=\"true\"/>\n";
    body += CurrentNetworkConfig(config);
    body += Element(4, "deviceDescriptionOrNull", kDeviceDescription);
    body += Element(4, "error", "0");
    body += Element(4, "firmware", config.Get("system.version.boot"));
    body += Element(4, "hardwareVersion", kHardwareVersion);
    body += Element(4, "id", config.Get("hardware.devid"));
    body += Element(4, "kl15", kl15);
    body += Element(4, "kl15Edge", ToXml(config.Get("system.voltage.kl15trig") == "1"));
    body += Element(4, "kl30", kl30);
    body += Element(4, "name", kDeviceName);
    body += Element(4, "serial", config.Get("hardware.serial"));
    body += Element(4, "sessionOwnerOrNull", config.Get("zel.state.owner"));
    body += Element(4, "state", state);
    body += Element(4, "type", kDeviceType);
    body += Element(4, "vin", config.Get("diag.kvad.vin"));
    body += Tabs(3) + "</ns2:out>\n" + CloseTag(kResponseDepth, kOperation) + "\n";
    return ZelWsdlServlet::Answer(request, response, std::move(body));
}

int ReserveDevice(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
                  ZelWsdlServlet& servlet) {
    const ZelConnectorServlet::Device& device = DeviceOf(servlet);
    int code = kSuccess;
    std::string handle;
    if (IsOtherDevice(device.config, XmlText::ChildText(method, "deviceId"))) {
        code = kWrongDevice;
    } else if (device.config.Get("system.thermal.tempcrit") == "1") {
        code = kOverTemperature;
    } else if (!device.reservation.Reserve(XmlText::ChildText(method, "owner"),
                                           XmlText::ChildText(method, "hostLock"), handle)) {
        code = kReserveRefused;
        handle.clear();
    }
    return ZelWsdlServlet::Answer(
        request, response,
        CodeResponse("reserveDevice", code, Element(kOutChildDepth, "handle", handle)));
}

int ReleaseDevice(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
                  ZelWsdlServlet& servlet) {
    const ZelConnectorServlet::Device& device = DeviceOf(servlet);
    int code = kSuccess;
    if (!device.reservation.IsReserved()) {
        code = kNotReserved;
    } else if (IsOtherDevice(device.config, XmlText::ChildText(method, "deviceId"))) {
        code = kWrongDevice;
    } else if (!device.reservation.Release(XmlText::ChildText(method, "handle"))) {
        code = kWrongHandle;
    }
    return ZelWsdlServlet::Answer(request, response, CodeResponse("releaseDevice", code, "", ""));
}

int ResetTrigger15Edge(const xmlNode* /*method*/, const HttpRequest& request,
                       HttpResponse& response, ZelWsdlServlet& servlet) {
    const int code = DeviceOf(servlet).trigger15.Reset() ? kSuccess : kTriggerNotReset;
    return ZelWsdlServlet::Answer(request, response, CodeResponse("resetTrigger15Edge", code));
}

int SetHostLock(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
                ZelWsdlServlet& servlet) {
    const DeviceReservation::Session session = DeviceOf(servlet).reservation.ChangeHostLock(
        XmlText::ChildText(method, "handle"), XmlText::ChildText(method, "hostLock"));
    return ZelWsdlServlet::Answer(request, response,
                                  CodeResponse("setHostLock", static_cast<int>(session)));
}

int SwitchMode(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
               ZelWsdlServlet& servlet) {
    const ZelConnectorServlet::Device& device = DeviceOf(servlet);
    const auto run = [&] {
        const std::string mode = XmlText::ChildText(method, "mode");
        ModeSwitch::FormerAddress former;
        const ModeSwitch::Outcome outcome =
            device.modeSwitch.Run(Numbers::Leading(mode), request.localAddress, former);
        response.keptUntilReceived = std::move(former);
        return static_cast<int>(outcome);
    };
    int code = kSuccess;
    if (IsOtherDevice(device.config, XmlText::ChildText(method, "deviceId"))) {
        code = kWrongDevice;
    } else if (device.reservation.IsReserved()) {
        const DeviceReservation::Session session =
            device.reservation.CheckSession(XmlText::ChildText(method, "handle"));
        code = session == DeviceReservation::Session::kValid ? run() : kWrongHandle;
    } else {
        ZEL_DEBUG("Device state is free, change to reserve");
        std::string handle;
        if (device.reservation.Reserve("", "127.0.0.1", handle)) {
            const auto release = [&](const std::string* reserved) {
                ZEL_DEBUG("Change back to state free");
                device.reservation.Release(*reserved);
            };
            const std::unique_ptr<const std::string, decltype(release)> guard(&handle, release);
            code = run();
        } else {
            code = kWrongHandle;  // somebody else was faster
        }
    }
    return ZelWsdlServlet::Answer(request, response, CodeResponse("switchMode", code));
}

/// Text of the first child element whose name is part of `name`: clients write shortened names.
std::string ChildTextByPartialName(const xmlNode* parent, std::string_view name) {
    for (const xmlNode* child : XmlText::Children(parent)) {
        if (name.find(XmlText::LocalName(child)) != std::string_view::npos) {
            return XmlText::Content(child);
        }
    }
    return "";
}

std::map<std::string, std::string> CommandParameters(const xmlNode* method) {
    constexpr std::string_view kParameters = "pParameters";
    std::map<std::string, std::string> parameters;
    int count = 0;
    for (const xmlNode* child : XmlText::Children(method)) {
        if (kParameters.find(XmlText::LocalName(child)) != std::string_view::npos) {
            const std::string key = ChildTextByPartialName(child, "key");
            const std::string value = ChildTextByPartialName(child, "value");
            if (++count <= ZelConnectorServlet::kMaxLoggedParameters) {
                ZEL_DEBUG("executeGenericCommand key '%s' value '%s'", LogText::Of(key).c_str(),
                          LogText::Of(value).c_str());
            }
            parameters[key] = value;
        }
    }
    if (count > ZelConnectorServlet::kMaxLoggedParameters) {
        ZEL_DEBUG("executeGenericCommand: %d parameters in all", count);
    }
    return parameters;
}

int ExecuteGenericCommand(const xmlNode* method, const HttpRequest& request, HttpResponse& response,
                          ZelWsdlServlet& servlet) {
    constexpr char kOperation[] = "executeGenericCommand";
    const DeviceReservation::Session session =
        DeviceOf(servlet).reservation.CheckSession(XmlText::ChildText(method, "handle"));
    const char* key = "error";
    std::string value = "-1";
    if (session == DeviceReservation::Session::kValid) {
        const int failed = Dispatcher::CommandExecution(XmlText::ChildText(method, "pSubSystem"),
                                                        XmlText::ChildText(method, "pCommand"),
                                                        CommandParameters(method), value);
        ZEL_DEBUG("executeGenericCommand returned '%s'", LogText::Of(value).c_str());
        key = failed != 0 ? "error" : "result";
    }
    return ZelWsdlServlet::Answer(
        request, response,
        OpenTag(kResponseDepth, kOperation) + "\n" + kOutOpen + Tabs(kOutChildDepth) + "<error>" +
            std::to_string(static_cast<int>(session)) + "</error><commandResultList><ns4:key>" +
            key + "</ns4:key><ns4:value>" + XmlText::Escape(value) +
            "</ns4:value></commandResultList>\n" + kOutClose +
            CloseTag(kResponseDepth, kOperation));
}

const ZelWsdlServlet::MethodTable& Methods() {
    static const ZelWsdlServlet::MethodTable methods = {
        {"getDeviceInformation", GetDeviceInformation},
        {"reserveDevice", ReserveDevice},
        {"releaseDevice", ReleaseDevice},
        {"resetTrigger15Edge", ResetTrigger15Edge},
        {"setHostLock", SetHostLock},
        {"switchMode", SwitchMode},
        {"executeGenericCommand", ExecuteGenericCommand},
    };
    return methods;
}

}  // namespace

ZelConnectorServlet::ZelConnectorServlet(const Device& device)
    : ZelWsdlServlet({kName, kPath, MatchMode::kPathPrefix, kPort},
                     {Methods(), Namespaces::kConnectorService, kDescription}),
      device_(device) {}

void ZelConnectorServlet::RewriteDescription(std::string& text) const {
    const std::string host = device_.config.Get("network.current.lan.ip");
    const std::string base = "http://" + host + ":" + std::to_string(kPort) + kPath;
    // Files are found in this order, each reference once.
    constexpr int kSchemas[] = {3, 2, 4, 1};
    for (const int number : kSchemas) {
        const ServiceDescription::File& schema = kDescription[number];
        const std::string start = "schemaLocation=\"";
        ServiceDescription::ReplaceFirst(text, start + schema.name + "\"",
                                         start + base + "?" + std::string(schema.query) + "\"");
    }
    ServiceDescription::RewriteAddress(text, host);
}

std::unique_ptr<ZelServlet> ZelConnectorServlet::MakeInstance() const {
    return std::make_unique<ZelConnectorServlet>(device_);
}
