// Any bytes as what a manager answers to a PreSignIn: read, checked and applied, but for the tools
// that an update would run. Runs in a simulated box.

#include <sys/socket.h>

#include "Fuzzing.h"
#include "HttpMessageReader.h"
#include "ManagerElements.h"
#include "PreSignInResponse.h"
#include "ServiceSchemas.h"
#include "SocketGuard.h"
#include "SoftwareUpdate.h"
#include "XmlText.h"
#include "ZelConfig.h"

namespace {

constexpr std::size_t kMaxAnswer = 60000;  // what a socket takes at once

HttpResponse Read(const std::uint8_t* data, std::size_t size) {
    int ends[2];
    Fuzzing::Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "there are sockets");
    const SocketGuard manager(ends[0]);
    const SocketGuard box(ends[1]);
    static_cast<void>(send(manager.Get(), data, size, 0));
    shutdown(manager.Get(), SHUT_WR);
    HttpMessageReader reader(box.Get());
    HttpResponse response;
    // Whatever is missing, what has come is judged.
    static_cast<void>(reader.ReadHead(response) && reader.ReadBody(response));
    return response;
}

/// As many lines as settings, whatever was stored.
void CheckSettings(const ZelConfig& config) {
    Fuzzing::Require(config.Save(), "what was taken is saved");
    std::ifstream file(ZelConfig::kConfigurationFile);
    for (std::string line; std::getline(file, line);) {
        Fuzzing::Require(line.starts_with("tavo.") || line.starts_with("country.code=") ||
                             line.starts_with("wlan.conf.infra."),
                         "a line is a setting");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxAnswer) {
        return 0;
    }
    const HttpResponse response = Read(data, size);
    const XmlText::Document document = XmlText::Parse(response.body.value_or(""));
    if (!document) {
        return 0;
    }
    static auto& schemas = *new ServiceSchemas("TaSigninServlet");
    std::string errors;
    static_cast<void>(SoapEnvelopeSchema().ValidateDocument(document.get(), errors));
    const xmlNode* body = XmlText::FindChild(xmlDocGetRootElement(document.get()), "Body");
    xmlNode* answer = XmlText::FindChild(body, "preSignInTavoResponse");
    if (answer == nullptr) {
        return 0;
    }
    const ManagerElements::Answer values = ManagerElements::Read(answer);
    const SoftwareUpdate update(values);
    // Applied also when it is not valid: one check less must not be one fault more.
    static_cast<void>(schemas.Accept(answer, errors));
    ZelConfig config;
    static_cast<void>(PreSignInResponse::Apply(config, values));
    CheckSettings(config);
    return 0;
}
