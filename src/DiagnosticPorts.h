#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "Shell.h"

/// The ports of the vehicle's diagnosis (TCP 6801, 6802, 52410, 52411) in the packet filter's INPUT
/// chain, and the kernel's forwarding. Any thread may call it.
class DiagnosticPorts {
public:
    /// Time in which another attempt is made to delete what could not be deleted.
    static constexpr std::chrono::seconds kRetryLimit{5};
    /// The source that stands for every host.
    static constexpr char kAnyHost[] = "0.0.0.0";

    /// Adds the rules that accept what `host` (dotted) sends to the ports, and switches forwarding
    /// on. Does nothing more from the moment on at which Shut() is called. Rules that could not be
    /// deleted before, or were added by a thread that has faulted in here, are deleted first.
    void Open(const std::string& host);

    /// Deletes the rules that Open() has added for that host, and switches forwarding off. Where
    /// the tool reports a failure, all rules of Open() are looked for.
    void Close(const std::string& host);

    /// Deletes every rule that is made like those of Open(), whoever has left it behind, and
    /// switches forwarding off. Rules of any other make stay. `limits` are those of all commands
    /// together. Where a rule may still stand then, the log says so.
    void CloseAll(const Shell::Limits& limits);

    /// Open() adds nothing any more.
    void Shut() { isShut_ = true; }
    bool IsShut() const { return isShut_; }

private:
    std::atomic<bool> isShut_ = false;
    std::atomic<bool> isLeftOpen_ = false;
};
