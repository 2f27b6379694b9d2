#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "HttpMessage.h"

/// Publication of a service's description: WSDL and schema files that lie beside the request
/// schemas and are asked for with a query behind the service's own URL.
namespace ServiceDescription {

struct File {
    std::string_view query;  ///< what stands behind the "?"
    const char* name;
};
using Table = std::span<const File>;

/// The file that the request's query names, null when it names none. "/zel/services/x?xsd=2" asks
/// for the file whose query is "xsd=2".
[[nodiscard]] const File* Find(const Table& table, const HttpRequest& request);

/// The text of the file, every line ended by a line feed. No value when it cannot be opened.
[[nodiscard]] std::optional<std::string> Read(const File& file);

/// Replaces the first occurrence of `pattern`, if there is one.
void ReplaceFirst(std::string& text, std::string_view pattern, std::string_view replacement);

/// Has the endpoint's address name the host `host` in place of "localhost"; port and path stay.
void RewriteAddress(std::string& text, const std::string& host);

}  // namespace ServiceDescription
