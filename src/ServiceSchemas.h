#pragma once

#include <libxml/tree.h>

#include <string>

#include "XmlSchema.h"

/// Schema of the SOAP 1.1 envelope, loaded at the first use.
XmlSchema& SoapEnvelopeSchema();

/// The two schemas that the operations of one service are checked against: the first for element
/// names without a namespace, the second for those with the service's. Thread-safe.
class ServiceSchemas {
public:
    /// Directory of the schema files.
    static constexpr char kDirectory[] = "/app/zel/protocols/";

    /// Loads `name`.xsd and `name`2.xsd.
    explicit ServiceSchemas(const std::string& name);

    /// True when either schema accepts the operation element. The form it is written in decides
    /// which is asked first. Otherwise `errors` is what both have to say.
    [[nodiscard]] bool Accept(xmlNode* operation, std::string& errors);

private:
    XmlSchema unqualified_;
    XmlSchema qualified_;
};
