#include "ZelConnectorServlet.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <initializer_list>
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

/// What the longest answer takes but for its values, and some of those.
constexpr std::size_t kUsualAnswer = 3072;

/// A text that a template is made for.
template <std::size_t N>
struct Name {
    char text[N]{};
    constexpr Name(const char (&name)[N]) { std::copy_n(name, N, text); }
    constexpr std::string_view View() const { return {text, N - 1}; }
};

/// Texts, one behind the other, made when this is compiled.
template <Name... kParts>
constexpr auto kJoined = [] {
    std::array<char, (kParts.View().size() + ...)> text{};
    auto* end = text.data();
    ((end = std::copy_n(kParts.text, kParts.View().size(), end)), ...);
    return text;
}();

constexpr Name kIndent3("\t\t\t");
constexpr Name kIndent4("\t\t\t\t");
constexpr Name kIndent5("\t\t\t\t\t");
constexpr Name kIndent6("\t\t\t\t\t\t");

void AddLine(std::string& text, std::string_view open, std::string_view value,
             std::string_view close) {
    text += open;
    XmlText::AppendEscaped(text, value);
    text += close;
}

template <std::size_t N>
constexpr std::string_view View(const std::array<char, N>& text) {
    return {text.data(), N};
}

/// One line: the element of that name with `value`, which is escaped, behind `kIndent`.
template <Name kIndent, Name kName>
void AddElement(std::string& text, std::string_view value) {
    AddLine(text, View(kJoined<kIndent, "<", kName, ">">), value,
            View(kJoined<"</", kName, ">\n">));
}

constexpr std::size_t kResponseDepth = 2;
constexpr char kOutOpen[] = "\t\t<ns2:out>\n";
constexpr char kOutClose[] = "\t\t</ns2:out>\n";

void OpenResponse(std::string& text, std::string_view operation) {
    text.append(kResponseDepth, '\t') += "<ns2:";
    using Parts = std::initializer_list<std::string_view>;
    for (const std::string_view part :
         Parts{operation, "Response xmlns=\"", Namespaces::kConnectorBean, "\" xmlns:ns2=\"",
               Namespaces::kConnectorService, "\" xmlns:ns3=\"", Namespaces::kManagerBean,
               "\" xmlns:ns4=\"", Namespaces::kBeans, "\">"}) {
        text += part;
    }
}

void CloseResponse(std::string& text, std::string_view operation) {
    text.append(kResponseDepth, '\t') += "</ns2:";
    text += operation;
    text += "Response>";
}

std::string Number(Code code) {
    return std::to_string(static_cast<int>(code));
}

