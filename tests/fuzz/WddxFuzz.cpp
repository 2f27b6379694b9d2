// Requests to the WDDX service. An input is a byte of options and either the body of a POST or, of
// a GET, a line that is the target and then the body.

#include "Fuzzing.h"
#include "RkoServlet.h"
#include "ServiceBox.h"
#include "XmlText.h"

using Fuzzing::Require;

namespace {

// Options.
constexpr unsigned kGet = 1;
constexpr unsigned kReserved = 2;

constexpr std::string_view kBareTexts[] = {"Invalid Argument given", "no request data",
                                           "rKo wddx method not found", "Internal error"};

void CheckAnswer(const ServletResponse& response) {
    Require(response.status == 200, "every request is answered");
    if (std::find(std::begin(kBareTexts), std::end(kBareTexts), response.body) !=
        std::end(kBareTexts)) {
        return;
    }
    // One answer has slips that clients expect, and another type.
    Require(response.contentType == "text/html" ||
                XmlText::Parse(response.body, XmlText::DocumentType::kNameOnly) != nullptr,
            "a packet is well-formed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto& box = *new ServiceBox;
    static RkoServlet service({box.config, box.reservation});

    std::string_view rest = Fuzzing::ToText(data, size);
    const unsigned options = Fuzzing::TakeByte(rest);
    box.Set((options & kReserved) != 0, false);
    HttpRequest request;
    if ((options & kGet) != 0) {
        request.method = HttpRequest::Method::kGet;
        request.url = Fuzzing::Take(rest, '\n');
    }
    request.body = rest;
    ServletResponse response;
    service.MakeInstance()->Service(request, response);
    CheckAnswer(response);
    box.Check();
    return 0;
}
