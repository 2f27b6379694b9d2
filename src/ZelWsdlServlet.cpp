#include "ZelWsdlServlet.h"

#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "Console.h"
#include "HeldMutex.h"
#include "LargeText.h"
#include "LogText.h"
#include "Namespaces.h"
#include "ServiceSchemas.h"
#include "XmlText.h"
#include "ZelLog.h"

namespace {

constexpr int kNotDone = 0;
// Of a handler that has answered with a fault.
constexpr int kFaulted = -1;

std::string EnvelopeHead() {
    return std::string("<S:Envelope xmlns:S=\"") + Namespaces::kSoap11Envelope +
           "\">\n\t<S:Body>\n";
}
constexpr char kEnvelopeTail[] = "\t</S:Body>\n</S:Envelope>\n";

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

int ZelWsdlServlet::Service(const HttpRequest& request, HttpResponse& response) {
    const ServiceDescription::File* file =
        ServiceDescription::Find(definition_.description, request);
    if (file == nullptr) {
        return Dispatch(request, response);
    }
    Describe(*file, request, response);
    return kDone;
}

void ZelWsdlServlet::Describe(const ServiceDescription::File& file, const HttpRequest& request,
                              HttpResponse& response) const {
    std::string text;
    if (ServiceDescription::Read(file, text)) {
        RewriteDescription(text);
        Answer(request, response, std::move(text));
    }
}

int ZelWsdlServlet::Answer(const HttpRequest& request, HttpResponse& response, std::string body) {
    response.status = 200;
    response.contentType = kContentType;
    response.keepAlive = request.keepAlive;
    response.body = std::move(body);
    return kNotDone;
}

int ZelWsdlServlet::SendFault(HttpResponse& response, const std::string& message) {
    response.status = 200;
    response.keepAlive = false;
    response.contentType = kContentType;
    response.body = EnvelopeHead() + "\t\t<S:Fault xmlns:ns4=\"" + Namespaces::kSoap12Envelope +
                    "\">\n"
                    "\t\t\t<faultcode>S:Client</faultcode>\n"
                    "\t\t\t<faultstring>" +
                    message +
                    "</faultstring>\n"
                    "\t\t</S:Fault>\n" +
                    kEnvelopeTail;
    return kFaulted;
}

int ZelWsdlServlet::Dispatch(const HttpRequest& request, HttpResponse& response) {
    const std::string_view body = request.body ? *request.body : std::string_view();
    const LargeText place(body.size());
    const XmlText::Document document = place.MayBeRead() ? XmlText::Parse(body) : nullptr;
    if (!skipEnvelopeCheck_ && !CheckEnvelope(document.get(), response)) {
        return kNotDone;
    }
    if (!document) {
        ZEL_ERROR("Can't create doc node");
        return kNotDone;
    }
    xmlNode* method = FindMethod(document.get());
    if (method == nullptr) {
        SendFault(response, std::string("Method is empty for {") + definition_.namespaceUri + "}");
        ZEL_ERROR("ZEL soap method is empty");
        return kNotDone;
    }
    const std::string name(XmlText::LocalName(method));
    const std::string shownName = LogText::Of(name);
    if (!CheckMethod(method, response)) {
        ZEL_ERROR("ZEL soap method '%s' not valid", shownName.c_str());
        return kNotDone;
    }
    ZEL_DEBUG("ZEL soap method: %s", shownName.c_str());
    const auto found = definition_.methods.find(name);
    if (found == definition_.methods.end()) {
        SendFault(response, std::string("Cannot find dispatch method for {") +
                                definition_.namespaceUri + "}" + name);
        ZEL_ERROR("ZEL soap method '%s' not found", shownName.c_str());
        return kNotDone;
    }
    const int result = found->second(method, request, response, *this);
    if (result == kFaulted) {
        return kNotDone;
    }
    response.body = EnvelopeHead() + response.body + kEnvelopeTail;
    return result;
}

bool ZelWsdlServlet::CheckEnvelope(xmlDoc* document, HttpResponse& response) const {
    if (document == nullptr) {
        SendFault(response, "Can't create xml document from request");
        return false;
    }
    std::string errors;
    if (!SoapEnvelopeSchema().ValidateDocument(document, errors)) {
        SendFault(response, errors);
        return false;
    }
    return true;
}

bool ZelWsdlServlet::CheckMethod(xmlNode* method, HttpResponse& response) const {
    if (method->children == nullptr) {
        return true;  // also without the schemas, which are not loaded for it
    }
    std::string errors;
    if (SchemasOf(GetName()).Accept(method, errors)) {
        return true;
    }
    SendFault(response, errors);
    return false;
}
