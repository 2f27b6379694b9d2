#include "OrsSignIn.h"

#include <ctime>
#include <new>
#include <utility>

#include "LogText.h"
#include "ManagerElements.h"
#include "PreSignInResponse.h"
#include "Reboot.h"
#include "SignInRequests.h"
#include "XmlText.h"
#include "ZelLog.h"

namespace {

constexpr char kOwner[] = "PreSignIn";
constexpr char kAnyHost[] = "0";
constexpr char kNoHandle[] = "0";
constexpr char kAddressKey[] =
    "com.tembra.lusora.agent.impl.configuration.AgentConfiguration.ips.tmp";
constexpr char kRememberedAddressKey[] =
    "com.tembra.lusora.agent.impl.configuration.AgentConfiguration.ips";
constexpr std::chrono::seconds kReservePause{1};
constexpr int kAttempts = 2;
// The manager's SLP service may be there before its SOAP service.
constexpr std::chrono::seconds kRefusedPause{1};

xmlNode* FindTag(const xmlNode* parent, const char* name) {
    xmlNode* found = XmlText::FindChild(parent, name);
    if (found == nullptr) {
        ZEL_ERROR("%s tag is null", name);
    }
    return found;
}

}  // namespace

bool OrsSignIn::Run() {
    ZEL_INFO("Start PreSignInSignIn");
    std::string handle;
    if (!Reserve(handle)) {
        return false;
    }
    bool succeeded = false;
    try {
        const std::string address = config_.Get(kAddressKey);
        succeeded = !address.empty() && SignInWith(address);
    } catch (const std::bad_alloc&) {
        ZEL_ERROR("No memory for the sign-in");
    }
    Disconnect();
    schemas_.reset();
    Release(handle);
    return succeeded;
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
        handle = kNoHandle;
        try {
            if (reservation_.Reserve(kOwner, kAnyHost, handle)) {
                return true;
            }
        } catch (const std::bad_alloc&) {
            ZEL_ERROR("No memory to reserve the box for the sign-in");
            Release(handle);
        }
    }
    return false;
}

/// Lasts until there is memory enough for it: nobody else can release the box.
void OrsSignIn::Release(const std::string& handle) {
    do {
        try {
            reservation_.Release(handle);
            return;
        } catch (const std::bad_alloc&) {
            ZEL_ERROR("No memory to release the box after the sign-in");
        }
    } while (Pause(kReservePause));
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

bool OrsSignIn::SignInWith(const std::string& address) {
    {
        const std::lock_guard lock(mutex_);
        connection_.emplace(address);
        if (stopped_) {
            connection_->Interrupt();
        }
    }
    return PreSignInUntilUpdated() && Conclude(address);
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
bool OrsSignIn::Conclude(const std::string& address) {
    if (rebootAfterUpdate_) {
        ZEL_INFO("Rebooting after update");
        if (Reboot().DoReboot() != 0) {
            ZEL_ERROR("The box could not be rebooted, the update counts from its next start");
        }
    }
    mode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
    config_.Set(kRememberedAddressKey, address, ZelConfig::Kind::kPersistent);
    if (!config_.Save()) {
        ZEL_ERROR("Can't save what the manager has set");
    }
    ZEL_INFO("* PreSignIn succeed");
    if (!SignIn()) {
        ZEL_ERROR("SignIn failed");
        return false;
    }
    ZEL_INFO("* SignIn succeed");
    return true;
}

bool OrsSignIn::Exchange(const char* name, const std::string& message, std::string& answer) {
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
        return false;
    }
    ZEL_DEBUG("Check %s response", name);
    if (!response.body) {
        ZEL_ERROR("req data null");
        return false;
    }
    answer = std::move(*response.body);
    ZEL_DEBUG("Received %s response\n%s", name, LogText::Of(answer, LogText::kMaxAnswer).c_str());
    return true;
}

bool OrsSignIn::PreSignIn() {
    std::string answer;
    return Exchange("PreSignIn", SignInRequests::PreSignIn(config_, std::time(nullptr)), answer) &&
           ApplyPreSignIn(answer);
}

bool OrsSignIn::ApplyPreSignIn(const std::string& body) {
    const XmlText::Document document = XmlText::Parse(body);
    if (!document) {
        ZEL_ERROR("Can't create doc of PreSignInResponse");
        return false;
    }
    std::string errors;
    if (!SoapEnvelopeSchema().ValidateDocument(document.get(), errors)) {
        ZEL_ERROR("OrsSignIn validate soap failed:\n%s",
                  LogText::Of(errors, LogText::kMaxAnswer).c_str());
        ZEL_ERROR("Response of PreSignIn not valid");
        return false;
    }
    const xmlNode* soapBody = FindTag(xmlDocGetRootElement(document.get()), "Body");
    if (soapBody == nullptr) {
        return false;
    }
    xmlNode* answer = XmlText::FindChild(soapBody, "preSignInTavoResponse");
    ManagerElements::DropForeignAndNil(answer);
    const xmlNode* result = XmlText::FindChild(answer, "preSignInTavoReturn");
    const SoftwareUpdate update(result);  // it finds attributes in what is not known, too
    ManagerElements::DropUnknown(answer);
    if (!IsContentValid(soapBody)) {
        return false;
    }
    answer = FindTag(soapBody, "preSignInTavoResponse");
    result = answer == nullptr ? nullptr : FindTag(answer, "preSignInTavoReturn");
    if (result == nullptr || !PreSignInResponse::Apply(config_, result)) {
        return false;
    }
    if (update.Run(config_, installed_)) {
        rebootAfterUpdate_ = true;
        anotherPreSignIn_ = true;
    }
    return true;
}

bool OrsSignIn::SignIn() {
    std::string answer;
    return Exchange("SignIn", SignInRequests::SignIn(config_), answer) && CheckSignIn(answer);
}

bool OrsSignIn::CheckSignIn(const std::string& body) {
    const XmlText::Document document = XmlText::Parse(body);
    if (!document) {
        ZEL_ERROR("Can't create doc of SignInResponse");
        return false;
    }
    std::string errors;
    if (!SoapEnvelopeSchema().ValidateDocument(document.get(), errors)) {
        ZEL_ERROR("Response of SignIn not soap valid");
        return false;
    }
    const xmlNode* soapBody = FindTag(xmlDocGetRootElement(document.get()), "Body");
    return soapBody != nullptr && FindTag(soapBody, "signInTavoResponse") != nullptr &&
           IsContentValid(soapBody);
}

/// Checks every element of the Body; one without any is left to who looks for it.
bool OrsSignIn::IsContentValid(const xmlNode* body) {
    if (!schemas_) {
        schemas_.emplace("TaSigninServlet");
    }
    for (xmlNode* content = body->children; content != nullptr; content = content->next) {
        std::string errors;
        if (content->type == XML_ELEMENT_NODE && !schemas_->Accept(content, errors)) {
            ZEL_ERROR("OrsSignIn validate failed:\n%s",
                      LogText::Of(errors, LogText::kMaxAnswer).c_str());
            ZEL_ERROR("Response of PreSignIn not valid");
            return false;
        }
    }
    return true;
}
