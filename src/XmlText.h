#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

/// Reading and writing of XML texts.
namespace XmlText {

struct FreeDocument {
    void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
using Document = std::unique_ptr<xmlDoc, FreeDocument>;

/// What a text may say of its document type.
enum class DocumentType {
    kRefused,  ///< nothing
    kNameOnly  ///< name and DTD (which is not read), but no subset of its own
};

// What a text may hold, besides the 257 levels of elements that the library allows: time or memory
// that the library takes would grow faster than the text.

/// Attributes and namespace declarations of one element.
inline constexpr int kMaxAttributesOfElement = 256;
/// Attributes and namespace declarations of all elements.
inline constexpr int kMaxAttributes = 65'536;
inline constexpr int kMaxElements = 10'000;
/// Namespace declarations in force at one place: every prefix is looked for among them.
inline constexpr int kMaxNamespacesInScope = 512;
/// Bytes of all names, each with its namespace, those of attributes with their element's: what a
/// validator may have to print.
inline constexpr std::size_t kMaxNameText = std::size_t{16} * 1024 * 1024;

/// Parses `text` up to its first zero byte. Nothing but the text itself is read: no DTD, no
/// external entity, nothing from the network. Null when it is not well-formed, holds more than it
/// may, or says more of its document type than it may. Behind two nodes that are no elements,
/// comments and processing instructions are left out, and CDATA sections are text. Attributes of
/// XML Schema (xsi:type and the like) and of the SOAP encoding are left out.
[[nodiscard]] Document Parse(std::string_view text, DocumentType type = DocumentType::kRefused);

/// True when the text says of the element that it has no value (XML Schema, part 1, section 2.6.2).
bool IsNil(const xmlNode* element);

std::string_view LocalName(const xmlNode* node);

/// The element that follows `element` in document order, below `root`, and that which follows it
/// and all that it holds; null at the end. To walk over what strangers send without a call for each
/// level of it: for (element = Next(root, root); element != nullptr; element = Next(root,
/// element)).
const xmlNode* Next(const xmlNode* root, const xmlNode* element);
const xmlNode* NextBehind(const xmlNode* root, const xmlNode* element);

/// The child elements of a node (which may be null), in their order; with a name, those with that
/// local name: for (const xmlNode* item : XmlText::Children(items, "item")). The one that is looked
/// at may be taken away. *Children(node) is the first, or null.
class Children {
public:
    explicit Children(const xmlNode* parent, std::string_view localName = {})
        : localName_(localName), next_(parent == nullptr ? nullptr : parent->children) {
        ++*this;
    }
    Children begin() const { return *this; }
    std::default_sentinel_t end() const { return {}; }
    xmlNode* operator*() const { return child_; }
    Children& operator++();
    bool operator==(std::default_sentinel_t /*end*/) const { return child_ == nullptr; }

private:
    std::string_view localName_;
    xmlNode* child_ = nullptr;
    xmlNode* next_;
};

/// First child element of `parent` with that local name, or null. `parent` may be null.
xmlNode* FindChild(const xmlNode* parent, std::string_view localName);

/// Text of the first child element with that local name; empty when there is none.
std::string ChildText(const xmlNode* parent, std::string_view localName);

/// All text below `node`, which may be null. Throws std::bad_alloc.
std::string Content(const xmlNode* node);

/// Value of the attribute without namespace; empty when there is none.
std::string Attribute(const xmlNode* node, const char* name);

/// Appends `text` as it may stand in element content or in a quoted attribute. What no XML document
/// may hold (control characters, broken UTF-8, U+FFFE and U+FFFF) becomes question marks.
void AppendEscaped(std::string& out, std::string_view text);

/// The same as a text of its own.
std::string Escape(std::string_view text);

}  // namespace XmlText
