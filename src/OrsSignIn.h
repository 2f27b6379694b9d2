#pragma once

#include <libxml/tree.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "DeviceReservation.h"
#include "DiscoverModeCtrl.h"
#include "ManagerConnection.h"
#include "ServiceSchemas.h"
#include "ZelConfig.h"

/// Signs the box in with the central manager: PreSignIn, which may bring new settings and software,
/// then SignIn. The box is reserved meanwhile. Used once; another thread may stop it.
class OrsSignIn {
public:
    /// The manager's address is read from the store (ManagerLocator::kFoundKey) by Run().
    OrsSignIn(ZelConfig& config, DeviceReservation& reservation, DiscoverModeCtrl& mode)
        : config_(config), reservation_(reservation), mode_(mode) {}
    OrsSignIn(const OrsSignIn&) = delete;
    OrsSignIn& operator=(const OrsSignIn&) = delete;

    /// Waits until the box is free and signs it in. Returns true when both exchanges succeeded. A
    /// failure is logged and nothing is tried again.
    bool Run();

    /// Makes Run() return soon, now and from now on. A download or an installation that is under
    /// way is not cut short.
    void Stop();

private:
    bool Reserve(std::string& handle);
    bool SignInWith(const std::string& address);
    bool PreSignInUntilUpdated();
    bool Conclude(const std::string& address);
    bool PreSignIn();
    bool SignIn();
    /// Sends `message`, up to twice. False when nothing that has a body was answered. `name` is for
    /// the log.
    bool Exchange(const char* name, const std::string& message, std::string& answer);
    bool ApplyPreSignIn(const std::string& body);
    bool CheckSignIn(const std::string& body);
    bool IsContentValid(const xmlNode* body);

    ZelConfig& config_;
    DeviceReservation& reservation_;
    DiscoverModeCtrl& mode_;
    std::optional<ServiceSchemas> schemas_;  // while an answer may have to be checked
    bool anotherPreSignIn_ = false;
    bool rebootAfterUpdate_ = false;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<ManagerConnection> connection_;
    bool stopped_ = false;
};
