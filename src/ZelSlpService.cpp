#include "ZelSlpService.h"

#include <arpa/inet.h>
#include <strings.h>

#include <limits>
#include <new>
#include <string>
#include <utility>

#include "Ipv4.h"
#include "OplaMode.h"
#include "SlpAttributes.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace {

constexpr char kDefaultScope[] = "default";
constexpr char kConnectorType[] = "service:zel.connector";
constexpr char kLegacyType[] = "service:hux-vci";
// Clients know the comma at the end. As a URL it names neither host nor path: they take the
// address from the datagram.
constexpr char kTypeList[] = "service:zel.connector,service:hux-vci,";
constexpr std::uint16_t kLifetimeSeconds = 65530;
// A download or an installation may be under way, and the process is to end within a second.
constexpr std::chrono::milliseconds kSignInStopTime{700};
constexpr std::chrono::milliseconds kMemoryPause{1000};

bool EqualsIgnoringCase(const std::string& left, const char* right) {
    return strcasecmp(left.c_str(), right) == 0;
}

bool Contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

SlpReply ReplyTo(const SlpRequest& request, std::uint32_t functionId) {
    SlpReply reply;
    reply.localPort = SlpBase::kPort;
    reply.peerPort = request.peerPort;
    reply.peerAddress = request.peerAddress;
    reply.functionId = functionId;
    reply.xid = request.xid;
    reply.languageTag = "en";
    return reply;
}

}  // namespace

ZelSlpService::ZelSlpService(ZelConfig& config, DiscoverModeCtrl& mode,
                             std::function<void()> signIn)
    : config_(config),
      mode_(mode),
      signIn_(std::move(signIn)),
      locator_(config, mode, socket_),
      // The first list has the most negative number, so that clients see it change from the start.
      counter_(std::numeric_limits<std::int32_t>::max()) {}

ZelSlpService::~ZelSlpService() {
    static_cast<void>(Stop(kAnswering | kSignIn));  // who must know has asked before
}

bool ZelSlpService::Start(unsigned flags) {
    if (!answering_.IsStarted()) {
        if (!socket_.Open("0.0.0.0", SlpBase::kPort)) {
            ZEL_ERROR("Can't open SLP socket on port %d!", SlpBase::kPort);
        }
        if (!answering_.Start("ZelSlpService", [this] { AnswerRequests(); })) {
            return false;
        }
    }
    return (flags & kSignIn) == 0 || signingIn_.IsStarted() ||
           signingIn_.Start("OrsSignInService", [this] { SignIn(); });
}

bool ZelSlpService::Stop(unsigned flags) {
    socket_.Interrupt();
    bool joined = answering_.Join();
    if ((flags & kSignIn) != 0) {
        locator_.Stop();
        joined &= signingIn_.JoinWithin(kSignInStopTime);
    }
    return joined;
}

void ZelSlpService::AnswerRequests() {
    while (!socket_.IsInterrupted()) {
        // Its values are read with the first message, when all have come.
        SlpAttributes::ConnectorList attributes(config_);
        std::vector<SlpReply> replies;
        socket_.Receive([&](SlpMessage& message) {
            if (std::optional<SlpReply> reply = Handle(message, attributes)) {
                replies.push_back(std::move(*reply));
            }
        });
        socket_.Send(replies);
    }
}

std::optional<SlpReply> ZelSlpService::Handle(SlpMessage& message,
                                              SlpAttributes::ConnectorList& attributes) {
    if (auto* const received = std::get_if<SlpReply>(&message)) {
        // Also before the box is open to clients: the manager is located meanwhile.
        if (received->functionId == SlpFunction::kAttrRply) {
            const ZelLog::Limit rubbish;
            locator_.OnAttributeReply(*received);
        }
        return std::nullopt;
    }
    if (config_.Get(StoreKeys::kServing) == "0") {
        return std::nullopt;
    }
    const auto& request = std::get<SlpRequest>(message);
    const Answer answer = Judge(request);
    return answer != Answer::kNone && IsWithinLimit(request)
               ? std::optional(Make(answer, request, attributes))
               : std::nullopt;
}

ZelSlpService::Answer ZelSlpService::Judge(const SlpRequest& request) {
    switch (request.functionId) {
        case SlpFunction::kAttrRqst:
            if (!request.scopeList || !EqualsIgnoringCase(*request.scopeList, kDefaultScope)) {
                return Answer::kNone;
            }
            if (!request.url || EqualsIgnoringCase(*request.url, kConnectorType)) {
                return Answer::kConnectorAttributes;
            }
            return EqualsIgnoringCase(*request.url, kLegacyType) ? Answer::kLegacyAttributes
                                                                 : Answer::kNone;
        case SlpFunction::kSrvTypeRqst:
            return Answer::kTypes;
        case SlpFunction::kSrvRqst:
            return !request.serviceType || Contains(*request.serviceType, kConnectorType) ||
                           Contains(*request.serviceType, kLegacyType)
                       ? Answer::kServices
                       : Answer::kNone;
        default:
            return Answer::kNone;
    }
}

bool ZelSlpService::IsWithinLimit(const SlpRequest& request) {
    const auto now = SlpAnswerLimit::Clock::now();
    const bool isAdmitted = limit_.Admit({inet_addr(request.peerAddress.c_str())}, now);
    if (const auto report = limit_.TakeReport(now)) {
        ZEL_ERROR("Too many SLP requests: %llu not answered, the last one of %s",
                  static_cast<unsigned long long>(report->dropped),
                  Ipv4::Dotted(report->last).c_str());
    }
    return isAdmitted;
}

SlpReply ZelSlpService::Make(Answer answer, const SlpRequest& request,
                             SlpAttributes::ConnectorList& attributes) {
    if (answer == Answer::kServices) {
        SlpReply reply = ReplyTo(request, SlpFunction::kSrvRply);
        reply.urlEntries.push_back({kLifetimeSeconds, kTypeList});
        return reply;
    }
    if (answer == Answer::kTypes) {
        SlpReply reply = ReplyTo(request, SlpFunction::kSrvTypeRply);
        reply.serviceTypeList = kTypeList;
        return reply;
    }
    SlpReply reply = ReplyTo(request, SlpFunction::kAttrRply);
    if (answer == Answer::kLegacyAttributes) {
        reply.attrList = SlpAttributes::LegacyList(config_);
        return reply;
    }
    reply.attrList = attributes.With(NextCounter());
    if (mode_.SharesNetworkWith(request.peerAddress)) {
        mode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
    }
    return reply;
}

std::int32_t ZelSlpService::NextCounter() {
    return static_cast<std::int32_t>(++counter_);
}

void ZelSlpService::SignIn() {
    bool isLocated = false;
    Persist([&] { isLocated = !IsOplaNext(config_) && locator_.LocateManager(); });
    if (!isLocated) {
        return;
    }
    try {
        signIn_();
    } catch (const std::bad_alloc&) {
        ZEL_ERROR("No memory to sign in");
    }
    Persist([this] {
        ZEL_DEBUG("go to receive");
        config_.SetFixed(StoreKeys::kServing, "1");
    });
}

/// Does again what there was not enough memory for, until it is done or the service stops.
template <typename Work>
void ZelSlpService::Persist(const Work& work) {
    do {
        try {
            work();
            return;
        } catch (const std::bad_alloc&) {
            ZEL_ERROR("No memory on the way to the sign-in");
        }
    } while (!socket_.IsInterruptedWithin(kMemoryPause));
}
