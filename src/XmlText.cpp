#include "XmlText.h"

#include <libxml/SAX2.h>
#include <libxml/chvalid.h>
#include <libxml/parser.h>
#include <libxml/xmlstring.h>

#include <array>
#include <cstddef>
#include <mutex>
#include <new>
#include <utility>

#include "HeldMutex.h"
#include "Namespaces.h"
#include "Utf8.h"

namespace XmlText {
namespace {

constexpr char kUnprintable = '?';
char nilMark = 0;  // what the private data of a nil element points to

const char* ToChars(const xmlChar* text) {
    return reinterpret_cast<const char*>(text);
}

/// Copies and frees a text of the library, which may be null.
std::string TakeText(xmlChar* text) {
    struct FreeText {
        void operator()(xmlChar* owned) const { xmlFree(owned); }
    };
    const std::unique_ptr<xmlChar, FreeText> owned(text);
    return owned ? ToChars(owned.get()) : "";
}

/// Most of what is written: ASCII that is neither control character nor markup. A table, since it
/// is asked for each byte.
constexpr auto kStandsForItself = [] {
    std::array<bool, 256> table{};
    for (std::size_t code = ' '; code < 0x80; ++code) {
        table[code] = code != '&' && code != '<' && code != '>' && code != '"';
    }
    return table;
}();

/// How many bytes at the beginning stand for themselves.
std::size_t PlainSize(std::string_view text) {
    std::size_t size = 0;
    while (size < text.size() && kStandsForItself[static_cast<unsigned char>(text[size])]) {
        ++size;
    }
    return size;
}

struct FreeParser {
    void operator()(xmlParserCtxt* parser) const { xmlFreeParserCtxt(parser); }
};
using Parser = std::unique_ptr<xmlParserCtxt, FreeParser>;

// What clients usually send. Nobody can make the box keep much with it.
constexpr std::size_t kSmallText = std::size_t{4} * 1024;

/// Parsers that have read a small text and may read others. To make one costs as much as such a
/// text, and takes a lock of the library that is the same for all threads.
class Parsers {
public:
    static constexpr std::size_t kMaxKept = 8;
    /// Bytes that one has taken for the names that it has read: the first piece only, since a table
    /// of many short names takes more than they do.
    static constexpr std::size_t kMaxNames = std::size_t{4} * 1024;

    Parser Take() {
        {
            const std::lock_guard lock(mutex_);
            if (count_ > 0) {
                return std::move(kept_[--count_]);
            }
        }
        return Parser(xmlNewParserCtxt());
    }

    void GiveBack(Parser parser) {
        if (xmlDictGetUsage(parser->dict) > kMaxNames) {
            return;
        }
        const std::lock_guard lock(mutex_);
        if (count_ < kept_.size()) {
            kept_[count_++] = std::move(parser);
        }
    }

private:
    HeldMutex mutex_;
    std::array<Parser, kMaxKept> kept_;
    std::size_t count_ = 0;
};

Parsers& AllParsers() {
    // Connections may outlive what the process destroys at its end.
    static auto& all = *new Parsers;
    return all;
}

bool IsSame(const xmlChar* text, const char* other) {
    return xmlStrEqual(text, reinterpret_cast<const xmlChar*>(other)) != 0;
}

/// With these toolkits tell how they write a value. No validator here knows the types that they
/// name, nor should one fetch their schemas.
bool TellsType(const xmlAttr* attribute) {
    return attribute->ns != nullptr &&
           (IsSame(attribute->ns->href, Namespaces::kXmlSchemaInstance) ||
            (IsSame(attribute->ns->href, Namespaces::kSoap11Envelope) &&
             IsSame(attribute->name, "encodingStyle")));
}

bool TellsNil(const xmlAttr* attribute) {
    const xmlChar* value = attribute->children == nullptr ? nullptr : attribute->children->content;
    return IsSame(attribute->name, "nil") && (IsSame(value, "true") || IsSame(value, "1"));
}

void DropTypes(xmlNode* element) {
    for (xmlAttr* attribute = element->properties; attribute != nullptr;) {
        xmlAttr* next = attribute->next;
        if (TellsType(attribute)) {
            element->_private = TellsNil(attribute) ? &nilMark : element->_private;
            xmlRemoveProp(attribute);
        }
        attribute = next;
    }
}

void Ignore(void* /*context*/, const char* /*format*/, ...) {}

std::size_t NameSize(const xmlChar* name, const xmlChar* uri) {
    return static_cast<std::size_t>(xmlStrlen(name)) + static_cast<std::size_t>(xmlStrlen(uri));
}

/// One text on its way through the library's parser, which fetches it piece by piece and tells what
/// it finds. Nothing here throws or allocates: the callers are functions of C.
class Reading {
public:
    Reading(std::string_view text, DocumentType type)
        : rest_(text),
          isSmall_(text.size() <= kSmallText),
          type_(type),
          parser_(isSmall_ ? AllParsers().Take() : Parser(xmlNewParserCtxt())) {}
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    Document Run() {
        if (!parser_) {
            return nullptr;
        }
        parser_->_private = this;
        parser_->sax->internalSubset = TakeDocumentType;
        parser_->sax->startElementNs = TakeElement;
        parser_->sax->comment = TakeComment;
        parser_->sax->processingInstruction = TakeInstruction;
        parser_->sax->cdataBlock = TakeSection;
        // What the library has to say of a stranger's text would go to the console as it came; what
        // it says of a broken encoding heeds the options not.
        xmlSetGenericErrorFunc(nullptr, Ignore);
        constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
        // The few names of a small text stay without the library's lock when they are its own.
        const int options = kOptions | (isSmall_ ? XML_PARSE_NODICT : 0);
        // The document gets no name: with one, every message of a validator looks through all the
        // nodes before its own.
        Document document(
            xmlCtxtReadIO(parser_.get(), GivePiece, nullptr, this, nullptr, nullptr, options));
        // Where memory was lacking, the library stops and returns what it has.
        if (!document || refused_ || parser_->disableSAX != 0) {
            return nullptr;
        }
        if (isSmall_) {
            AllParsers().GiveBack(std::move(parser_));
        }
        return document;
    }

private:
    static Reading& Of(void* parser) {
        return *static_cast<Reading*>(static_cast<xmlParserCtxt*>(parser)->_private);
    }

