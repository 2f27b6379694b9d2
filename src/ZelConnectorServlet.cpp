#include "ZelConnectorServlet.h"

#include <unistd.h>

#include <utility>

#include "ConnectorCodes.h"
#include "DiagnosticChannels.h"
#include "Dispatcher.h"
#include "Ipv4.h"
#include "LogText.h"
#include "Namespaces.h"
#include "NetworkType.h"
#include "Numbers.h"
#include "StoreKeys.h"
#include "XmlText.h"
#include "ZelLog.h"

namespace {

using Answer = ZelWsdlServlet::Answer;
using Call = ZelWsdlServlet::Call<ZelConnectorServlet::Device>;
using Code = ConnectorCode;

constexpr char kName[] = "ZelConnectorServlet";
constexpr char kPath[] = "/zel/services/ConnectorService";
constexpr std::uint16_t kPort = 5302;

// Where memory is lacking to release the box after a switch: five seconds.
constexpr useconds_t kReleasePause = 100000;
constexpr int kReleaseTries = 50;

constexpr ServiceDescription::File kDescription[] = {{"wsdl", "zelConnector.wsdl"},
                                                     {"xsd=1", "ZELConnector_v1.xsd"},
                                                     {"xsd=2", "ZELDriver_v1.xsd"},
                                                     {"xsd=3", "beans.xsd"},
                                                     {"xsd=4", "pembAgentShared.xsd"}};

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

std::string Number(Code code) {
    return std::to_string(static_cast<int>(code));
}

/// A response of `error` and, in some operations, further children. `afterOpenTag` is the line
/// feed that one operation leaves out.
std::string CodeResponse(const char* operation, Code code, const std::string& furtherChildren = "",
                         const char* afterOpenTag = "\n") {
    return OpenTag(kResponseDepth, operation) + afterOpenTag + kOutOpen +
           Element(kOutChildDepth, "error", Number(code)) + furtherChildren + kOutClose +
           CloseTag(kResponseDepth, operation) + "\n";
}

Code CodeOf(DeviceReservation::Session session) {
    using Session = DeviceReservation::Session;
    return session == Session::kValid         ? Code::kSuccess
           : session == Session::kNotReserved ? Code::kNotReserved
                                              : Code::kWrongHandle;
}

Code CodeOf(ModeSwitch::Outcome outcome) {
    using Outcome = ModeSwitch::Outcome;
    return outcome == Outcome::kDone           ? Code::kSuccess
           : outcome == Outcome::kNotConfirmed ? Code::kNotConfirmed
                                               : Code::kNotCarriedOut;
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

bool IsForOtherDevice(const Call& call) {
    const std::string deviceId = call.Text("deviceId");
    const std::string ownId = call.device.config.Get(StoreKeys::kDeviceId);
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
    const std::string ip = SignedAddress(config.Get(StoreKeys::kLanIp));
    const DiagnosticChannels usable = DiagnosticChannels::Read(config);
    return Tabs(4) + "<channels>\n" + Channel(ip, "KLine", "6801", "0", reserved) +
           Channel(ip, "DCAN", "6801", "1", usable.dCan && reserved) +
           Channel(ip, "MOST", "6802", "2", usable.most && reserved) + Tabs(4) + "</channels>\n";
}

std::string CurrentNetworkConfig(const ZelConfig& config) {
    const bool isLan = NetworkType::IsLan(config);
    const std::string mac = config.Get(StoreKeys::kLanMac);
    ZEL_DEBUG("MAC address: %s", mac.c_str());
    return Tabs(4) + "<currentNetworkConfig>\n" +
           Element(5, "gateway", SignedAddress(config.Get(StoreKeys::kDefaultGateway))) +
           Element(5, "ip4Address", SignedAddress(config.Get(NetworkType::IpKey(isLan)))) +
           Element(5, "lanDiscoverMode", config.Get(StoreKeys::kAddressMode)) +
           Element(5, "macAddress", HexPrefixAsDecimal(mac)) +
           Element(5, "netmask", SignedAddress(config.Get(NetworkType::NetmaskKey(isLan)))) +
           Element(5, "type", config.Get(StoreKeys::kNetworkType)) +
           Element(5, "wlanSignal", config.Get(StoreKeys::kWlanQuality)) + Tabs(4) +
           "</currentNetworkConfig>\n";
}

Answer GetDeviceInformation(const Call& call) {
    constexpr char kOperation[] = "getDeviceInformation";
    const ZelConfig& config = call.device.config;
    const std::string state = config.Get(StoreKeys::kState);
    const std::string kl15 = config.Get(StoreKeys::kKl15);
    const std::string kl30 = config.Get(StoreKeys::kKl30);
    ZEL_DEBUG("Kl30 voltage %s, Kl15 voltage %s", kl30.c_str(), kl15.c_str());

    std::string body = OpenTag(kResponseDepth, kOperation) + "\n" + Tabs(3) + "<ns2:out>\n";
    body += Element(4, "accu", "0");
    body += Channels(config, state == DeviceReservation::kReserved);
    body += Tabs(4) + "<color xmlns:xsi=\"" + Namespaces::kXmlSchemaInstance +
            "\" xsi:nil=\"true\"/>\n";
    body += CurrentNetworkConfig(config);
    body += Element(4, "deviceDescriptionOrNull", kDeviceDescription);
    body += Element(4, "error", Number(Code::kSuccess));
    body += Element(4, "firmware", config.Get(StoreKeys::kBootVersion));
    body += Element(4, "hardwareVersion", kHardwareVersion);
    body += Element(4, "id", config.Get(StoreKeys::kDeviceId));
    body += Element(4, "kl15", kl15);
    body += Element(4, "kl15Edge", ToXml(config.Get(StoreKeys::kKl15Edge) == "1"));
    body += Element(4, "kl30", kl30);
    body += Element(4, "name", kDeviceName);
    body += Element(4, "serial", config.Get(StoreKeys::kSerial));
    body += Element(4, "sessionOwnerOrNull", config.Get(StoreKeys::kOwner));
    body += Element(4, "state", state);
    body += Element(4, "type", kDeviceType);
    body += Element(4, "vin", config.Get(StoreKeys::kVin));
    body += Tabs(3) + "</ns2:out>\n" + CloseTag(kResponseDepth, kOperation) + "\n";
    return {std::move(body)};
}

Answer ReserveDevice(const Call& call) {
    const ZelConnectorServlet::Device& device = call.device;
    std::string handle;
    const Code code =
        IsForOtherDevice(call)                         ? Code::kWrongDevice
        : device.config.Get(StoreKeys::kTooHot) == "1" ? Code::kOverTemperature
        : device.reservation.Reserve(call.Text("owner"), call.Text("hostLock"), handle)
            ? Code::kSuccess
            : Code::kReserveRefused;
    handle = code == Code::kSuccess ? handle : "";
    return {CodeResponse("reserveDevice", code, Element(kOutChildDepth, "handle", handle))};
}

Answer ReleaseDevice(const Call& call) {
    DeviceReservation& reservation = call.device.reservation;
    const Code code = !reservation.IsReserved()                   ? Code::kNotReserved
                      : IsForOtherDevice(call)                    ? Code::kWrongDevice
                      : !reservation.Release(call.Text("handle")) ? Code::kWrongHandle
                                                                  : Code::kSuccess;
    return {CodeResponse("releaseDevice", code, "", "")};
}

Answer ResetTrigger15Edge(const Call& call) {
    return {CodeResponse("resetTrigger15Edge",
                         call.device.trigger15.Reset() ? Code::kSuccess : Code::kNotCarriedOut)};
}

Answer SetHostLock(const Call& call) {
    return {CodeResponse("setHostLock", CodeOf(call.device.reservation.ChangeHostLock(
                                            call.Text("handle"), call.Text("hostLock"))))};
}

Code Switch(const Call& call, ModeSwitch::FormerAddress& former) {
    const auto run = [&] {
        const long mode = Numbers::Leading(call.Text("mode"));
        return CodeOf(call.device.modeSwitch.Run(mode, call.request.localAddress, former));
    };
    DeviceReservation& reservation = call.device.reservation;
    if (IsForOtherDevice(call)) {
        return Code::kWrongDevice;
    }
    if (reservation.IsReserved()) {
        const bool isOwner =
            reservation.CheckSession(call.Text("handle")) == DeviceReservation::Session::kValid;
        return isOwner ? run() : Code::kWrongHandle;
    }
    ZEL_DEBUG("Device state is free, change to reserve");
    std::string handle;
    if (!reservation.Reserve("", "127.0.0.1", handle)) {
        return Code::kWrongHandle;  // somebody else was faster
    }
    const DeviceReservation::Lease lease(reservation, std::move(handle), [tries = 0]() mutable {
        usleep(kReleasePause);
        return ++tries < kReleaseTries;
    });
    const Code code = run();
    ZEL_DEBUG("Change back to state free");
    return code;
}

Answer SwitchMode(const Call& call) {
    ModeSwitch::FormerAddress former;
    std::string response = CodeResponse("switchMode", Switch(call, former));
    return {std::move(response), false, std::move(former)};
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

Answer ExecuteGenericCommand(const Call& call) {
    constexpr char kOperation[] = "executeGenericCommand";
    const Code code = CodeOf(call.device.reservation.CheckSession(call.Text("handle")));
    const char* key = "error";
    std::string value = "-1";
    if (code == Code::kSuccess) {
        const int failed = Dispatcher::CommandExecution(
            call.Text("pSubSystem"), call.Text("pCommand"), CommandParameters(call.method), value);
        ZEL_DEBUG("executeGenericCommand returned '%s'", LogText::Of(value).c_str());
        key = failed != 0 ? "error" : "result";
    }
    return {OpenTag(kResponseDepth, kOperation) + "\n" + kOutOpen + Tabs(kOutChildDepth) +
            "<error>" + Number(code) + "</error><commandResultList><ns4:key>" + key +
            "</ns4:key><ns4:value>" + XmlText::Escape(value) +
            "</ns4:value></commandResultList>\n" + kOutClose +
            CloseTag(kResponseDepth, kOperation)};
}

template <auto kOperation>
constexpr ZelWsdlServlet::Handler kHandler =
    ZelWsdlServlet::Handle<ZelConnectorServlet, kOperation>;

const ZelWsdlServlet::MethodTable& Methods() {
    static const ZelWsdlServlet::MethodTable methods = {
        {"getDeviceInformation", kHandler<GetDeviceInformation>},
        {"reserveDevice", kHandler<ReserveDevice>},
        {"releaseDevice", kHandler<ReleaseDevice>},
        {"resetTrigger15Edge", kHandler<ResetTrigger15Edge>},
        {"setHostLock", kHandler<SetHostLock>},
        {"switchMode", kHandler<SwitchMode>},
        {"executeGenericCommand", kHandler<ExecuteGenericCommand>},
    };
    return methods;
}

}  // namespace

ZelConnectorServlet::ZelConnectorServlet(const Device& device)
    : ZelWsdlServlet({kName, kPath, MatchMode::kPathPrefix, kPort},
                     {Methods(), Namespaces::kConnectorService, kDescription}),
      device_(device) {}

void ZelConnectorServlet::RewriteDescription(std::string& text) const {
    const std::string host = device_.config.Get(StoreKeys::kLanIp);
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
