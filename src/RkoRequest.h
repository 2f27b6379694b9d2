#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "HttpMessage.h"

/// A request of the WDDX service: the function's name and the packet that goes with it.
struct RkoRequest {
    std::string function;
    std::string_view packet;  ///< part of the request's body; empty when there is none

    /// Takes a request apart. Of a GET request the function is what stands behind
    /// "?FunctionName=" in the URL and the packet the body. Of a POST request the body is a form
    /// (RFC 7578): the function is the field "FunctionName", or the first one, within the first
    /// 4096 bytes; the packet is the first of the others. No value when there is no function.
    /// "GET /rKo?FunctionName=rkoGetVersion" asks for rkoGetVersion, without a packet.
    [[nodiscard]] static std::optional<RkoRequest> Read(const HttpRequest& request);
};
