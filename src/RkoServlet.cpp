#include "RkoServlet.h"

#include <array>
#include <map>
#include <string_view>

#include "LargeText.h"
#include "LogText.h"
#include "RkoRequest.h"
#include "StoreKeys.h"
#include "XmlText.h"
#include "ZelLog.h"

namespace {

using Device = RkoServlet::Device;

constexpr char kName[] = "RkoServlet";
constexpr char kPath[] = "/rKo";
constexpr char kXml[] = "text/xml;charset=\"utf-8\"";
constexpr std::size_t kMinNameLength = 2;

constexpr char kPacketStart[] =
    "<?xml version='1.0'?>\n"
    "<!DOCTYPE wddxPacket SYSTEM 'wddx_0100.dtd'>\n"
    "<wddxPacket version='1.0'>\n"
    "<header><comment></comment></header>\n"
    "<data>\n";
constexpr char kPacketEnd[] = "</data>\n</wddxPacket>\n";

/// The string variable with that name anywhere below `root`; empty when there is none. Behind one
/// that is empty, those beside it do not count.
std::string StringVariable(const xmlNode* root, std::string_view name) {
    const xmlNode* element = XmlText::Next(root, root);
    while (element != nullptr) {
        if (XmlText::LocalName(element) == "var" && XmlText::Attribute(element, "name") == name) {
            std::string text = XmlText::ChildText(element, "string");
            if (!text.empty()) {
                return text;
            }
            element = XmlText::NextBehind(root, element->parent);
        } else {
            element = XmlText::Next(root, element);
        }
    }
    return "";
}

std::string String(std::string_view text) {
    return "<string>" + XmlText::Escape(text) + "</string>";
}

std::string Number(int number) {
    return "<number>" + std::to_string(number) + "</number>";
}

constexpr char kNull[] = "<null />";

std::string Var(std::string_view name, const std::string& value) {
    return "<var name=\"" + std::string(name) + "\">" + value + "</var>\n";
}

std::string Struct(const std::string& variables) {
    return "<struct>\n" + variables + "</struct>";
}

std::string Status(int code, int message) {
    return Struct(Var("code", Number(code)) + Var("msg", Number(message)) + Var("params", kNull));
}

std::string Channels() {
    constexpr struct {
        const char* channel;
        const char* connection;
    } kChannels[] = {{"DIAGBUS", "controlled"}, {"CAN", "controlled"}, {"MOST", "open"}};
    std::string array = "<array length=\"" + std::to_string(std::size(kChannels)) + "\">\n";
    for (const auto& [channel, connection] : kChannels) {
        array += Struct(Var("Channel", String(channel)) + Var("Connection", String(connection)) +
                        Var("ControlledBy", kNull)) +
                 "\n";
    }
    return array + "</array>";
}

struct SlpAttribute {
    const char* name;
    std::string value;
    bool isPersistent;
};

/// What the device status tells of the box.
struct DeviceValues {
    std::string macAddress;
    std::string ipAddress;
    std::string netmask;
    std::string gateway;
    std::string isAllocated;
    std::string owner;
    std::string color;
};

std::string SlpAttributes(const DeviceValues& values) {
    const SlpAttribute attributes[] = {
        {"FirmwareRev", "121", true},
        {"MacAddress", values.macAddress, true},
        {"VciChannel1", "TELMANO:TAVO:6801", true},
        {"VciChannel2", "TELMANO:TAVO:6802", true},
        {"RkoUrl", "//TAVO:5302/rKO", true},
        {"DevType", "TAVO", true},
        {"VciChannels", "2", true},
        {"DevClass", "HUX-VCI", true},
        {"description", "TAVO, Velka, QK20417B", true},
        {"IsAllocated", values.isAllocated, true},
        {"IpAddress", values.ipAddress, false},
        {"AssignedColor", values.color, true},
    };
    std::string array = "<array length=\"" + std::to_string(std::size(attributes)) + "\">\n";
    for (const auto& [name, value, isPersistent] : attributes) {
        array += Struct(Var("AttributeName", String(name)) + Var("AttributeValue", String(value)) +
                        Var("IsPersistent", std::string("<boolean value=\"") +
                                                (isPersistent ? "true" : "false") + "\" />")) +
                 "\n";
    }
    return array + "</array>";
}

/// What a function answers: the content of the packet's data element.
struct Reply {
    std::string data;
    const char* contentType = kXml;
};

std::string DeviceStatus(const DeviceValues& values) {
    return Struct(Var("DeviceType", Number(40018)) + Var("UpTime", Number(60)) +
                  Var("SelftestStatus", Status(42502, 9061)) + Var("Hostname", String("TAVO")) +
                  Var("MacAddress", String(values.macAddress)) + Var("DhcpMode", Number(41203)) +
                  Var("IpAddress", String(values.ipAddress)) +
                  Var("Netmask", String(values.netmask)) +
                  Var("DefaultGateway", String(values.gateway)) + Var("FirmwareRev", Number(121)) +
                  Var("IsAllocated", String(values.isAllocated)) +
                  Var("DeviceOwner", String(values.owner)) + Var("IfUsage", Channels()) +
                  Var("SlpAttributes", SlpAttributes(values)) + Var("Status", Status(0, 0))) +
           "\n";
}

Reply GetDeviceStatus(const xmlNode* /*data*/, const Device& device) {
    const ZelConfig& config = device.config;
    DeviceValues values{
        .macAddress = config.Get(StoreKeys::kLanMac),
        .ipAddress = config.Get(StoreKeys::kLanIp),
        .netmask = config.Get(StoreKeys::kLanNetmaskMisspelt),
        .gateway = config.Get(StoreKeys::kDefaultGateway),
        .isAllocated = device.reservation.IsReserved() ? "1" : "0",
        .owner = config.Get(StoreKeys::kOwner),
        .color = config.Get(StoreKeys::kColor),
    };
    std::string data = DeviceStatus(values);
    // The log holds the whole text, but of the owner no line, and no more than of other values.
    values.owner = LogText::Of(values.owner);
    ZEL_DEBUG("\n\n{%s} {LEN=%d}\n\n", DeviceStatus(values).c_str(), static_cast<int>(data.size()));
    return {std::move(data)};
}

Reply AllocateDevice(const xmlNode* data, const Device& device) {
    std::string host = StringVariable(data, "IfhClientIpAddr");
    if (host == "ANY_HOST") {
        host = "0";
    }
    std::string handle;
    const bool reserved =
        device.reservation.Reserve(StringVariable(data, "DeviceOwner"), host, handle);
    // Clients expect the two slips in this text, and its type.
    return {std::string("<struct>\n<var name=\"Status\"><struct><var name=\"code\"><number>") +
                (reserved ? "0" : "42030") +
                "/number></var><var name=\"msg\"><umber>0</number></var><var name=\"params\">"
                "<array length=\"1\"><null /></array></var></struct></var></struct>",
            "text/html"};
}

Reply ReleaseDevice(const xmlNode* data, const Device& device) {
    // Who owns nothing gets the same answer.
    static_cast<void>(device.reservation.ReleaseOwnedBy(StringVariable(data, "DeviceOwner")));
    return {};
}

Reply AnswerEmpty(const xmlNode* /*data*/, const Device& /*device*/) {
    return {};
}

using Handler = Reply (*)(const xmlNode* data, const Device& device);

const std::map<std::string_view, Handler>& Methods() {
    static const std::map<std::string_view, Handler> methods = {
        {"rkoGetVersion", AnswerEmpty},         {"rkoGetDeviceStatus", GetDeviceStatus},
        {"rkoAllocateDevice", AllocateDevice},  {"rkoReleaseDevice", ReleaseDevice},
        {"rkoGetVehicleStatus", AnswerEmpty},   {"rkoSetIpConfiguration", AnswerEmpty},
        {"rkoSetDeviceAttribute", AnswerEmpty}, {"rkoUpdateDeviceFirmware", AnswerEmpty},
        {"rkoRunDeviceSelfTest", AnswerEmpty},  {"rkoInitiateCfgRequest", AnswerEmpty},
    };
    return methods;
}

/// The body of the answer: a packet, or the bare text of an error.
Reply Answer(const std::optional<RkoRequest>& request, const Device& device) {
    if (!request || request->function.size() < kMinNameLength) {
        return {"Invalid Argument given"};
    }
    ZEL_DEBUG("rKo::%s", LogText::Of(request->function).c_str());
    if (request->packet.empty()) {
        return {"no request data"};
    }
    const auto method = Methods().find(request->function);
    if (method == Methods().end()) {
        ZEL_ERROR("rKo wddx method '%s' not found", LogText::Of(request->function).c_str());
        return {"rKo wddx method not found"};
    }
    const LargeText place(request->packet.size());
    const XmlText::Document document =
        place.MayBeRead() ? XmlText::Parse(request->packet, XmlText::DocumentType::kNameOnly)
                          : nullptr;
    if (!document) {
        ZEL_ERROR("Can't create doc node");
        return {"Internal error"};
    }
    Reply reply;
    const xmlNode* data = XmlText::FindChild(xmlDocGetRootElement(document.get()), "data");
    if (data == nullptr) {
        ZEL_ERROR("rKo wddx method failed");
    } else {
        reply = method->second(data, device);
    }
    reply.data = kPacketStart + reply.data + kPacketEnd;
    return reply;
}

}  // namespace

RkoServlet::RkoServlet(const Device& device)
    : ZelServlet({kName, kPath, MatchMode::kPathPrefix, 0}), device_(device) {}

int RkoServlet::Service(const HttpRequest& request, ServletResponse& response) {
    Reply reply = Answer(RkoRequest::Read(request), device_);
    response.Fulfil(request, reply.contentType, std::move(reply.data));
    return kDone;
}

std::unique_ptr<ZelServlet> RkoServlet::MakeInstance() const {
    return std::make_unique<RkoServlet>(device_);
}
