#include "ServiceSchemas.h"

#include "XmlText.h"

namespace {

bool UsesNamespaces(const xmlNode* operation) {
    for (const xmlNode* child : XmlText::Children(operation)) {
        if (child->ns != nullptr) {
            return true;
        }
    }
    return operation->ns != nullptr;
}

}  // namespace

XmlSchema& SoapEnvelopeSchema() {
    static XmlSchema schema(std::string(ServiceSchemas::kDirectory) + "soap_envelope.xsd");
    return schema;
}

ServiceSchemas::ServiceSchemas(const std::string& name)
    : unqualified_(kDirectory + name + ".xsd"), qualified_(kDirectory + name + "2.xsd") {}

bool ServiceSchemas::Accept(xmlNode* operation, std::string& errors) {
    const bool qualifiedFirst = UsesNamespaces(operation);
    XmlSchema& first = qualifiedFirst ? qualified_ : unqualified_;
    XmlSchema& second = qualifiedFirst ? unqualified_ : qualified_;
    std::string firstErrors;
    std::string secondErrors;
    if (first.ValidateElement(operation, firstErrors) ||
        second.ValidateElement(operation, secondErrors)) {
        return true;
    }
    // The schemas are named in their own order, whichever was tried first.
    errors = "Validation 1 says:\n" + (qualifiedFirst ? secondErrors : firstErrors) +
             "\nValidation 2 says:\n" + (qualifiedFirst ? firstErrors : secondErrors);
    return false;
}