    /// The parser compares each attribute of a start tag with all before it, and each declaration,
    /// before it tells of the element; how many they are shows in its tables. It also reads on to
    /// the end when it has found an error. So a text that is refused anyway ends early for it.
    bool IsLost() const {
        // Five entries an attribute, and the table has up to twice the size that is needed.
        constexpr int kMaxTable = 2 * 5 * (kMaxAttributesOfElement + 2);
        return refused_ || parser_->wellFormed == 0 || parser_->maxatts > kMaxTable ||
               HasTooManyNamespaces();
    }

    bool HasTooManyNamespaces() const {
        return parser_->nsNr > 2 * kMaxNamespacesInScope;  // prefix and name of each
    }

    static int GivePiece(void* reading, char* buffer, int size) {
        auto& self = *static_cast<Reading*>(reading);
        self.refused_ = self.refused_ || self.IsLost();
        if (self.refused_) {
            return 0;
        }
        const std::size_t count = self.rest_.copy(buffer, static_cast<std::size_t>(size));
        self.rest_.remove_prefix(count);
        return static_cast<int>(count);
    }

    void Refuse() {
        refused_ = true;
        xmlStopParser(parser_.get());
    }

    static void TakeDocumentType(void* parser, const xmlChar* name, const xmlChar* externalId,
                                 const xmlChar* systemId) {
        Reading& self = Of(parser);
        xmlSAX2InternalSubset(parser, name, externalId, systemId);
        // A SOAP message may hold no document type declaration (SOAP 1.1, section 3): with its
        // entities a few bytes could stand for gigabytes of text.
        if (self.type_ == DocumentType::kRefused || *self.parser_->input->cur == '[') {
            self.Refuse();
        }
    }

    static void TakeElement(void* parser, const xmlChar* name, const xmlChar* prefix,
                            const xmlChar* uri, int declarations, const xmlChar** declared,
                            int attributes, int defaulted, const xmlChar** values) {
        Reading& self = Of(parser);
        xmlSAX2StartElementNs(parser, name, prefix, uri, declarations, declared, attributes,
                              defaulted, values);
        self.elements_ += 1;
        self.attributes_ += attributes + declarations;
        self.nameText_ += NameSize(name, uri) * (1 + static_cast<std::size_t>(attributes));
        for (int i = 0; i < attributes && self.nameText_ <= kMaxNameText; ++i) {
            constexpr int kFields = 5;  // name, prefix, namespace, and where the value is
            const xmlChar** attribute = values + static_cast<std::ptrdiff_t>(i) * kFields;
            self.nameText_ += NameSize(attribute[0], attribute[2]);
        }
        if (attributes + declarations > kMaxAttributesOfElement || self.elements_ > kMaxElements ||
            self.attributes_ > kMaxAttributes || self.nameText_ > kMaxNameText ||
            self.HasTooManyNamespaces()) {
            self.Refuse();
        } else if (attributes > 0 && self.parser_->node != nullptr) {
            DropTypes(self.parser_->node);
        }
    }

