#include "ZelWsdlServlet.h"

#include <memory>
#include <mutex>
#include <optional>

#include "Console.h"
#include "HeldMutex.h"
#include "LargeText.h"
#include "LogText.h"
#include "Namespaces.h"
#include "ServiceSchemas.h"
#include "ZelLog.h"

namespace {

constexpr int kAnswered = 0;
constexpr char kContentType[] = "text/xml;charset=\"utf-8\"";

// Bytes of an envelope and of a fault around what they hold, and more.
constexpr std::size_t kFrameSize = 512;

void AppendFault(std::string& text, const std::string& message) {
    text += "\t\t<S:Fault xmlns:ns4=\"";
    text += Namespaces::kSoap12Envelope;
    text +=
        "\">\n"
        "\t\t\t<faultcode>S:Client</faultcode>\n"
        "\t\t\t<faultstring>";
    text += message;
    text +=
        "</faultstring>\n"
        "\t\t</S:Fault>\n";
}

std::string Envelope(const ZelWsdlServlet::Answer& answer) {
    std::string text;
    text.reserve(answer.text.size() + kFrameSize);
    text += "<S:Envelope xmlns:S=\"";
    text += Namespaces::kSoap11Envelope;
    text += "\">\n\t<S:Body>\n";
    if (answer.isFault) {
        AppendFault(text, answer.text);
    } else {
        text += answer.text;
    }
    text += "\t</S:Body>\n</S:Envelope>\n";
    return text;
}

ServiceSchemas& SchemasOf(const std::string& servletName) {
    static HeldMutex mutex;
    static std::map<std::string, std::unique_ptr<ServiceSchemas>> table;
    const std::lock_guard lock(mutex);
    std::unique_ptr<ServiceSchemas>& schemas = table[servletName];
    if (!schemas) {
        Console::Print("Initializing schema context for " + servletName + "\n");
        schemas = std::make_unique<ServiceSchemas>(servletName);
    }
    return *schemas;
}

bool IsEnvelope(xmlDoc* document, std::string& errors) {
    if (document == nullptr) {
        errors = "Can't create xml document from request";
        return false;
    }
    return SoapEnvelopeSchema().ValidateDocument(document, errors);
}

/// A method without children is valid also without the schemas, which are not loaded for it.
bool IsValid(xmlNode* method, const std::string& servletName, std::string& errors) {
    return method->children == nullptr || SchemasOf(servletName).Accept(method, errors);
}

/// The first node in the Body, or the one behind it where the first is not an element.
xmlNode* FindMethod(xmlDoc* document) {
    const xmlNode* body = XmlText::FindChild(xmlDocGetRootElement(document), "Body");
    xmlNode* node = body == nullptr ? nullptr : body->children;
    if (node != nullptr && node->type != XML_ELEMENT_NODE) {
        node = node->next;
    }
    return node != nullptr && node->type == XML_ELEMENT_NODE ? node : nullptr;
}

}  // namespace

ZelWsdlServlet::ZelWsdlServlet(Registration registration, const Definition& definition)
    : ZelServlet(std::move(registration)), definition_(definition) {}

int ZelWsdlServlet::Service(const HttpRequest& request, ServletResponse& response) {
    const ServiceDescription::File* file =
        ServiceDescription::Find(definition_.description, request);
    if (file == nullptr) {
        return Dispatch(request, response);
    }
    if (std::optional<std::string> text = ServiceDescription::Read(*file)) {
        RewriteDescription(*text);
        response.Fulfil(request, kContentType, std::move(*text));
    }
    return kDone;
}

int ZelWsdlServlet::Send(Answer answer, const HttpRequest& request, ServletResponse& response) {
    response.Fulfil(request, kContentType, Envelope(answer));
    response.keepAlive = response.keepAlive && !answer.isFault;
    response.keptUntilReceived = std::move(answer.keptUntilReceived);
    return kAnswered;
}

int ZelWsdlServlet::Dispatch(const HttpRequest& request, ServletResponse& response) {
    const auto refuse = [&](const std::string& message) {
        return Send(Answer::Fault(message), request, response);
    };
    const std::string_view body = request.body ? *request.body : std::string_view();
    const LargeText place(body.size());
    const XmlText::Document document = place.MayBeRead() ? XmlText::Parse(body) : nullptr;
    std::string errors;
    if (!skipEnvelopeCheck_ && !IsEnvelope(document.get(), errors)) {
        return refuse(errors);
    }
    if (!document) {
        ZEL_ERROR("Can't create doc node");
        return kAnswered;
    }
    const auto service = [&] { return std::string("{") + definition_.namespaceUri + "}"; };
    xmlNode* method = FindMethod(document.get());
    if (method == nullptr) {
        ZEL_ERROR("ZEL soap method is empty");
        return refuse("Method is empty for " + service());
    }
    const std::string_view name = XmlText::LocalName(method);
    const std::string shownName = LogText::Of(name);
    if (!IsValid(method, GetName(), errors)) {
        ZEL_ERROR("ZEL soap method '%s' not valid", shownName.c_str());
        return refuse(errors);
    }
    ZEL_DEBUG("ZEL soap method: %s", shownName.c_str());
    const auto found = definition_.methods.find(name);
    if (found == definition_.methods.end()) {
        ZEL_ERROR("ZEL soap method '%s' not found", shownName.c_str());
        return refuse("Cannot find dispatch method for " + service() + std::string(name));
    }
    return found->second(method, request, response, *this);
}
