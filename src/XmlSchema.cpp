#include "XmlSchema.h"

#include <libxml/parser.h>
#include <libxml/xmlIO.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace {

// Messages are cut here when they are printed; one that reaches the size is not collected.
constexpr std::size_t kMessageSize = 32769;

thread_local bool loadingSchema = false;
xmlExternalEntityLoader libraryLoader = nullptr;

// A received document may name further schemas, and the library would fetch and remember them.
// Only the agent's own schemas, and what those include, are loaded.
xmlParserInput* LoadOnlySchemas(const char* url, const char* id, xmlParserCtxt* context) {
    return loadingSchema ? libraryLoader(url, id, context) : nullptr;
}

class SchemaLoading {
public:
    SchemaLoading() {
        static const bool installed = [] {
            libraryLoader = xmlGetExternalEntityLoader();
            xmlSetExternalEntityLoader(LoadOnlySchemas);
            return true;
        }();
        loadingSchema = installed;
    }
    ~SchemaLoading() { loadingSchema = false; }
    SchemaLoading(const SchemaLoading&) = delete;
    SchemaLoading& operator=(const SchemaLoading&) = delete;
};

}  // namespace

XmlSchema::XmlSchema(const std::string& path) {
    xmlInitParser();
    const std::lock_guard lock(mutex_);
    const SchemaLoading loading;
    parserContext_.reset(xmlSchemaNewParserCtxt(path.c_str()));
    if (!parserContext_) {
        return;
    }
    xmlSchemaSetParserErrors(parserContext_.get(), CollectMessage, CollectMessage, this);
    schema_.reset(xmlSchemaParse(parserContext_.get()));
    if (!schema_) {
        return;
    }
    validationContext_.reset(xmlSchemaNewValidCtxt(schema_.get()));
    if (validationContext_) {
        xmlSchemaSetValidErrors(validationContext_.get(), CollectMessage, CollectMessage, this);
    }
}

template <typename Validate>
bool XmlSchema::RunValidation(Validate validate, std::string& errors) {
    const std::lock_guard lock(mutex_);
    if (validationContext_ && validate(validationContext_.get()) == 0) {
        return true;
    }
    errors = errorText_;
    return false;
}

bool XmlSchema::ValidateDocument(xmlDoc* document, std::string& errors) {
    return RunValidation(
        [document](xmlSchemaValidCtxt* context) { return xmlSchemaValidateDoc(context, document); },
        errors);
}

bool XmlSchema::ValidateElement(xmlNode* element, std::string& errors) {
    return RunValidation(
        [element](xmlSchemaValidCtxt* context) {
            return xmlSchemaValidateOneElement(context, element);
        },
        errors);
}

void XmlSchema::CollectMessage(void* schema, const char* format, ...) {
    std::vector<char> message(kMessageSize);
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "%s", message.data());
    if (schema == nullptr || length < 0 || static_cast<std::size_t>(length) >= kMessageSize - 1) {
        return;
    }
    std::string& text = static_cast<XmlSchema*>(schema)->errorText_;
    if (text.size() + static_cast<std::size_t>(length) <= kMaxErrorText) {
        text.append(message.data(), static_cast<std::size_t>(length));
    }
}
