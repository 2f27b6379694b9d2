#include "Session.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "BoxName.h"
#include "SafeText.h"

Outcome Session::Begin(const Options& options, const std::function<bool(const Box&)>& isPreferred) {
    BoxAddress address;
    if (Outcome outcome = BoxName::Resolve(options, address, isPreferred); outcome.Failed()) {
        return outcome;
    }
    return Ask(address, std::min<std::chrono::milliseconds>(options.timeout, kInformationTimeout));
}

Outcome Session::Ask(const BoxAddress& address, std::chrono::milliseconds timeout) {
    SoapClient::Answer answer;
    if (Outcome outcome = SoapClient::Call(address, SoapClient::kConnector,
                                           "<getDeviceInformation/>", timeout, answer);
        outcome.Failed()) {
        return outcome;
    }
    if (XmlText::FindChild(answer.response, "out") == nullptr) {
        return {ExitStatus::kNotUnderstood,
                address.ToText() + " does not say what it is; is it a box?"};
    }
    address_ = address;
    information_ = std::move(answer);
    return {};
}

const xmlNode* Session::Values() const {
    return XmlText::FindChild(information_.response, "out");
}

std::string Session::Value(const char* name) const {
    return XmlText::ChildText(Values(), name);
}

bool Session::IsReserved() const {
    return Box{"", {{"State", Value("state")}}}.State() == "reserved";
}

std::string Session::OwnAddress() const {
    return Report::Dotted(
        XmlText::ChildText(XmlText::FindChild(Values(), "currentNetworkConfig"), "ip4Address"));
}

std::string Session::Name() const {
    constexpr std::size_t kMaxId = 32;
    const std::string id = SafeText::Shorten(SafeText::Line(DeviceId()), kMaxId);
    return id.empty() ? address_.host : address_.host + " (" + id + ")";
}

Report::Json Session::Heading() const {
    return {{"address", address_.host},
            {"device_id", DeviceId().empty() ? Report::Json() : Report::Json(DeviceId())}};
}
