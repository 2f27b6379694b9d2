#pragma once

#include <libxml/tree.h>
#include <libxml/xmlschemas.h>

#include <memory>
#include <string>

#include "HeldMutex.h"

/// One W3C XML Schema with every message that loading it and validating against it has produced.
/// Thread-safe: a validation and the reading of its messages are one critical section.
class XmlSchema {
public:
    /// The collected text stops growing here; further messages only go to standard error.
    static constexpr std::size_t kMaxErrorText = 1024 * 1024;

    /// Loads the schema file. A missing or broken file is no error here: every validation then
    /// fails.
    explicit XmlSchema(const std::string& path);
    XmlSchema(const XmlSchema&) = delete;
    XmlSchema& operator=(const XmlSchema&) = delete;
    virtual ~XmlSchema() = default;

    /// True when the document is valid. Otherwise `errors` is the whole collected text, which is
    /// never cleared: it repeats what earlier validations found.
    bool ValidateDocument(xmlDoc* document, std::string& errors);

    /// The same for one element and what is below it.
    bool ValidateElement(xmlNode* element, std::string& errors);

private:
    static void CollectMessage(void* schema, const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    template <typename Validate>
    bool RunValidation(Validate validate, std::string& errors);

    struct Free {
        void operator()(xmlSchemaParserCtxt* p) const { xmlSchemaFreeParserCtxt(p); }
        void operator()(xmlSchemaValidCtxt* p) const { xmlSchemaFreeValidCtxt(p); }
        void operator()(::xmlSchema* p) const { xmlSchemaFree(p); }
    };

    HeldMutex mutex_;
    // Destroyed in reverse order: the contexts refer to what stands above them.
    std::unique_ptr<xmlSchemaParserCtxt, Free> parserContext_;
    std::unique_ptr<::xmlSchema, Free> schema_;
    std::unique_ptr<xmlSchemaValidCtxt, Free> validationContext_;
    std::string errorText_;
};
