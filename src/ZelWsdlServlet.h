#pragma once

#include <libxml/tree.h>

#include <map>
#include <string>
#include <string_view>

#include "ZelServlet.h"

/// Base of the SOAP services: turns a request body into a call of one of the service's methods and
/// wraps what the method writes into a SOAP 1.1 envelope. Every failure on the way is answered with
/// one fixed form of fault, always with HTTP status 200.
class ZelWsdlServlet : public ZelServlet {
public:
    /// Handles one operation: reads `method` and writes the response element (without envelope) as
    /// the response's body. The result goes back to the server (see ZelServlet::Service).
    using Handler = int (*)(const xmlNode* method, const HttpRequest& request,
                            HttpResponse& response, ZelWsdlServlet& servlet);
    using MethodTable = std::map<std::string_view, Handler>;

    static constexpr char kContentType[] = "text/xml;charset=\"utf-8\"";

    /// Answers with the fault; `message` is not escaped.
    static void SendFault(HttpResponse& response, const std::string& message);

protected:
    /// `methods` and `namespaceUri` must outlive the servlet.
    ZelWsdlServlet(Registration registration, const MethodTable& methods, const char* namespaceUri);

    /// Checks the envelope, finds the method element, checks it against the service's schemas and
    /// calls its handler. Returns the handler's result, or 0 after a failure.
    int Dispatch(const HttpRequest& request, HttpResponse& response);

    bool skipEnvelopeCheck_ = false;

private:
    bool CheckEnvelope(xmlDoc* document, HttpResponse& response) const;
    bool CheckMethod(xmlNode* method, HttpResponse& response) const;

    const MethodTable& methods_;
    const char* namespaceUri_;
};
