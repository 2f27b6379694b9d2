#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Box.h"
#include "HttpClient.h"
#include "Options.h"
#include "Outcome.h"

/// How a person names a box: an address or host name, with or without ":port"; a serial number or
/// device id; or not at all, when there is only one.
namespace BoxName {

struct Parts {
    std::string host;
    std::optional<std::uint16_t> port;
};

/// Cuts off a port. Nothing when what stands behind the colon is none, or nothing before it.
std::optional<Parts> Split(const std::string& name);

/// Searches the network where the name is no address. Fails with the choice when there is one: also
/// boxes with one serial number are several.
/// Where no name was given and `isPreferred` is true of a box, the others do not count.
Outcome Resolve(const Options& options, BoxAddress& address,
                const std::function<bool(const Box&)>& isPreferred = {});

/// The only box; a failure lists them when there are more. `name` is what all of them answer to, if
/// one was given.
Outcome ChooseOnly(const std::vector<Box>& boxes, BoxAddress& address,
                   const std::string& name = "");

}  // namespace BoxName
