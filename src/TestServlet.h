#pragma once

#include "ZelServlet.h"

/// Answers a fixed greeting, to show that the web server is alive.
class TestServlet : public ZelServlet {
public:
    TestServlet();
    int Service(const HttpRequest& request, ServletResponse& response) override;
    std::unique_ptr<ZelServlet> MakeInstance() const override;
};
