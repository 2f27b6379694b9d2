#include "XmlText.h"

#include <libxml/chvalid.h>
#include <libxml/parser.h>
#include <libxml/xmlstring.h>

#include <cstring>
#include <utility>

#include "Utf8.h"

namespace XmlText {
namespace {

constexpr char kDocumentName[] = "noname.xml";
constexpr char kUnprintable = '?';

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

}  // namespace

Document Parse(const std::string& text, DocumentType type) {
    const int length = static_cast<int>(std::strlen(text.c_str()));
    // What the library has to say of a stranger's text would go to the console as it came.
    constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
    Document document(xmlReadMemory(text.c_str(), length, kDocumentName, nullptr, kOptions));
    if (!document || document->intSubset == nullptr) {
        return document;
    }
    // A SOAP message may hold no document type declaration (SOAP 1.1, section 3): with its entities
    // a few bytes could stand for gigabytes of text.
    const bool isNameOnly = document->intSubset->children == nullptr;
    return type == DocumentType::kNameOnly && isNameOnly ? std::move(document) : nullptr;
}

std::string_view LocalName(const xmlNode* node) {
    return node->name == nullptr ? std::string_view() : ToChars(node->name);
}

xmlNode* FindChild(const xmlNode* parent, std::string_view localName) {
    xmlNode* child = parent == nullptr ? nullptr : parent->children;
    while (child != nullptr &&
           !(child->type == XML_ELEMENT_NODE && LocalName(child) == localName)) {
        child = child->next;
    }
    return child;
}

std::string Content(const xmlNode* node) {
    return TakeText(xmlNodeGetContent(node));
}

std::string Attribute(const xmlNode* node, const char* name) {
    return TakeText(xmlGetNoNsProp(node, reinterpret_cast<const xmlChar*>(name)));
}

std::string ChildText(const xmlNode* parent, std::string_view localName) {
    return Content(FindChild(parent, localName));
}

std::string Escape(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    while (!text.empty()) {
        const Utf8::Character character = Utf8::First(text);
        switch (text.front()) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\r':
                escaped += "&#13;";
                break;
            default:
                if (character.isValid && xmlIsCharQ(character.code)) {
                    escaped += text.substr(0, character.size);
                } else {
                    escaped += kUnprintable;
                }
        }
        text.remove_prefix(character.size);
    }
    return escaped;
}

}  // namespace XmlText
