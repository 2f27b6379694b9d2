#include <future>

#include "ManagerLocator.h"
#include "SlpPeer.h"
#include "StoreKeys.h"
#include "ZelLogging.h"

namespace {

using namespace std::chrono_literals;

const std::string kRequest =
    Message(6, 0, Zeros(2) + Text("service:zel.manager") + Text("default") + Zeros(2) + Zeros(4));

std::string Reply(const std::string& attributes) {
    return Message(7, 0, Zeros(2) + Text(attributes) + Zeros(1));
}

std::string ListWith(const std::string& clusterIp) {
    return "(Service=zel-manager),(ClusterIP=" + clusterIp + ")";
}

class ManagerLocatorTest : public testing::Test {
protected:
    void SetUp() override {
        EXPECT_TRUE(socket_.Open("0.0.0.0", SlpBase::kPort));
        config_.SetFixed("zel.state.startup", "0");
        mode_.Enable();
    }
    void TearDown() override {
        locator_.Stop();
        socket_.Interrupt();
    }

    /// Locates as the agent does: one thread asks, another one receives.
    std::future<bool> Locate() {
        receiver_ = std::jthread([this] {
            while (!socket_.IsInterrupted()) {
                socket_.Receive([this](SlpMessage& message) {
                    if (auto* const reply = std::get_if<SlpReply>(&message)) {
                        locator_.OnAttributeReply(*reply);
                    }
                });
            }
        });
        return std::async(std::launch::async, [this] { return locator_.LocateManager(); });
    }

    ZelConfig config_;
    DiscoverModeCtrl mode_{config_};
    SlpBase socket_;
    ManagerLocator locator_{config_, mode_, socket_};
    SlpPeer manager_{ManagerLocator::kManagerPort};
    std::jthread receiver_;
};

TEST_F(ManagerLocatorTest, TheRememberedManagerIsAskedFirst) {
    config_.SetPersistent(StoreKeys::kManager, SlpPeer::kAddress);
    auto located = Locate();
    EXPECT_EQ(manager_.Receive(), kRequest);
    // What is no manager's reply does not end the search, nor do the malformed and the hostile.
    manager_.Send("noise");
    manager_.Send(Reply("(ClusterIP='10.0.0.1')"));
    EXPECT_EQ(manager_.Receive(), kRequest);
    manager_.Send(Reply(ListWith("'10.0.0.7'")));
    manager_.Send(Reply(ListWith("'10.0.0.8'")));
    EXPECT_TRUE(located.get());
    EXPECT_EQ(locator_.ManagerAddress(), "10.0.0.7");
    EXPECT_EQ(config_.Get("zel.state.startup"), "0") << "opened by the sign-in only";
    ZelConfig saved;
    EXPECT_TRUE(saved.Load() && saved.Get(StoreKeys::kFoundManager) == "10.0.0.7");
}

TEST_F(ManagerLocatorTest, TheGroupIsAskedUntilAManagerAnswers) {
    using Clock = std::chrono::steady_clock;
    mode_.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kLinkLocal);
    Clock::time_point asked{};
    auto located = Locate();
    // Three unicast attempts without an address go to the group as well.
    for (int attempt = 0; attempt < 8; ++attempt) {
        SCOPED_TRACE(attempt);
        EXPECT_EQ(manager_.Receive(), kRequest);
        // What is received late makes a pause look shorter than it was.
        EXPECT_GT(Clock::now() - asked, attempt <= 3 ? 500ms : 1500ms);
        asked = Clock::now();
        EXPECT_EQ(config_.Get("zel.state.startup"), attempt < 4 ? "0" : "1");
        EXPECT_EQ(config_.Get("network.config.discover.mode"), attempt < 7 ? "" : "3");
        if (attempt == 6) {
            manager_.Send(Reply(ListWith("'10.0.0.7'")));
        }
    }
    EXPECT_EQ(locator_.ManagerAddress(), "10.0.0.7") << "kept, but not reached from link-local";
    manager_.Send(Reply(ListWith("'169.254.1.2'")));
    EXPECT_TRUE(located.get());
    EXPECT_EQ(config_.Get(StoreKeys::kFoundManager), "169.254.1.2");
}

TEST_F(ManagerLocatorTest, RepliesAreJudged) {
    const ZelLogging logging;
    Table<std::string, std::string> cases = {
        {ListWith("'10.0.1.234'"), "10.0.1.234"},
        {ListWith("x10.0.0.72>"), "10.0.0.72"},
        {"(ClusterIP='223.255.0.7'),Service=zel-manager-2", "223.255.0.7"},
        {"(Service=zel-manager),(MyClusterIP='10.0.0.7')", ""},
        {"(Service=zel-manager),(ClusterIP)", ""},
        {"(Service=zel-agent),(ClusterIP='10.0.0.7')", ""},
        {"", ""}};
    for (const char* value :
         {"", "'", "''", "'manager.workshop'", "'300.1.1.1'", "'10.0.0'", "'10.0.0.7\r'",
          "' 10.0.0.7'", "'fe80::1'", "'0.1.2.3'", "'127.0.0.1'", "'224.0.0.1'",
          "'239.255.255.253'", "'240.0.0.1'", "'255.255.255.255'"}) {
        cases.emplace_back(ListWith(value), "");
    }
    const auto judge = [](ManagerLocator& locator, const std::string& attributes) {
        SlpReply reply;
        reply.functionId = SlpFunction::kAttrRply;
        reply.attrList = attributes;
        return locator.OnAttributeReply(reply);
    };
    for (const auto& [attributes, address] : cases) {
        SCOPED_TRACE(attributes);
        ManagerLocator locator(config_, mode_, socket_);
        EXPECT_EQ(judge(locator, attributes), -1) << "nobody has asked";
        locator.AskManager("127.0.0.1");
        EXPECT_EQ(judge(locator, attributes), address.empty() ? -1 : 0);
        EXPECT_EQ(locator.ManagerAddress(), address);
        EXPECT_EQ(judge(locator, ListWith("'10.0.0.99'")), address.empty() ? 0 : -1)
            << "the first counts";
        EXPECT_EQ(locator.ManagerAddress(), address.empty() ? "10.0.0.99" : address);
    }
    // What anybody may send is logged once, and a few times in all.
    std::filesystem::resize_file(ZelLogging::kLogFile, 0);
    locator_.AskManager("127.0.0.1");
    for (int time = 0; time < 2; ++time) {
        for (const auto& [attributes, address] : cases) {
            EXPECT_EQ(address.empty() ? judge(locator_, attributes) : -1, -1);
        }
    }
    EXPECT_EQ(OutputOf(std::string("grep -c 'error .* is no address that a manager can have' ") +
                       ZelLogging::kLogFile),
              std::to_string(ManagerLocator::kMaxComplaints) + "\n");
    SlpReply none;
    EXPECT_EQ(locator_.OnAttributeReply(none), -1);
}

}  // namespace
