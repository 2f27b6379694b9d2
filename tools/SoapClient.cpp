#include "SoapClient.h"

#include <libxml/xmlerror.h>

#include "Namespaces.h"
#include "Numbers.h"

namespace SoapClient {

std::string Element(const std::string& name, std::string_view text) {
    return "<" + name + ">" + XmlText::Escape(text) + "</" + name + ">";
}

Outcome Read(const std::string& body, const std::string& from, Answer& answer) {
    // The library would print what it does not understand, as it came.
    xmlSetStructuredErrorFunc(nullptr, [](void* /*context*/, xmlErrorPtr /*error*/) {});
    answer.document = XmlText::Parse(body);
    const xmlNode* root = answer.document ? xmlDocGetRootElement(answer.document.get()) : nullptr;
    answer.response = *XmlText::Children(XmlText::FindChild(root, "Body"));
    if (answer.response == nullptr) {
        return {ExitStatus::kNotUnderstood,
                from + " gives an answer that is no SOAP; is it a box?"};
    }
    if (XmlText::LocalName(answer.response) == "Fault") {
        answer.fault = XmlText::ChildText(answer.response, "faultstring");
        return {ExitStatus::kNotUnderstood,
                from + " answers with a fault" +
                    (answer.fault.empty() ? ", and does not say why" : ": " + answer.fault)};
    }
    return {};
}

Outcome Call(const BoxAddress& box, const std::string& path, const std::string& operation,
             std::chrono::milliseconds timeout, Answer& answer) {
    const std::string message = std::string("<S:Envelope xmlns:S=\"") +
                                Namespaces::kSoap11Envelope + "\"><S:Body>" + operation +
                                "</S:Body></S:Envelope>";
    std::string body;
    const Outcome outcome = HttpClient::Post(box, path, message, timeout, body);
    return outcome.Failed() ? outcome : Read(body, box.ToText(), answer);
}

std::optional<int> ErrorCode(const Answer& answer) {
    return Numbers::Parse<int>(
        XmlText::ChildText(XmlText::FindChild(answer.response, "out"), "error"));
}

}  // namespace SoapClient
