#include "ManagerElements.h"

#include <algorithm>
#include <map>
#include <set>

#include "Characters.h"
#include "Namespaces.h"
#include "XmlText.h"

namespace ManagerElements {
namespace {

constexpr char kReturn[] = "preSignInTavoReturn";

/// Calls `isDropped` with the child elements, and frees those for which it is true.
template <typename Predicate>
void DropChildren(xmlNode* parent, Predicate isDropped) {
    for (xmlNode* child = parent->children; child != nullptr;) {
        xmlNode* next = child->next;
        if (child->type == XML_ELEMENT_NODE && isDropped(child)) {
            xmlUnlinkNode(child);
            xmlFreeNode(child);
        }
        child = next;
    }
}

/// The namespaces of the manager's beans begin with that of its service.
bool IsForeign(const xmlNode* element) {
    const std::string_view service = Namespaces::kSignInService;
    return element->ns != nullptr &&
           !std::string_view(reinterpret_cast<const char*>(element->ns->href)).starts_with(service);
}

using Names = std::set<std::string_view>;

/// The elements that hold others, with those of them that the box reads.
const std::map<std::string_view, Names>& Known() {
    static const std::map<std::string_view, Names> known = {
        {"preSignInTavoResponse", {kReturn}},
        {kReturn,
         {"device", "color", "countryCode", "infrastructureConfig", "date",
          "updateConfigurationExt"}},
        {"device", {"hostname"}},
        {"infrastructureConfig",
         {"band", "channel", "securityLevel", "ssid", "credentials", "cacertificate",
          "clientcertificate", "keypass"}},
        {"date", {"minute", "hour", "day", "month", "year"}},
        {"updateConfigurationExt",
         {"updateSoftware", "updateType", "updateLocation", "attributes", "appVersion",
          "firmwareVersion"}},
        {"updateLocation", {"protocol", "ip", "port", "context", "attributes"}},
        {"attributes", {"item"}},
        {"item", {"key", "value"}},
    };
    return known;
}

}  // namespace

void DropForeignAndNil(xmlNode* answer) {
    if (answer == nullptr) {
        return;
    }
    DropChildren(answer, [](xmlNode* child) {
        if (IsForeign(child) || (XmlText::IsNil(child) && XmlText::LocalName(child) != kReturn)) {
            return true;
        }
        DropForeignAndNil(child);
        return false;
    });
}

void DropUnknown(xmlNode* answer) {
    if (answer == nullptr) {
        return;
    }
    xmlFreePropList(answer->properties);
    answer->properties = nullptr;
    const auto known = Known().find(XmlText::LocalName(answer));
    if (known == Known().end()) {
        return;  // it holds a text
    }
    DropChildren(answer, [&names = known->second](xmlNode* child) {
        if (IsForeign(child) || names.count(XmlText::LocalName(child)) == 0) {
            return true;
        }
        child->ns = nullptr;
        DropUnknown(child);
        return false;
    });
}

bool IsLine(std::string_view value, std::size_t maxLength) {
    return value.size() <= maxLength && std::none_of(value.begin(), value.end(), [](char c) {
               return Characters::IsControl(c);
           });
}

}  // namespace ManagerElements
