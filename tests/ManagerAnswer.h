#pragma once

#include <libxml/tree.h>

#include <string>

#include "XmlText.h"

/// The element preSignInTavoReturn of a manager's answer, holding `content`.
class ManagerAnswer {
public:
    explicit ManagerAnswer(const std::string& content)
        : document_(XmlText::Parse("<preSignInTavoReturn>" + content + "</preSignInTavoReturn>")) {}

    const xmlNode* Root() const { return xmlDocGetRootElement(document_.get()); }

private:
    XmlText::Document document_;
};
