#pragma once

#include <libxml/tree.h>
#include <libxml/xmlschemas.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "HeldMutex.h"

/// The newest of a sequence of messages: where they would be longer than the limit, the oldest go.
class LatestMessages {
public:
    /// Most bytes of all messages.
    static constexpr std::size_t kMaxText = std::size_t{64} * 1024;

    void Add(std::string_view message);
    /// Adds the messages of `others`, in their order.
    void Add(const LatestMessages& others);
    /// All that is kept, message by message.
    const std::string& Text();

private:
    void DropOldest();

    std::string text_;  // in one piece: many small ones would lie between the nodes of a document
    std::vector<std::size_t> sizes_;
};

/// One W3C XML Schema with the newest of the messages that loading it and validating against it
/// have produced. Thread-safe; validations do not wait for each other.
class XmlSchema {
public:
    /// A message of so many bytes is not collected, and cut when it is printed.
    static constexpr std::size_t kMaxMessage = 32 * 1024;

    /// The schema file is loaded by the first validation. Validations with a missing or broken file
    /// fail, until it can be loaded.
    explicit XmlSchema(std::string path) : path_(std::move(path)) {}
    XmlSchema(const XmlSchema&) = delete;
    XmlSchema& operator=(const XmlSchema&) = delete;
    virtual ~XmlSchema() = default;

    /// True when the document is valid. Otherwise `errors` is the whole collected text, at most
    /// LatestMessages::kMaxText, which is never cleared: it repeats what earlier validations found.
    [[nodiscard]] bool ValidateDocument(xmlDoc* document, std::string& errors);

    /// The same for one element and what is below it.
    [[nodiscard]] bool ValidateElement(xmlNode* element, std::string& errors);

private:
    /// What one loading or validation has to say: to standard error, and for the collected text.
    struct Findings {
        LatestMessages printed;
        LatestMessages collected;
    };
    static void AddMessage(void* findings, const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    template <typename Validate>
    [[nodiscard]] bool RunValidation(Validate validate, std::string& errors);
    [[nodiscard]] bool Load(Findings& findings);

    struct Free {
        void operator()(xmlSchemaParserCtxt* p) const { xmlSchemaFreeParserCtxt(p); }
        void operator()(xmlSchemaValidCtxt* p) const { xmlSchemaFreeValidCtxt(p); }
        void operator()(::xmlSchema* p) const { xmlSchemaFree(p); }
    };

    const std::string path_;
    HeldMutex mutex_;
    std::unique_ptr<::xmlSchema, Free> schema_;  // only read, once it is loaded
    LatestMessages messages_;
};
