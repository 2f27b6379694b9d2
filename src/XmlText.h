#pragma once

#include <libxml/tree.h>

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
    kNameOnly  ///< name and DTD (which is not read), but no declarations of its own
};

/// Parses `text` up to its first zero byte. Nothing but the text itself is read: no DTD, no
/// external entity, nothing from the network. Null when it is not well-formed or says more of its
/// document type than it may.
Document Parse(const std::string& text, DocumentType type = DocumentType::kRefused);

/// First child element of `parent` with that local name, or null. `parent` may be null.
xmlNode* FindChild(const xmlNode* parent, std::string_view localName);

/// Text of the first child element with that local name; empty when there is none.
std::string ChildText(const xmlNode* parent, std::string_view localName);

/// All text below `node`, which may be null.
std::string Content(const xmlNode* node);

/// Value of the attribute without namespace; empty when there is none.
std::string Attribute(const xmlNode* node, const char* name);

std::string_view LocalName(const xmlNode* node);

/// `text` as it may stand in element content or in a quoted attribute. What no XML document may
/// hold (control characters, broken UTF-8, U+FFFE and U+FFFF) becomes question marks.
std::string Escape(std::string_view text);

}  // namespace XmlText