/// A response of `error` and, in one operation, a `handle`. `afterOpenTag` is the line feed
/// that one operation leaves out.
std::string CodeResponse(const char* operation, Code code, const std::string* handle = nullptr,
                         const char* afterOpenTag = "\n") {
    std::string text;
    OpenResponse(text, operation);
    text += afterOpenTag;
    text += kOutOpen;
    AddElement<kIndent3, "error">(text, Number(code));
    if (handle != nullptr) {
        AddElement<kIndent3, "handle">(text, *handle);
    }
    text += kOutClose;
    CloseResponse(text, operation);
    text += '\n';
    return text;
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

void AddChannel(std::string& text, const std::string& ip, const char* name, const char* port,
                const char* type, bool active) {
    text += "\t\t\t\t\t<ns3:Channel>\n";
    AddElement<kIndent6, "ns3:active">(text, ToXml(active));
    AddElement<kIndent6, "ns3:ip">(text, ip);
    AddElement<kIndent6, "ns3:name">(text, name);
    AddElement<kIndent6, "ns3:port">(text, port);
    AddElement<kIndent6, "ns3:type">(text, type);
    text += "\t\t\t\t\t</ns3:Channel>\n";
}

/// Nobody can use a channel of a free box, whose connectors are not looked at.
void AddChannels(std::string& text, const ZelConfig& config, LiveSources& live,
                 const std::string& ip, bool reserved) {
    const DiagnosticChannels usable =
        reserved ? DiagnosticChannels::Read(config, live) : DiagnosticChannels{};
    text += "\t\t\t\t<channels>\n";
    AddChannel(text, ip, "KLine", "6801", "0", reserved);
    AddChannel(text, ip, "DCAN", "6801", "1", usable.dCan);
    AddChannel(text, ip, "MOST", "6802", "2", usable.most);
    text += "\t\t\t\t</channels>\n";
}

void AddCurrentNetworkConfig(std::string& text, const ZelConfig& config, const std::string& lanIp) {
    const bool isLan = NetworkType::IsLan(config);
    const std::string mac = config.Get(StoreKeys::kLanMac);
    ZEL_DEBUG("MAC address: %s", mac.c_str());
    text += "\t\t\t\t<currentNetworkConfig>\n";
    AddElement<kIndent5, "gateway">(text, SignedAddress(config.Get(StoreKeys::kDefaultGateway)));
    AddElement<kIndent5, "ip4Address">(
        text, isLan ? lanIp : SignedAddress(config.Get(NetworkType::IpKey(isLan))));
    AddElement<kIndent5, "lanDiscoverMode">(text, config.Get(StoreKeys::kAddressMode));
    AddElement<kIndent5, "macAddress">(text, HexPrefixAsDecimal(mac));
    AddElement<kIndent5, "netmask">(text,
                                    SignedAddress(config.Get(NetworkType::NetmaskKey(isLan))));
    AddElement<kIndent5, "type">(text, config.Get(StoreKeys::kNetworkType));
    AddElement<kIndent5, "wlanSignal">(text, config.Get(StoreKeys::kWlanQuality));
    text += "\t\t\t\t</currentNetworkConfig>\n";
}

Answer GetDeviceInformation(const Call& call) {
    constexpr char kOperation[] = "getDeviceInformation";
    const ZelConfig& config = call.device.config;
    LiveSources live;
    const std::string state = config.Get(StoreKeys::kState);
    const std::string kl15 = config.Get(StoreKeys::kKl15);
    const std::string kl30 = config.Get(StoreKeys::kKl30);
    ZEL_DEBUG("Kl30 voltage %s, Kl15 voltage %s", kl30.c_str(), kl15.c_str());
    const std::string lanIp = SignedAddress(config.Get(StoreKeys::kLanIp));

    std::string text;
    text.reserve(kUsualAnswer);
    OpenResponse(text, kOperation);
    text += "\n\t\t\t<ns2:out>\n";
    AddElement<kIndent4, "accu">(text, "0");
    AddChannels(text, config, live, lanIp, state == DeviceReservation::kReserved);
    text += "\t\t\t\t<color xmlns:xsi=\"";
    text += Namespaces::kXmlSchemaInstance;
    text += "\" xsi:nil=\"true\"/>\n";
    AddCurrentNetworkConfig(text, config, lanIp);
    AddElement<kIndent4, "deviceDescriptionOrNull">(text, kDeviceDescription);
    AddElement<kIndent4, "error">(text, Number(Code::kSuccess));
    AddElement<kIndent4, "firmware">(text, config.Get(StoreKeys::kBootVersion, live));
    AddElement<kIndent4, "hardwareVersion">(text, kHardwareVersion);
    AddElement<kIndent4, "id">(text, config.Get(StoreKeys::kDeviceId, live));
    AddElement<kIndent4, "kl15">(text, kl15);
    AddElement<kIndent4, "kl15Edge">(text, ToXml(config.Get(StoreKeys::kKl15Edge) == "1"));
    AddElement<kIndent4, "kl30">(text, kl30);
    AddElement<kIndent4, "name">(text, kDeviceName);
    AddElement<kIndent4, "serial">(text, config.Get(StoreKeys::kSerial, live));
    AddElement<kIndent4, "sessionOwnerOrNull">(text, config.Get(StoreKeys::kOwner, live));
    AddElement<kIndent4, "state">(text, state);
    AddElement<kIndent4, "type">(text, kDeviceType);
    AddElement<kIndent4, "vin">(text, config.Get(StoreKeys::kVin, live));
    text += "\t\t\t</ns2:out>\n";
    CloseResponse(text, kOperation);
    text += '\n';
    return {std::move(text)};
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
    return {CodeResponse("reserveDevice", code, &handle)};
}

Answer ReleaseDevice(const Call& call) {
    DeviceReservation& reservation = call.device.reservation;
    const Code code = !reservation.IsReserved()                   ? Code::kNotReserved
                      : IsForOtherDevice(call)                    ? Code::kWrongDevice
                      : !reservation.Release(call.Text("handle")) ? Code::kWrongHandle
                                                                  : Code::kSuccess;
    return {CodeResponse("releaseDevice", code, nullptr, "")};
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
    std::string text;
    OpenResponse(text, kOperation);
    text += '\n';
    text += kOutOpen;
    text += "\t\t\t<error>";
    text += Number(code);
    text += "</error><commandResultList><ns4:key>";
    text += key;
    text += "</ns4:key><ns4:value>";
    XmlText::AppendEscaped(text, value);
    text += "</ns4:value></commandResultList>\n";
    text += kOutClose;
    CloseResponse(text, kOperation);
    return {std::move(text)};
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
