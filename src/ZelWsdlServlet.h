#pragma once

#include <libxml/tree.h>

#include <map>
#include <string>
#include <string_view>

#include "ServiceDescription.h"
#include "ZelServlet.h"

/// Base of the SOAP services: turns a request body into a call of one of the service's methods and
/// wraps what the method writes into a SOAP 1.1 envelope. Every failure on the way is answered with
/// one fixed form of fault, always with HTTP status 200. Publishes the service's description.
class ZelWsdlServlet : public ZelServlet {
public:
    /// Handles one operation: reads `method` and writes the response element (without envelope) as
    /// the response's body. The result goes back to the server (see ZelServlet::Service).
    using Handler = int (*)(const xmlNode* method, const HttpRequest& request,
                            HttpResponse& response, ZelWsdlServlet& servlet);
    using MethodTable = std::map<std::string_view, Handler>;

    /// What a service is made of; all of it outlives the servlet.
    struct Definition {
        const MethodTable& methods;
        const char* namespaceUri;
        ServiceDescription::Table description;
    };

    static constexpr char kContentType[] = "text/xml;charset=\"utf-8\"";

    /// Answers a query of the service's description; every other request is a call.
    int Service(const HttpRequest& request, HttpResponse& response) override;

    /// Answers with the fault; `message` is not escaped. A handler that does so returns the result.
    static int SendFault(HttpResponse& response, const std::string& message);

    /// Answers with a handler's response element. Returns 0, the handler's result.
    static int Answer(const HttpRequest& request, HttpResponse& response, std::string body);

protected:
    ZelWsdlServlet(Registration registration, const Definition& definition);

    /// Makes what a file of the description refers to this box.
    virtual void RewriteDescription(std::string& text) const = 0;

    bool skipEnvelopeCheck_ = false;

private:
    void Describe(const ServiceDescription::File& file, const HttpRequest& request,
                  HttpResponse& response) const;
    int Dispatch(const HttpRequest& request, HttpResponse& response);
    bool CheckEnvelope(xmlDoc* document, HttpResponse& response) const;
    bool CheckMethod(xmlNode* method, HttpResponse& response) const;

    Definition definition_;
};
