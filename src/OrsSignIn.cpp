#include "OrsSignIn.h"

#include <ctime>
#include <new>
#include <utility>

#include "LogText.h"
#include "ManagerElements.h"
#include "PreSignInResponse.h"
#include "Reboot.h"
#include "SignInRequests.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace {

constexpr char kSigningIn[] = "signing in with the central manager";
constexpr char kOwner[] = "PreSignIn";
constexpr char kAnyHost[] = "0";
constexpr std::chrono::seconds kReservePause{1};
constexpr int kAttempts = 2;
// The manager's SLP service may be there before its SOAP service.
constexpr std::chrono::seconds kRefusedPause{1};

const xmlNode* FindTag(const xmlNode* parent, const char* name) {
    const xmlNode* found = XmlText::FindChild(parent, name);
    if (found == nullptr) {
        ZEL_ERROR("%s tag is null", name);
    }
    return found;
}

void LogInvalid(const char* check, const std::string& errors) {
    ZEL_ERROR("OrsSignIn %s failed:\n%s", check, LogText::Of(errors, LogText::kMaxAnswer).c_str());
    ZEL_ERROR("Response of PreSignIn not valid");
}

}  // namespace

void OrsSignIn::Run() {
    ZEL_INFO("Start PreSignInSignIn");
    Step("waiting for a client to release the box, to sign in");
    std::string handle;
    if (!Reserve(handle)) {
        return;
    }
    Step(kSigningIn);
    const DeviceReservation::Lease lease(reservation_, std::move(handle), [this] {
        ZEL_ERROR("No memory to release the box after the sign-in");
        return Pause(kReservePause);
    });
    try {
        const std::string address = config_.Get(StoreKeys::kFoundManager);
        if (!address.empty()) {
            SignInWith(address);
        }
    } catch (const std::bad_alloc&) {
        ZEL_ERROR("No memory for the sign-in");
    }
    Disconnect();
    schemas_.reset();
    Step("");
}

void OrsSignIn::Step(const char* step) const {
    if (onStep_) {
        onStep_(step);
    }
}

void OrsSignIn::Stop() {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
    if (connection_) {
        connection_->Interrupt();
    }
}

/// False when stopped.
bool OrsSignIn::Reserve(std::string& handle) {
    for (std::chrono::seconds pause{0}; Pause(pause); pause = kReservePause) {
        try {
            if (reservation_.Reserve(kOwner, kAnyHost, handle)) {
                return true;
            }
        } catch (const std::bad_alloc&) {
            ZEL_ERROR("No memory to reserve the box for the sign-in");
        }
    }
    return false;
}

/// False when stopped.
bool OrsSignIn::Pause(std::chrono::seconds time) {
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, time, [this] { return stopped_; });
}

void OrsSignIn::Disconnect() {
    const std::lock_guard lock(mutex_);
    connection_.reset();
}

void OrsSignIn::SignInWith(const std::string& address) {
    {
        const std::lock_guard lock(mutex_);
        connection_.emplace(address);
        if (stopped_) {
            connection_->Interrupt();
        }
    }
    if (PreSignInUntilUpdated()) {
        Conclude(address);
    }
}

bool OrsSignIn::PreSignInUntilUpdated() {
    for (int i = 0; i < kMaxPreSignIns; ++i) {
        anotherPreSignIn_ = false;
        if (!PreSignIn()) {
            ZEL_ERROR("PreSignIn failed");
            return false;
        }
        if (!anotherPreSignIn_) {
            break;
        }
        ZEL_INFO("need another preSignIn because of update");
    }
    return true;
}

/// What follows the PreSignIn.
void OrsSignIn::Conclude(const std::string& address) {
    if (rebootAfterUpdate_) {
        ZEL_INFO("Rebooting after update");
        if (Reboot().DoReboot() != 0) {
            ZEL_ERROR("The box could not be rebooted, the update counts from its next start");
        }
    }
    mode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
    config_.SetPersistent(StoreKeys::kManager, address);
    if (!config_.Save()) {
        ZEL_ERROR("Can't save what the manager has set");
    }
    ZEL_INFO("* PreSignIn succeed");
    if (SignIn()) {
        ZEL_INFO("* SignIn succeed");
    } else {
        ZEL_ERROR("SignIn failed");
    }
}