    /// True behind two nodes that are no elements. What else stands there says nothing more to who
    /// looks for elements, and text that it would part stays in one piece.
    bool IsAmongOthers() const {
        const xmlNode* parent = parser_->node;
        if (parent == nullptr) {
            parent = reinterpret_cast<const xmlNode*>(parser_->myDoc);
        }
        const xmlNode* last = parent == nullptr ? nullptr : parent->last;
        return last != nullptr && last->type != XML_ELEMENT_NODE && last->prev != nullptr &&
               last->prev->type != XML_ELEMENT_NODE;
    }

    static void TakeComment(void* parser, const xmlChar* text) {
        if (!Of(parser).IsAmongOthers()) {
            xmlSAX2Comment(parser, text);
        }
    }

    static void TakeSection(void* parser, const xmlChar* text, int size) {
        (Of(parser).IsAmongOthers() ? xmlSAX2Characters : xmlSAX2CDataBlock)(parser, text, size);
    }

    static void TakeInstruction(void* parser, const xmlChar* target, const xmlChar* data) {
        if (!Of(parser).IsAmongOthers()) {
            xmlSAX2ProcessingInstruction(parser, target, data);
        }
    }

    std::string_view rest_;
    const bool isSmall_;
    DocumentType type_;
    Parser parser_;
    bool refused_ = false;
    int elements_ = 0;
    int attributes_ = 0;
    std::size_t nameText_ = 0;
};

}  // namespace

Document Parse(std::string_view text, DocumentType type) {
    // Where threads come at once for the first time, the library's own initialization races.
    static const bool initialized = (xmlInitParser(), true);
    static_cast<void>(initialized);
    return Reading(text.substr(0, text.find('\0')), type).Run();
}

std::string_view LocalName(const xmlNode* node) {
    return node->name == nullptr ? std::string_view() : ToChars(node->name);
}

bool IsNil(const xmlNode* element) {
    return element->_private == &nilMark;
}

const xmlNode* Next(const xmlNode* root, const xmlNode* element) {
    const xmlNode* const child = *Children(element);
    return child != nullptr ? child : NextBehind(root, element);
}

const xmlNode* NextBehind(const xmlNode* root, const xmlNode* element) {
    for (; element != root; element = element->parent) {
        for (const xmlNode* next = element->next; next != nullptr; next = next->next) {
            if (next->type == XML_ELEMENT_NODE) {
                return next;
            }
        }
    }
    return nullptr;
}

Children& Children::operator++() {
    child_ = next_;
    while (child_ != nullptr && (child_->type != XML_ELEMENT_NODE ||
                                 (!localName_.empty() && LocalName(child_) != localName_))) {
        child_ = child_->next;
    }
    next_ = child_ == nullptr ? nullptr : child_->next;
    return *this;
}

xmlNode* FindChild(const xmlNode* parent, std::string_view localName) {
    return *Children(parent, localName);
}

std::string Content(const xmlNode* node) {
    xmlChar* content = xmlNodeGetContent(node);
    if (node != nullptr && content == nullptr) {
        throw std::bad_alloc();
    }
    return TakeText(content);
}

std::string Attribute(const xmlNode* node, const char* name) {
    return TakeText(xmlGetNoNsProp(node, reinterpret_cast<const xmlChar*>(name)));
}

std::string ChildText(const xmlNode* parent, std::string_view localName) {
    return Content(FindChild(parent, localName));
}

void AppendEscaped(std::string& out, std::string_view text) {
    while (!text.empty()) {
        const std::size_t plain = PlainSize(text);
        out.append(text, 0, plain);
        text.remove_prefix(plain);
        if (text.empty()) {
            return;
        }
        const Utf8::Character character = Utf8::First(text);
        switch (text.front()) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\r':
                out += "&#13;";
                break;
            default:
                if (character.isValid && xmlIsCharQ(character.code)) {
                    out += text.substr(0, character.size);
                } else {
                    out += kUnprintable;
                }
        }
        text.remove_prefix(character.size);
    }
}

std::string Escape(std::string_view text) {
    std::string escaped;
    AppendEscaped(escaped, text);
    return escaped;
}

}  // namespace XmlText
