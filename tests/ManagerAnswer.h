#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ManagerElements.h"
#include "XmlText.h"

/// What is read of a manager's answer whose preSignInTavoReturn holds `content`.
inline ManagerElements::Answer ReadAnswer(const std::string& content) {
    const XmlText::Document document =
        XmlText::Parse("<preSignInTavoResponse><preSignInTavoReturn>" + content +
                       "</preSignInTavoReturn></preSignInTavoResponse>");
    EXPECT_TRUE(document) << content;
    return ManagerElements::Read(xmlDocGetRootElement(document.get()));
}
