#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ManagerLocator.h"
#include "SlpPeer.h"
#include "Support.h"
#include "ZelLogging.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::string kRequest =
    Message(6, 0, Zeros(2) + Text("service:zel.manager") + Text("default") + Zeros(2) + Zeros(4));

std::string Reply(const std::string& attributes) {
    return Message(7, 0, Zeros(2) + Text(attributes) + Zeros(1));
}

std::string ReplyWith(const std::string& clusterIp) {
    return Reply("(Service=zel-manager),(ClusterIP=" + clusterIp + ")");
}

SlpReply Received(const std::string& attributes) {
    SlpReply reply;
    reply.functionId = SlpFunction::kAttrRply;
    reply.attrList = attributes;
    return reply;
}

class ManagerLocatorTest : public testing::Test {
protected:
    void SetUp() override {
        EXPECT_TRUE(socket_.Open("0.0.0.0", SlpBase::kPort));
        config_.Set("zel.state.startup", "0", ZelConfig::Kind::kFixed);
        mode_.Enable();
    }
    void TearDown() override {
        locator_.Stop();
        socket_.Interrupt();
        for (const char* suffix : {"", ".old"}) {
            std::filesystem::remove(std::string(ZelConfig::kConfigurationFile) + suffix);
        }
    }

    void Remember(const std::string& address) {
        config_.Set(ManagerLocator::kRememberedKey, address, ZelConfig::Kind::kPersistent);
    }

    /// Locates as the agent does: one thread asks, another one receives.
    std::future<bool> Locate() {
        receiver_ = std::jthread([this] {
            while (!socket_.IsInterrupted()) {
                auto message = socket_.Receive();
                if (message && std::holds_alternative<SlpReply>(*message)) {
                    locator_.OnAttributeReply(std::get<SlpReply>(*message));
                }
            }
        });
        return std::async(std::launch::async, [this] { return locator_.LocateManager(); });
    }

    ZelConfig config_;
    DiscoverModeCtrl mode_{config_};
    SlpBase socket_;
    ManagerLocator locator_{config_, mode_, socket_};
    std::jthread receiver_;
};

TEST_F(ManagerLocatorTest, TheRememberedManagerIsAskedFirst) {
    SlpPeer manager(ManagerLocator::kManagerPort);
    Remember(SlpPeer::kAddress);
    auto located = Locate();
    EXPECT_EQ(manager.Receive(), kRequest);
    // What is no manager's reply does not end the search, nor do the malformed and the hostile.
    manager.Send("noise");
    manager.Send(Reply("(ClusterIP='10.0.0.1')"));
    manager.Send(ReplyWith("'manager.workshop'"));
    EXPECT_EQ(manager.Receive(), kRequest);
    manager.Send(ReplyWith("'10.0.0.7'"));
    manager.Send(ReplyWith("'10.0.0.8'"));
    EXPECT_TRUE(located.get());
    EXPECT_EQ(locator_.ManagerAddress(), "10.0.0.7");
    EXPECT_EQ(config_.Get("zel.state.startup"), "0") << "opened by the sign-in only";
    EXPECT_EQ(ReadFile(ZelConfig::kConfigurationFile),
              std::string(ManagerLocator::kRememberedKey) + "=192.168.68.1\n" +
                  ManagerLocator::kFoundKey + "=10.0.0.7\n");
}

TEST_F(ManagerLocatorTest, TheGroupIsAskedUntilAManagerAnswers) {
    SlpPeer manager(ManagerLocator::kManagerPort);
    mode_.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kLinkLocal);
    std::vector<Clock::time_point> asked;
    auto located = Locate();
    const auto failAttempt = [&] {
        EXPECT_EQ(manager.Receive(), kRequest);
        asked.push_back(Clock::now());
    };
    for (int i = 0; i < 4; ++i) {
        failAttempt();  // three unicast attempts without an address go to the group as well
    }
    EXPECT_EQ(config_.Get("zel.state.startup"), "0");
    failAttempt();
    EXPECT_EQ(config_.Get("zel.state.startup"), "1") << "after the first failure";
    failAttempt();
    failAttempt();
    EXPECT_EQ(config_.Get("network.config.discover.mode"), "");
    manager.Send(ReplyWith("'10.0.0.7'"));
    failAttempt();
    EXPECT_EQ(config_.Get("network.config.discover.mode"), "3") << "after the fourth failure";
    EXPECT_EQ(locator_.ManagerAddress(), "10.0.0.7") << "kept, but not reached from link-local";
    manager.Send(ReplyWith("'169.254.1.2'"));
    EXPECT_TRUE(located.get());
    EXPECT_EQ(config_.Get(ManagerLocator::kFoundKey), "169.254.1.2");
    for (std::size_t i = 1; i < asked.size(); ++i) {
        // What is received late makes a pause look shorter than it was.
        EXPECT_GT(asked[i] - asked[i - 1], i <= 3 ? 500ms : 1500ms) << "attempt " << i;
    }
}

