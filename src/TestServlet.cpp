#include "TestServlet.h"

TestServlet::TestServlet() : ZelServlet({"TestServlet", "/test", MatchMode::kPathPrefix, 0}) {}

int TestServlet::Service(const HttpRequest& request, HttpResponse& response) {
    response.status = 200;
    response.keepAlive = request.keepAlive;
    response.contentType = "text/html";
    response.body = "Hallo Welt, ist es nicht nett hier draussen?";
    return kDone;
}

std::unique_ptr<ZelServlet> TestServlet::MakeInstance() const {
    return std::make_unique<TestServlet>();
}
