#pragma once

#include <libxml/tree.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "ServiceDescription.h"
#include "XmlText.h"
#include "ZelServlet.h"

/// Base of the SOAP services: turns a request body into a call of one of the service's operations
/// and answers in a SOAP 1.1 envelope. Every failure on the way is answered with one fixed form of
/// fault, always with HTTP status 200. Publishes the service's description.
class ZelWsdlServlet : public ZelServlet {
public:
    /// Handles one operation, of which `method` is the element. The result goes back to the server
    /// (see ZelServlet::Service).
    using Handler = int (*)(const xmlNode* method, const HttpRequest& request,
                            ServletResponse& response, ZelWsdlServlet& servlet);
    using MethodTable = std::map<std::string_view, Handler>;

    /// What an operation gets.
    template <typename Device>
    struct Call {
        const Device& device;  ///< what its service works on
        const xmlNode* method;
        const HttpRequest& request;

        /// Text of the method's first child element of that name; empty when there is none.
        std::string Text(std::string_view name) const { return XmlText::ChildText(method, name); }
    };

    /// What an operation answers: its response element, or the message of a fault.
    struct Answer {
        std::string text;  ///< stands in the envelope as it is: a fault's is not escaped either
        bool isFault = false;
        std::shared_ptr<void> keptUntilReceived = {};  ///< see ServletResponse

        static Answer Fault(std::string message) { return {std::move(message), true}; }
    };

    /// The handler made of an operation of `Servlet`: Answer Operation(const Call<Device>& call).
    template <typename Servlet, auto kOperation>
    static int Handle(const xmlNode* method, const HttpRequest& request, ServletResponse& response,
                      ZelWsdlServlet& servlet) {
        const auto& device = static_cast<const Servlet&>(servlet).GetDevice();
        return Send(kOperation({device, method, request}), request, response);
    }

    /// What a service is made of; all of it outlives the servlet.
    struct Definition {
        const MethodTable& methods;
        const char* namespaceUri;
        ServiceDescription::Table description;
    };

    /// Answers a query of the service's description; every other request is a call.
    int Service(const HttpRequest& request, ServletResponse& response) override;

protected:
    ZelWsdlServlet(Registration registration, const Definition& definition);

    /// Makes what a file of the description refers to this box.
    virtual void RewriteDescription(std::string& text) const = 0;

    bool skipEnvelopeCheck_ = false;

private:
    static int Send(Answer answer, const HttpRequest& request, ServletResponse& response);
    int Dispatch(const HttpRequest& request, ServletResponse& response);

    Definition definition_;
};
