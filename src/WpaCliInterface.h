#pragma once

#include <sys/un.h>

#include <string>

#include "SocketGuard.h"

/// A client of the WPA supplicant's control interface: a text command to a local datagram socket,
/// one text reply. Call Open(), Request(), Close().
class WpaCliInterface {
public:
    WpaCliInterface() = default;
    virtual ~WpaCliInterface() = default;
    WpaCliInterface(const WpaCliInterface&) = delete;
    WpaCliInterface& operator=(const WpaCliInterface&) = delete;

    /// Connects to the control socket at `path`. Returns 0, or 1 when there is none.
    [[nodiscard]] int Open(const std::string& path);

    /// Sends `command` and waits up to 100 ms for the reply, at most 4095 bytes of it; it is empty
    /// when none came. Returns -1 for an empty command, else 0.
    [[nodiscard]] int Request(const std::string& command, std::string& reply);

    void Close();

private:
    bool Connect(const std::string& path);

    SocketGuard socket_;
    sockaddr_un local_{};
};
