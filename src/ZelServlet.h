#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "HttpMessage.h"
#include "SocketGuard.h"

/// What a servlet answers to one request.
struct ServletResponse {
    /// 200, or anything else for "404 Not found".
    int status = 404;
    bool keepAlive = false;
    std::string contentType = "text/html";
    /// Further header lines without their line ends.
    std::vector<std::string> headerLines;
    std::string body;
    /// A file of which `fileLength` bytes are sent behind `body`, if there is one.
    std::shared_ptr<const SocketGuard> file;
    std::uint64_t fileLength = 0;
    /// What must live until the peer has the response, if anything must. Such a response ends the
    /// connection.
    std::shared_ptr<void> keptUntilReceived;

    /// Gives the request what it asks for: status 200, and the connection stays if it wishes so.
    void Fulfil(const HttpRequest& request, std::string type, std::string text);
};

/// Base of every web service. The object that is registered with the server stands for the service
/// as long as the agent runs and makes a fresh instance of itself for every request.
class ZelServlet {
public:
    // Results of Service().
    static constexpr int kDone = 1;
    static constexpr int kPostResponse = 2;

    enum class MatchMode {
        kPrefix = 0,      ///< the request path begins with the servlet's
        kPathPrefix = 1,  ///< and ends there or goes on with "/", "?" or "&"
        kExact = 2        ///< both are equal
    };

    /// Where the servlet answers. `name` is for the log and for the names of its files.
    struct Registration {
        std::string name;
        std::string path;
        MatchMode matchMode;
        std::uint16_t port;  ///< local port; 0 is every port
    };

    explicit ZelServlet(Registration registration);
    virtual ~ZelServlet() = default;
    ZelServlet(const ZelServlet&) = delete;
    ZelServlet& operator=(const ZelServlet&) = delete;

    /// Fills `response`. Returns kPostResponse to have PostResponse() called once the response has
    /// been sent; any other result means that nothing is left to do.
    virtual int Service(const HttpRequest& request, ServletResponse& response) = 0;

    /// A new servlet of the same kind, for one request.
    virtual std::unique_ptr<ZelServlet> MakeInstance() const = 0;

    /// Work that must follow the reply.
    virtual void PostResponse() {}

    const std::string& GetName() const { return registration_.name; }

    /// Whether a request for `path` (query included) on `port` is this servlet's.
    bool Matches(std::string_view path, std::uint16_t port) const;

private:
    Registration registration_;
};
