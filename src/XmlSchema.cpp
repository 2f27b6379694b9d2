#include "XmlSchema.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

#include "Console.h"

void LatestMessages::Add(std::string_view message) {
    text_.reserve(text_.size() + message.size());
    sizes_.push_back(message.size());
    text_ += message;
    if (text_.size() > 2 * kMaxText) {
        DropOldest();
    }
}

void LatestMessages::Add(const LatestMessages& others) {
    std::string_view rest = others.text_;
    for (const std::size_t size : others.sizes_) {
        Add(rest.substr(0, size));
        rest.remove_prefix(size);
    }
    DropOldest();
}

const std::string& LatestMessages::Text() {
    DropOldest();
    return text_;
}

void LatestMessages::DropOldest() {
    std::size_t dropped = 0;
    auto kept = sizes_.begin();
    while (text_.size() - dropped > kMaxText) {
        dropped += *kept++;
    }
    text_.erase(0, dropped);
    sizes_.erase(sizes_.begin(), kept);
}

/// Also where it has failed before: it may have been for want of memory or of a descriptor.
bool XmlSchema::Load(Findings& findings) {
    if (schema_) {
        return true;
    }
    const std::unique_ptr<xmlSchemaParserCtxt, Free> parser(xmlSchemaNewParserCtxt(path_.c_str()));
    if (parser) {
        xmlSchemaSetParserErrors(parser.get(), AddMessage, AddMessage, &findings);
        schema_.reset(xmlSchemaParse(parser.get()));
    }
    return schema_ != nullptr;
}

template <typename Validate>
bool XmlSchema::RunValidation(Validate validate, std::string& errors) {
    Findings findings;
    bool isLoaded = false;
    bool isValid = false;
    {
        const std::lock_guard lock(mutex_);
        isLoaded = Load(findings);
    }
    if (isLoaded) {
        // A context of its own for each: it keeps what it has seen of the documents.
        const std::unique_ptr<xmlSchemaValidCtxt, Free> context(
            xmlSchemaNewValidCtxt(schema_.get()));
        if (context) {
            xmlSchemaSetValidErrors(context.get(), AddMessage, AddMessage, &findings);
            isValid = validate(context.get()) == 0;
        }
    }
    const std::string& printed = findings.printed.Text();
    if (!isValid || !printed.empty()) {
        const std::lock_guard lock(mutex_);
        messages_.Add(findings.collected);
        errors = isValid ? "" : messages_.Text();
    }
    if (!printed.empty()) {
        Console::PrintError(printed);
    }
    return isValid;
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

void XmlSchema::AddMessage(void* findings, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* formatted = nullptr;
    const int length = vasprintf(&formatted, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return;
    }
    const std::unique_ptr<char, decltype(&std::free)> owned(formatted, std::free);
    const std::string_view message(formatted, static_cast<std::size_t>(length));
    try {
        auto& found = *static_cast<Findings*>(findings);
        found.printed.Add(message.substr(0, kMaxMessage));
        if (message.size() < kMaxMessage) {
            found.collected.Add(message);
        }
    } catch (const std::bad_alloc&) {
        // The caller is a function of C: what is not valid stays so without the message.
    }
}