TEST_F(ManagerLocatorTest, ARememberedValueThatIsNoAddressAsksNobody) {
    SlpPeer manager(ManagerLocator::kManagerPort);
    Remember("192.168.68.1 %s%n$(reboot)");
    const auto begin = Clock::now();
    auto located = Locate();
    EXPECT_EQ(manager.Receive(), kRequest);
    EXPECT_GT(Clock::now() - begin, 2900ms) << "the three attempts come first all the same";
    manager.Send(ReplyWith("'10.0.0.7'"));
    EXPECT_TRUE(located.get());
}

TEST_F(ManagerLocatorTest, RepliesAreJudged) {
    const std::string service = "(Service=zel-manager),";
    const struct {
        std::string attributes;
        int result;
        const char* address;
    } cases[] = {
        {service + "(ClusterIP='10.0.0.72')", 0, "10.0.0.72"},
        {service + "(ClusterIP=x10.0.0.72>)", 0, "10.0.0.72"},
        {"(ClusterIP='223.255.0.7'),Service=zel-manager-2", 0, "223.255.0.7"},
        {service + "(MyClusterIP='10.0.0.7')", -1, ""},
        {service + "(ClusterIP)", -1, ""},
        {"(Service=zel-agent),(ClusterIP='10.0.0.7')", -1, ""},
        {"", -1, ""},
    };
    for (const auto& c : cases) {
        ManagerLocator locator(config_, mode_, socket_);
        SlpReply early = Received(c.attributes);
        EXPECT_EQ(locator.OnAttributeReply(early), -1) << "nobody has asked";
        locator.AskManager("127.0.0.1");
        SlpReply reply = Received(c.attributes);
        EXPECT_EQ(locator.OnAttributeReply(reply), c.result) << c.attributes;
        EXPECT_EQ(locator.ManagerAddress(), c.address) << c.attributes;
        SlpReply second = Received(service + "(ClusterIP='10.0.0.99')");
        EXPECT_EQ(locator.OnAttributeReply(second), c.result == 0 ? -1 : 0) << "the first counts";
        EXPECT_EQ(locator.ManagerAddress(), c.result == 0 ? c.address : "10.0.0.99");
    }
    locator_.AskManager("127.0.0.1");
    SlpReply none;
    EXPECT_EQ(locator_.OnAttributeReply(none), -1);
}

TEST_F(ManagerLocatorTest, WhatIsNoManagersAddressIsLoggedOnceAndAFewTimesInAll) {
    const ZelLogging logging;
    locator_.AskManager("127.0.0.1");
    const auto logged = [] {
        const std::string log = ReadFile(ZelLogging::kLogFile);
        const std::regex line("error .* is no address that a manager can have");
        return std::distance(std::sregex_iterator(log.begin(), log.end(), line), {});
    };
    std::vector<std::string> values = {"", "'", "''", "''\r''"};
    for (const char* address :
         {"manager.workshop", "300.1.1.1", "10.0.0", "10.0.0.7\r", " 10.0.0.7", "fe80::1",
          "0.1.2.3", "127.0.0.1", "224.0.0.1", "239.255.255.253", "240.0.0.1", "255.255.255.255"}) {
        values.push_back("'" + std::string(address) + "'");
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
        for (int again = 0; again < 2; ++again) {
            SlpReply reply = Received("(Service=zel-manager),(ClusterIP=" + values[i] + ")");
            EXPECT_EQ(locator_.OnAttributeReply(reply), -1) << values[i];
        }
    }
    EXPECT_EQ(logged(), static_cast<std::ptrdiff_t>(ManagerLocator::kMaxComplaints));
    SlpReply good = Received("(Service=zel-manager),(ClusterIP='10.0.0.7')");
    EXPECT_EQ(locator_.OnAttributeReply(good), 0) << "in the same wait";
}

}  // namespace
