#include "TestServlet.h"

TestServlet::TestServlet() : ZelServlet({"TestServlet", "/test", MatchMode::kPathPrefix, 0}) {}

int TestServlet::Service(const HttpRequest& request, ServletResponse& response) {
    response.Fulfil(request, "text/html", "Hallo Welt, ist es nicht nett hier draussen?");
    return kDone;
}

std::unique_ptr<ZelServlet> TestServlet::MakeInstance() const {
    return std::make_unique<TestServlet>();
}
