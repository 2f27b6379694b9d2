#pragma once

#include "ZelServlet.h"

/// Sends text files whose path begins with "/tmp", such as the log or the result of the self test.
/// Nothing else of the path is checked, on purpose: what the agent may read can be fetched.
class FileDownloadServlet : public ZelServlet {
public:
    FileDownloadServlet();
    int Service(const HttpRequest& request, ServletResponse& response) override;
    std::unique_ptr<ZelServlet> MakeInstance() const override;
};
