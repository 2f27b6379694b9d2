#pragma once

#include <sys/un.h>

#include "HeldMutex.h"
#include "SocketGuard.h"

/// Tells a service manager whether the agent serves and what it is at: a datagram of sd_notify(3)
/// to the socket that NOTIFY_SOCKET names, a path or, with "@" in front, an abstract name. Without
/// one nothing is done. Thread-safe; never throws and never waits. Texts are literals: they are
/// kept.
class SystemdNotifier {
public:
    /// Takes NOTIFY_SOCKET out of the environment, so that no tool of the agent speaks for it: to
    /// be made before there are threads.
    SystemdNotifier();
    SystemdNotifier(const SystemdNotifier&) = delete;
    SystemdNotifier& operator=(const SystemdNotifier&) = delete;

    /// What the agent is at, such as "signing in"; empty when at nothing. STATUS is "Starting" or
    /// what SetState() said, ": " and this.
    void SetActivity(const char* activity);

    /// What the agent is, such as "Serving"; `field` is a line of the protocol that goes before it
    /// in every message from now on ("READY=1"), or empty.
    void SetState(const char* state, const char* field);

    /// The agent stops. What its threads still say of themselves counts no longer.
    void SetStopping();

    /// Sends once more what could not be sent.
    void Repeat();

private:
    void Send();

    HeldMutex mutex_;
    SocketGuard socket_;
    sockaddr_un address_{};
    socklen_t addressSize_ = 0;
    const char* state_ = "Starting";
    const char* field_ = "";
    const char* activity_ = "";
    bool isStopping_ = false;
    bool isPending_ = false;
};
