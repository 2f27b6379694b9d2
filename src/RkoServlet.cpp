#include "RkoServlet.h"

#include <array>
#include <map>
#include <string_view>

#include "RkoRequest.h"
#include "XmlText.h"
#include "ZelLogging.h"

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

/// The string variable with that name anywhere below `node`; empty when there is none.
std::string StringVariable(const xmlNode* node, std::string_view name) {
    for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE) {
            continue;
        }
        if (XmlText::LocalName(child) == "var" && XmlText::Attribute(child, "name") == name) {
            return XmlText::ChildText(child, "string");
        }
        std::string found = StringVariable(child, name);
        if (!found.empty()) {
            return found;
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

std::string SlpAttributes(const std::string& macAddress, const std::string& ipAddress,
                          const std::string& isAllocated, const std::string& color) {
    const SlpAttribute attributes[] = {
        {"FirmwareRev", "121", true},
        {"MacAddress", macAddress, true},
        {"VciChannel1", "TELMANO:TAVO:6801", true},
        {"VciChannel2", "TELMANO:TAVO:6802", true},
        {"RkoUrl", "//TAVO:5302/rKO", true},
        {"DevType", "TAVO", true},
        {"VciChannels", "2", true},
        {"DevClass", "HUX-VCI", true},
        {"description", "TAVO, Velka, QK20417B", true},
        {"IsAllocated", isAllocated, true},
        {"IpAddress", ipAddress, false},
        {"AssignedColor", color, true},
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

// What a function answers: `data` is the content of the packet's data element. They return 0, or
// another number when they failed.
struct Reply {
    std::string data;
    const char* contentType = kXml;
};

int GetDeviceStatus(const xmlNode* /*data*/, const Device& device, Reply& reply) {
    const ZelConfig& config = device.config;
    const std::string macAddress = config.Get("network.mac.lan");
    const std::string ipAddress = config.Get("network.current.lan.ip");
    // No attribute has this name: clients have always got an empty net mask.
    const std::string netmask = config.Get("network.current.lan.netmasl");
    const std::string isAllocated = device.reservation.IsReserved() ? "1" : "0";
    reply.data =
        Struct(Var("DeviceType", Number(40018)) + Var("UpTime", Number(60)) +
               Var("SelftestStatus", Status(42502, 9061)) + Var("Hostname", String("TAVO")) +
               Var("MacAddress", String(macAddress)) + Var("DhcpMode", Number(41203)) +
               Var("IpAddress", String(ipAddress)) + Var("Netmask", String(netmask)) +
               Var("DefaultGateway", String(config.Get("network.current.defaultgateway"))) +
               Var("FirmwareRev", Number(121)) + Var("IsAllocated", String(isAllocated)) +
               Var("DeviceOwner", String(config.Get("zel.state.owner"))) +
               Var("IfUsage", Channels()) +
               Var("SlpAttributes",
                   SlpAttributes(macAddress, ipAddress, isAllocated, config.Get("tavo.color"))) +
               Var("Status", Status(0, 0))) +
        "\n";
    ZEL_DEBUG("\n\n{%s} {LEN=%d}\n\n", reply.data.c_str(), static_cast<int>(reply.data.size()));
    return 0;
}

int AllocateDevice(const xmlNode* data, const Device& device, Reply& reply) {
    std::string host = StringVariable(data, "IfhClientIpAddr");
    if (host == "ANY_HOST") {
        host = "0";
    }
    std::string handle;
    const bool reserved =
        device.reservation.Reserve(StringVariable(data, "DeviceOwner"), host, handle);
    // Clients expect the two slips in this text, and its type.
    reply.data = std::string("<struct>\n<var name=\"Status\"><struct><var name=\"code\"><number>") +
                 (reserved ? "0" : "42030") +
                 "/number></var><var name=\"msg\"><umber>0</number></var><var name=\"params\">"
                 "<array length=\"1\"><null /></array></var></struct></var></struct>";
    reply.contentType = "text/html";
    return 0;
}

int ReleaseDevice(const xmlNode* data, const Device& device, Reply& /*reply*/) {
    device.reservation.ReleaseOwnedBy(StringVariable(data, "DeviceOwner"));
    return 0;
}

int AnswerEmpty(const xmlNode* /*data*/, const Device& /*device*/, Reply& /*reply*/) {
    return 0;
}

using Handler = int (*)(const xmlNode* data, const Device& device, Reply& reply);

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
    ZEL_DEBUG("rKo::%s", request->function.c_str());
    if (request->packet.empty()) {
        return {"no request data"};
    }
    const auto method = Methods().find(request->function);
    if (method == Methods().end()) {
        ZEL_ERROR("rKo wddx method '%s' not found", request->function.c_str());
        return {"rKo wddx method not found"};
    }
    const XmlText::Document document =
        XmlText::Parse(request->packet, XmlText::DocumentType::kNameOnly);
    if (!document) {
        ZEL_ERROR("Can't create doc node");
        return {"Internal error"};
    }
    Reply reply;
    const xmlNode* data = XmlText::FindChild(xmlDocGetRootElement(document.get()), "data");
    if (data == nullptr || method->second(data, device, reply) != 0) {
        ZEL_ERROR("rKo wddx method failed");
    }
    reply.data = kPacketStart + reply.data + kPacketEnd;
    return reply;
}

}  // namespace

RkoServlet::RkoServlet(const Device& device)
    : ZelServlet({kName, kPath, MatchMode::kPathPrefix, 0}), device_(device) {}

int RkoServlet::Service(const HttpRequest& request, HttpResponse& response) {
    Reply reply = Answer(RkoRequest::Read(request), device_);
    response.status = 200;
    response.keepAlive = request.keepAlive;
    response.contentType = reply.contentType;
    response.body = std::move(reply.data);
    return kDone;
}

std::unique_ptr<ZelServlet> RkoServlet::MakeInstance() const {
    return std::make_unique<RkoServlet>(device_);
}
