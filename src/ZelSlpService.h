#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "DiscoverModeCtrl.h"
#include "ManagerLocator.h"
#include "ServiceThread.h"
#include "SlpAnswerLimit.h"
#include "SlpAttributes.h"
#include "SlpMessage.h"
#include "ZelConfig.h"
#include "slpBase.h"

/// Makes the box findable by SLP (RFC 2608) under "service:zel.connector" and, for older clients,
/// "service:hux-vci", on UDP port 427 of every interface; and signs it in with the manager once it
/// has found one (ManagerLocator). It runs once: a stopped service is not started again.
///
/// Answers to one address are limited (SlpAnswerLimit). A datagram for which there is not enough
/// memory is lost, and the next one handled; the sign-in then ends, or goes on looking for the
/// manager, and the box opens to clients all the same.
class ZelSlpService {
public:
    // Bits of the flags of Start() and Stop(). The answering thread is meant in any case.
    static constexpr unsigned kAnswering = 1;
    static constexpr unsigned kSignIn = 2;

    /// `signIn` runs on the sign-in thread when the manager's address is stored.
    ZelSlpService(ZelConfig& config, DiscoverModeCtrl& mode, std::function<void()> signIn);
    /// Stops both threads.
    ~ZelSlpService();
    ZelSlpService(const ZelSlpService&) = delete;
    ZelSlpService& operator=(const ZelSlpService&) = delete;

    /// Opens the socket and starts the answering thread and, with kSignIn, the sign-in thread. To
    /// be called when the interface is configured: the multicast groups are joined on it. Returns
    /// false when a thread cannot be made; another call then starts what is missing. A socket that
    /// cannot be opened is only logged.
    [[nodiscard]] bool Start(unsigned flags);

    /// Whether the socket is open, which Start() has tried: without it nobody is answered.
    bool IsOpen() const { return socket_.IsOpen(); }

    /// To be called when the box may be on another interface: multicasts are received there too.
    void JoinGroups() const { socket_.JoinGroups(); }

    /// Stops the answering thread and, with kSignIn, the sign-in thread, and waits for them, for
    /// `signIn` less than a second. Returns false when a thread is still at work: what it uses must
    /// not be destroyed.
    [[nodiscard]] bool Stop(unsigned flags);

private:
    /// What a request is answered with.
    enum class Answer { kNone, kServices, kTypes, kConnectorAttributes, kLegacyAttributes };

    void AnswerRequests();
    std::optional<SlpReply> Handle(SlpMessage& message, SlpAttributes::ConnectorList& attributes);
    static Answer Judge(const SlpRequest& request);
    bool IsWithinLimit(const SlpRequest& request);
    SlpReply Make(Answer answer, const SlpRequest& request,
                  SlpAttributes::ConnectorList& attributes);
    std::int32_t NextCounter();
    void SignIn();
    template <typename Work>
    void Persist(const Work& work);

    ZelConfig& config_;
    DiscoverModeCtrl& mode_;
    std::function<void()> signIn_;
    SlpBase socket_;
    ManagerLocator locator_;
    std::uint32_t counter_;  // of the answering thread
    SlpAnswerLimit limit_;   // of the answering thread
    ServiceThread answering_;
    ServiceThread signingIn_;
};
