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
constexpr char kAttributes[] = "attributes";

/// Where the text of an element goes; null: nowhere.
using Place = Answer::Text Answer::*;
using Places = std::map<std::string_view, Place>;

/// The elements that hold others, with those of them that the box reads.
const std::map<std::string_view, Places>& Known() {
    using A = Answer;
    static const std::map<std::string_view, Places> known = {
        {"preSignInTavoResponse", {{kReturn, nullptr}}},
        {kReturn,
         {{"device", nullptr},
          {"color", &A::color},
          {"countryCode", &A::countryCode},
          {"infrastructureConfig", nullptr},
          {"date", &A::date},
          {"updateConfigurationExt", &A::update}}},
        {"device", {{"hostname", &A::hostName}}},
        {"infrastructureConfig",
         {{"band", &A::band},
          {"channel", &A::channel},
          {"securityLevel", &A::securityLevel},
          {"ssid", &A::ssid},
          {"credentials", &A::credentials},
          {"cacertificate", &A::caCertificate},
          {"clientcertificate", &A::clientCertificate},
          {"keypass", &A::keyPass}}},
        {"date",
         {{"minute", &A::minute},
          {"hour", &A::hour},
          {"day", &A::day},
          {"month", &A::month},
          {"year", &A::year}}},
        {"updateConfigurationExt",
         {{"updateSoftware", &A::updateSoftware},
          {"updateType", &A::updateType},
          {"updateLocation", nullptr},
          {kAttributes, nullptr},
          {"appVersion", &A::appVersion},
          {"firmwareVersion", &A::firmwareVersion}}},
        {"updateLocation",
         {{"protocol", &A::protocol},
          {"ip", &A::ip},
          {"port", &A::port},
          {"context", &A::context},
          {kAttributes, nullptr}}},
        {kAttributes, {{"item", nullptr}}},
        {"item", {{"key", nullptr}, {"value", nullptr}}},
    };
    return known;
}

void Drop(xmlNode* element) {
    xmlUnlinkNode(element);
    xmlFreeNode(element);
}

/// The namespaces of the manager's beans begin with that of its service.
bool IsForeign(const xmlNode* element) {
    const std::string_view service = Namespaces::kSignInService;
    return element->ns != nullptr &&
           !std::string_view(reinterpret_cast<const char*>(element->ns->href)).starts_with(service);
}

/// Takes away what tells the box nothing.
void DropForeignAndNil(xmlNode* parent) {
    for (xmlNode* child : XmlText::Children(parent)) {
        if (IsForeign(child) || (XmlText::IsNil(child) && XmlText::LocalName(child) != kReturn)) {
            Drop(child);
        } else {
            DropForeignAndNil(child);
        }
    }
}

/// The first element of that name below `root`, in document order, at any depth.
const xmlNode* FindBelow(const xmlNode* root, std::string_view name) {
    const xmlNode* element = root;
    do {
        element = XmlText::Next(root, element);
    } while (element != nullptr && XmlText::LocalName(element) != name);
    return element;
}

/// Value of the item with that key.
std::string Attribute(const xmlNode* attributes, std::string_view key) {
    for (const xmlNode* item : XmlText::Children(attributes)) {
        if (XmlText::ChildText(item, "key") == key) {
            return XmlText::ChildText(item, "value");
        }
    }
    return "";
}

/// Takes the text of an element, or takes away what the box does not read of those that it holds
/// and takes theirs. `answer` is null for all that is not the first of its name in its place.
void Take(xmlNode* element, Place place, Answer* answer) {
    xmlFreePropList(element->properties);
    element->properties = nullptr;
    const auto known = Known().find(XmlText::LocalName(element));
    const bool holdsOthers = known != Known().end();
    if (answer != nullptr && place != nullptr) {
        answer->*place = holdsOthers ? "" : XmlText::Content(element);
    }
    std::set<std::string_view> met;
    for (xmlNode* child : XmlText::Children(holdsOthers ? element : nullptr)) {
        const auto next = known->second.find(XmlText::LocalName(child));
        if (next == known->second.end()) {
            Drop(child);
        } else {
            child->ns = nullptr;
            Take(child, next->second, met.insert(next->first).second ? answer : nullptr);
        }
    }
}

}  // namespace

Answer Read(xmlNode* response) {
    Answer answer;
    if (response != nullptr) {
        DropForeignAndNil(response);
        const xmlNode* attributes = FindBelow(XmlText::FindChild(response, kReturn), kAttributes);
        answer.digest = Attribute(attributes, "MD5CHKSM");
        answer.fileName = Attribute(attributes, "FILENAME");
        Take(response, nullptr, &answer);
    }
    return answer;
}

bool IsLine(std::string_view value, std::size_t maxLength) {
    return value.size() <= maxLength && std::none_of(value.begin(), value.end(), [](char c) {
               return Characters::IsControl(c);
           });
}

}  // namespace ManagerElements
