#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "HttpClient.h"
#include "XmlText.h"

/// Calls of a box's SOAP 1.1 services.
namespace SoapClient {

inline constexpr char kConnector[] = "/zel/services/ConnectorService";
inline constexpr char kAgent[] = "/services/Agent";

struct Answer {
    XmlText::Document document;
    /// The operation's response element, of the document.
    const xmlNode* response = nullptr;
    /// Text of the fault that it is instead; empty when it is none.
    std::string fault;
};

/// The element `name` with `text`, which is escaped.
std::string Element(const std::string& name, std::string_view text);

/// Sends `operation`, an element. A fault is a failure, and its text the outcome's.
Outcome Call(const BoxAddress& box, const std::string& path, const std::string& operation,
             std::chrono::milliseconds timeout, Answer& answer);

/// Judges the body of an answer; `from` names its sender.
Outcome Read(const std::string& body, const std::string& from, Answer& answer);

/// The number in the element `error` of the connector's answer.
std::optional<int> ErrorCode(const Answer& answer);

}  // namespace SoapClient
