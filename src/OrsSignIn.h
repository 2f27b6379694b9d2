#pragma once

#include <libxml/tree.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "DeviceReservation.h"
#include "DiscoverModeCtrl.h"
#include "ManagerConnection.h"
#include "ServiceSchemas.h"
#include "SoftwareUpdate.h"
#include "XmlText.h"
#include "ZelConfig.h"

/// Signs the box in with the central manager: PreSignIn, which may bring new settings and software,
/// then SignIn. The box is reserved meanwhile, and released however it ends. Used once; another
/// thread may stop it.
class OrsSignIn {
public:
    /// Longest time of one exchange with the manager, a second attempt included. There are up to
    /// kMaxPreSignIns and the SignIn.
    static constexpr std::chrono::seconds kExchangeTimeLimit{60};
    /// An update is followed by another PreSignIn, and a manager that never stops to mandate one
    /// must not keep the box busy for ever.
    static constexpr int kMaxPreSignIns = 5;

    /// The manager's address is read from the store (StoreKeys::kFoundManager) by Run().
    OrsSignIn(ZelConfig& config, DeviceReservation& reservation, DiscoverModeCtrl& mode)
        : config_(config), reservation_(reservation), mode_(mode) {}
    OrsSignIn(const OrsSignIn&) = delete;
    OrsSignIn& operator=(const OrsSignIn&) = delete;

    /// Has a function told what Run() is at, a literal such as "signing in with the central
    /// manager"; an empty one when it has ended.
    void OnStep(std::function<void(const char*)> onStep) { onStep_ = std::move(onStep); }

    /// Waits until the box is free and signs it in. A failure is logged and nothing is tried again.
    void Run();

    /// Makes Run() return soon, now and from now on. A download or an installation that is under
    /// way is not cut short.
    void Stop();

private:
    [[nodiscard]] bool Reserve(std::string& handle);
    [[nodiscard]] bool Pause(std::chrono::seconds time);
    void Disconnect();
    void SignInWith(const std::string& address);
    [[nodiscard]] bool PreSignInUntilUpdated();
    void Conclude(const std::string& address);
    [[nodiscard]] bool PreSignIn();
    [[nodiscard]] bool SignIn();
    /// Sends `message`, up to twice within kExchangeTimeLimit. Null when nothing that is XML was
    /// answered. `name` is for the log.
    [[nodiscard]] XmlText::Document Ask(const char* name, const std::string& message);
    [[nodiscard]] bool IsContentValid(const xmlNode* body);

    void Step(const char* step) const;

    ZelConfig& config_;
    DeviceReservation& reservation_;
    DiscoverModeCtrl& mode_;
    std::function<void(const char*)> onStep_;
    std::optional<ServiceSchemas> schemas_;  // while an answer may have to be checked
    bool anotherPreSignIn_ = false;
    bool rebootAfterUpdate_ = false;
    SoftwareUpdate::Installed installed_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<ManagerConnection> connection_;
    bool stopped_ = false;
};