XmlText::Document OrsSignIn::Ask(const char* name, const std::string& message) {
    ZEL_DEBUG("Send %s request", name);
    HttpResponse response;
    bool answered = false;
    const auto deadline = ManagerConnection::Clock::now() + kExchangeTimeLimit;
    connection_->Settle(deadline);
    for (int attempt = 0; attempt < kAttempts && !answered; ++attempt) {
        if (connection_->IsRefused() && !Pause(kRefusedPause)) {
            break;
        }
        answered = connection_->Exchange(message, response, deadline);
    }
    if (ManagerConnection::Clock::now() >= deadline) {
        ZEL_ERROR("No %s response within %d s", name, static_cast<int>(kExchangeTimeLimit.count()));
    }
    if (!answered) {
        return nullptr;
    }
    ZEL_DEBUG("Check %s response", name);
    if (!response.body) {
        ZEL_ERROR("req data null");
        return nullptr;
    }
    ZEL_DEBUG("Received %s response\n%s", name,
              LogText::Of(*response.body, LogText::kMaxAnswer).c_str());
    XmlText::Document document = XmlText::Parse(*response.body);
    if (!document) {
        ZEL_ERROR("Can't create doc of %sResponse", name);
    }
    return document;
}

/// Reads the answer, has it judged and stored, and carries out what it orders.
bool OrsSignIn::PreSignIn() {
    const XmlText::Document document =
        Ask("PreSignIn", SignInRequests::PreSignIn(config_, std::time(nullptr)));
    if (!document) {
        return false;
    }
    std::string errors;
    if (!SoapEnvelopeSchema().ValidateDocument(document.get(), errors)) {
        LogInvalid("validate soap", errors);
        return false;
    }
    const xmlNode* body = FindTag(xmlDocGetRootElement(document.get()), "Body");
    if (body == nullptr) {
        return false;
    }
    xmlNode* response = XmlText::FindChild(body, "preSignInTavoResponse");
    const ManagerElements::Answer answer = ManagerElements::Read(response);
    if (!IsContentValid(body) || FindTag(body, "preSignInTavoResponse") == nullptr ||
        FindTag(response, "preSignInTavoReturn") == nullptr ||
        !PreSignInResponse::Apply(config_, answer)) {
        return false;
    }
    const SoftwareUpdate update(answer);
    if (update.IsMandated()) {
        Step("fetching and installing an update");
    }
    if (update.Run(config_, installed_)) {
        rebootAfterUpdate_ = true;
        anotherPreSignIn_ = true;
    }
    Step(kSigningIn);
    return true;
}

bool OrsSignIn::SignIn() {
    const XmlText::Document document = Ask("SignIn", SignInRequests::SignIn(config_));
    if (!document) {
        return false;
    }
    std::string errors;
    if (!SoapEnvelopeSchema().ValidateDocument(document.get(), errors)) {
        ZEL_ERROR("Response of SignIn not soap valid");
        return false;
    }
    const xmlNode* body = FindTag(xmlDocGetRootElement(document.get()), "Body");
    return body != nullptr && FindTag(body, "signInTavoResponse") != nullptr &&
           IsContentValid(body);
}

/// Checks every element of the Body; one without any is left to who looks for it.
bool OrsSignIn::IsContentValid(const xmlNode* body) {
    if (!schemas_) {
        schemas_.emplace("TaSigninServlet");
    }
    for (xmlNode* content : XmlText::Children(body)) {
        std::string errors;
        if (!schemas_->Accept(content, errors)) {
            LogInvalid("validate", errors);
            return false;
        }
    }
    return true;
}
