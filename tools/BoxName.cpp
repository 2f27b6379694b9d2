#include "BoxName.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>

#include "AnyCase.h"
#include "BoxFinder.h"
#include "Ipv4.h"
#include "Numbers.h"
#include "SafeText.h"

namespace BoxName {
namespace {

constexpr std::size_t kMaxListed = 8;
constexpr std::size_t kListedWidth = 32;

/// The dotted address of a host name; empty when nobody knows it. No number is one: "5" would be
/// 0.0.0.5, and "192.168.68" another box's address.
std::string LookUp(const std::string& host) {
    if (Ipv4::ParseAnyForm(host)) {
        return "";
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
        return "";
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, freeaddrinfo);
    return Ipv4::Dotted(reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr);
}

}  // namespace

std::optional<Parts> Split(const std::string& name) {
    const std::size_t colon = name.rfind(':');
    if (colon == std::string::npos) {
        return Parts{name, std::nullopt};
    }
    const auto port = Numbers::Parse<std::uint16_t>(std::string_view(name).substr(colon + 1));
    if (!port || *port == 0 || colon == 0) {
        return std::nullopt;
    }
    return Parts{name.substr(0, colon), port};
}

Outcome ChooseOnly(const std::vector<Box>& boxes, BoxAddress& address, const std::string& name) {
    if (boxes.empty()) {
        return {ExitStatus::kUnreachable,
                "no box answers on this network; name its address, or wait longer (--wait)"};
    }
    if (boxes.size() == 1) {
        address.host = boxes.front().address;
        return {};
    }
    std::string list;
    for (std::size_t i = 0; i < std::min(boxes.size(), kMaxListed); ++i) {
        list += (i == 0 ? " " : ", ") + boxes[i].address + " (" +
                SafeText::Shorten(SafeText::Line(boxes[i].DeviceId()), kListedWidth) + ")";
    }
    return {ExitStatus::kUsage,
            std::to_string(boxes.size()) + " boxes answer" +
                (name.empty() ? ", name one:" : " to '" + name + "', name one by its address:") +
                list + (boxes.size() > kMaxListed ? ", ..." : "")};
}

Outcome Resolve(const Options& options, BoxAddress& address,
                const std::function<bool(const Box&)>& isPreferred) {
    if (options.box.empty()) {
        std::vector<Box> boxes = BoxFinder::Find(options.wait);
        if (isPreferred && std::any_of(boxes.begin(), boxes.end(), isPreferred)) {
            std::erase_if(boxes, std::not_fn(isPreferred));
        }
        return ChooseOnly(boxes, address);
    }
    const std::optional<Parts> parts = Split(options.box);
    if (!parts) {
        return {ExitStatus::kUsage, "'" + options.box + "' names no box: give address[:port], " +
                                        "serial number or host name"};
    }
    address.port = parts->port.value_or(address.port);
    address.host = parts->host;
    if (const auto host = Ipv4::Parse(parts->host); host && host->s_addr != INADDR_ANY) {
        return {};
    }
    if (parts->host.find('.') == std::string::npos) {
        const auto hasSerial = [&](const Box& box) { return box.HasSerial(parts->host); };
        std::vector<Box> boxes = BoxFinder::Find(options.wait, hasSerial);
        // A serial number goes before a host name.
        const bool isSerial = std::any_of(boxes.begin(), boxes.end(), hasSerial);
        std::erase_if(boxes, [&](const Box& box) {
            return isSerial ? !hasSerial(box) : !AnyCase::Equal(box.HostName(), parts->host);
        });
        if (!boxes.empty()) {
            return ChooseOnly(boxes, address, parts->host);
        }
    }
    address.host = LookUp(parts->host);
    if (address.host.empty()) {
        return {ExitStatus::kUnreachable,
                "no box '" + parts->host +
                    "' answers on this network, and no host has that name; " +
                    "see which there are (zelctl find)"};
    }
    return {};
}

}  // namespace BoxName
