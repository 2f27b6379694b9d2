#include <algorithm>
#include <future>
#include <limits>
#include <new>

#include "SlpAttributes.h"
#include "SlpCodec.h"
#include "SlpPeer.h"
#include "StoreKeys.h"
#include "StoreSetup.h"
#include "ZelLogging.h"
#include "ZelSlpService.h"

namespace {

using namespace std::chrono_literals;

const std::string kTypes = "service:zel.connector,service:hux-vci,";

std::string SrvRqst(const std::string& type, std::size_t xid = 7) {
    return Message(1, xid, Zeros(2) + Text(type) + Text("default") + Zeros(4));
}

std::string AttrRqst(const std::string& url, const std::string& scope = "default",
                     std::size_t xid = 7) {
    return Message(6, xid, Zeros(2) + Text(url) + Text(scope) + Zeros(4));
}

std::string SrvRply(std::size_t xid) {
    return Message(2, xid,
                   Zeros(2) + Word(1) + std::string("\0\xFF\xFA", 3) + Text(kTypes) + Zeros(2));
}

std::string AttrRply(const std::string& list, std::size_t xid = 7) {
    return Message(7, xid, Zeros(2) + Text(list) + Zeros(2));
}

class SlpServiceTest : public testing::Test {
protected:
    SlpServiceTest() {
        SetUpStore(config_, trigger15_, [] { return ""; });
        Set("zel.state.startup", "1");
        Set("tavo.hostname", "TAVO0012345");
    }

    void Set(const std::string& key, const std::string& value) { config_.SetFixed(key, value); }

    /// Nothing comes for `datagram`: the answer to the request behind it comes first.
    void ExpectSilence(const std::string& datagram) {
        client_.Send(datagram);
        EXPECT_EQ(client_.Ask(SrvRqst("service:hux-vci", 99)), SrvRply(99));
    }

    Trigger15 trigger15_;
    ZelConfig config_;
    DiscoverModeCtrl mode_{config_};
    ZelSlpService service_{config_, mode_, [] {}};
    SlpPeer client_{4000};
};

TEST_F(SlpServiceTest, WhatIsAnsweredAndWhatIsNot) {
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering));
    const std::string types = Message(10, 5, Zeros(2) + Text(kTypes) + Zeros(1));
    const std::string legacy = AttrRply(SlpAttributes::LegacyList(config_));
    std::string announced = SrvRqst("service:zel.connector");
    announced[4] = static_cast<char>(announced[4] + 1);
    for (const auto& [name, request, answer] : Table<const char*, std::string, std::string>{
             {"a type", SrvRqst("service:zel.connector", 0xABCD), SrvRply(0xABCD)},
             {"part of the type", SrvRqst("my service:hux-vci://x"), SrvRply(7)},
             {"any type", SrvRqst(""), SrvRply(7)},
             {"types", Message(9, 5, Zeros(2) + Word(0xFFFF) + Text("any"), "de"), types},
             {"attributes", AttrRqst("SERVICE:hux-vci", "DeFault"), legacy},
             {"another type", SrvRqst("service:printer"), ""},
             {"a type in capitals", SrvRqst("SERVICE:HUX-VCI"), ""},
             {"another scope", AttrRqst("service:zel.connector", "default,other"), ""},
             {"no scope", AttrRqst("service:zel.connector", ""), ""},
             {"a third URL", AttrRqst("service:zel.connector://x"), ""},
             {"a reply", SrvRply(7), ""},
             {"nobody asked", AttrRply("(Service=zel-manager),(ClusterIP='10.0.0.1')"), ""},
             {"a registration", Message(3, 7, Zeros(10)), ""},
             {"an answer of another kind", Message(2, 7, Zeros(2) + Word(0xFFFF)), ""},
             {"lengths beyond the end", std::string("\2\6\0\20\0", 5) + std::string(4091, '\xFF'),
              ""},
             {"a wrong length", announced, ""},
             {"an empty datagram", "", ""},
             {"two bytes", "\2\1", ""},
             {"a large one", Message(1, 7, Zeros(5000)), ""}}) {
        SCOPED_TRACE(name);
        if (answer.empty()) {
            ExpectSilence(request);
        } else {
            EXPECT_EQ(client_.Ask(request), answer);
        }
    }
}

// What a box in the usual state tells is seen in its answers.
TEST_F(SlpServiceTest, AttributesFollowTheStore) {
    using Settings = std::vector<std::pair<const char*, const char*>>;
    const char* const gateway = "network.current.defaultgateway";
    const char* const netmask = "network.current.lan.netmask";
    WriteFile("/proc/sys/kl30", "99999999999999999999 V");
    OutputOf("rm /proc/sys/atmel/kl15_ewb /tmp/kvadvin");
    for (const auto& [settings, parts] : Table<Settings, std::vector<std::string>>{
             {{{"diag.connected.tavo_c", "0"},
               {"diag.connected.tavo_d", "0"},
               {"diag.most.lighton", "0"},
               {"system.voltage.kl15trig", ""},
               {"tavo.color", "mauve"}},
              {"(VciChannels=[KLine,DCAN])", "(Kl30Voltage=99999999999999999999 V)",
               "(Kl15Voltage=)", "(Kl15Trigger=true)", "(VIN=)", "(Diag=[])", "(Color=)"}},
             {{{"diag.connected.tavo_d", "1"},
               {"diag.most.lighton", "1"},
               {"diag.most.tavobstate", "1"}},
              {"(VciChannels=[KLine,MOST])"}},
             {{{gateway, "0.0.0.0"}, {netmask, "255.255.255.0"}},
              {"(Netmask=-256),(NetGateway=0),(NetworkType=0)"}},
             {{{gateway, ""}, {netmask, ""}}, {"(Netmask=0),(NetGateway=0)"}},
             // Parts that are missing in the net mask are the gateway's.
             {{{gateway, "1.2"}, {netmask, "x"}}, {"(Netmask=16908288),(NetGateway=16908288)"}},
             {{{gateway, "1.2.3.4"}, {netmask, "9 .9"}},
              {"(Netmask=151126788),(NetGateway=16909060)"}},
             {{{gateway, "-1.0.0.0"}, {netmask, "0.0.0.99999999999999999999"}},
              {"(Netmask=2147483647),(NetGateway=-16777216)"}},
             {{{gateway, "192.168.68.1"},
               {"net.current.networktype", "1"},
               {"network.current.wlan.netmask", "0xFF.0377.x.0"}},
              {"(Netmask=-48127),(NetGateway=-1062714367),(NetworkType=1)"}}}) {
        for (const auto& [key, value] : settings) {
            Set(key, value);
        }
        ExpectParts(SlpAttributes::ConnectorList(config_).With(0), parts);
    }
    Set("network.current.lan.ip", "192.168.68.42");
    Set("network.current.wlan.ip", "10.0.0.9");
    Set("system.version.app", "12");
    ExpectParts(SlpAttributes::LegacyList(config_),
                {"(DevClass=HUX-VCI)(FirmwareRev=12)(Mac", "(IpAddress=10.0.0.9)(Assigned"});
}

TEST_F(SlpServiceTest, ValuesOfPeersStayValuesAndListsStayShort) {
    const std::string car = "\xF0\x9F\x9A\x97";
    for (const auto& [owner, told] : Table<std::string, std::string>{
             {"x),(State=4", "x\\29\\2c\\28State\\3d4"},
             {"J\xC3\xB6rg~, <o\\k>!", "J\xC3\xB6rg\\7e\\2c \\3co\\5ck\\3e\\21"},
             {"a\n\x7f\x1b[m", "a\\0a\\7f\\1b[m"},
             {Times(5000, "b,"), Times(32, "b\\2c")},  // 64 characters
             {Times(65, car), Times(64, car)},
             {Times(65, "\xF0\x9F"), Times(32, "\xF0\x9F")}}) {  // broken ones are bytes
        Set("zel.state.owner", owner);
        ExpectParts(SlpAttributes::ConnectorList(config_).With(0),
                    {"(Owner=" + told + "),(Kl15Voltage="});
    }

    WriteFile("/tmp/kvadvin",
              "KVAD=TESTVIN0123456789\nDIAG_ADR=1),(State=4\n" + Times(300, "DIAG_ADR=0x10\n"));
    for (const std::size_t size : {1U, 63U, 100U, 5000U}) {
        for (const std::string& name : {std::string("n"), std::string(")"), car}) {
            Set("tavo.hostname", Times(size, name));
            Set("hardware.devtype", Times(size, name));
            const std::string list = SlpAttributes::ConnectorList(config_).With(-2147483647);
            const std::string legacy = SlpAttributes::LegacyList(config_);
            EXPECT_LE(std::max(list.size(), legacy.size()), 1400U - 22) << size << name;
            EXPECT_EQ(std::count(list.begin(), list.end(), '('), 25) << list;
            EXPECT_EQ(std::count(legacy.begin(), legacy.end(), ')'), 12) << legacy;
            ExpectParts(list,
                        {"(Diag=[1\\29,\\28State\\3d4,0x10,", "0x10]),(AccuCapacity=0)",
                         "(VIN=TESTVIN0123456789)", "(UUID=00000000-0000-0000-0000-000000000000)"});
        }
    }
}

TEST_F(SlpServiceTest, OnlyAFullAnswerToANeighbourCountsAsFound) {
    mode_.Enable();
    mode_.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kDhcp);
    mode_.Event(DiscoverModeCtrl::Trigger::kFellBack, DiscoverModeCtrl::kLinkLocal);
    Set("network.config.discover.mode", "-");
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering));
    client_.Ask(SrvRqst("service:zel.connector"));
    client_.Ask(AttrRqst(""));
    EXPECT_EQ(config_.Get("network.config.discover.mode"), "-") << "from another network";
    mode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
    EXPECT_EQ(config_.Get("network.config.discover.mode"), "2") << "nothing had been signalled";

    ZelConfig wired;
    DiscoverModeCtrl finished(wired);
    finished.Enable();
    finished.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kDhcp);
    service_.Stop(ZelSlpService::kAnswering);
    ZelSlpService other(wired, finished, [] {});
    ASSERT_TRUE(other.Start(ZelSlpService::kAnswering));
    client_.Ask(AttrRqst("service:hux-vci"));
    client_.Ask(AttrRqst(""));
    finished.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kStatic);
    EXPECT_EQ(finished.CurrentMode(), DiscoverModeCtrl::kDhcp) << "the answer was the last event";
}

TEST_F(SlpServiceTest, WhoWaitsIsAnsweredWithValuesReadAfterwards) {
    std::promise<void> begun;
    std::promise<void> allSent;
    int readings = 0;
    config_.Register("diag.kvad.gateway", [&](const std::string&, std::string& out) {
        out = std::to_string(++readings);
        if (readings == 1) {
            begun.set_value();
            allSent.get_future().wait();
        }
        return true;
    });
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering));
    client_.Send(AttrRqst("", "default", 1));
    begun.get_future().wait();
    constexpr std::size_t kLast = 2 * SlpBase::kMaxAtOnce;
    for (std::size_t xid = 2; xid <= kLast; ++xid) {
        client_.Send(AttrRqst("", "default", xid));
    }
    allSent.set_value();
    auto counter = std::numeric_limits<std::int32_t>::min();
    for (std::size_t xid = 1; xid <= kLast; ++xid) {
        const std::string answer = client_.Receive();
        EXPECT_EQ(answer.substr(10, 2), Word(xid)) << "in their order";
        ExpectParts(answer, {"(Counter=" + std::to_string(counter++) + ")"});
        EXPECT_EQ(answer.find("(Gateway=1)") != std::string::npos, xid == 1) << answer;
    }
}

TEST_F(SlpServiceTest, LackOfMemoryLosesADatagramAndNoThread) {
    config_.Register("diag.kvad.gateway",
                     [](const std::string&, std::string&) -> bool { throw std::bad_alloc(); });
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering));
    ExpectSilence(AttrRqst(""));
}

TEST(SlpAnswerLimitTest, EveryAddressHasItsOwnBurstAndRate) {
    using Clock = SlpAnswerLimit::Clock;
    SlpAnswerLimit limit;
    Clock::time_point now{100h};
    const auto admitted = [&](in_addr_t address, int asked) {
        int count = 0;
        for (int i = 0; i < asked; ++i) {
            count += limit.Admit({address}, now) ? 1 : 0;
        }
        return count;
    };
    EXPECT_FALSE(limit.TakeReport(now));
    EXPECT_EQ(admitted(1, 1200), 1000);
    EXPECT_EQ(limit.TakeReport(now)->dropped, 200U);
    EXPECT_EQ(admitted(2, 1001), 1000);
    EXPECT_FALSE(limit.TakeReport(now + 999ms));
    EXPECT_EQ(limit.TakeReport(now + 1s)->dropped, 1U);
    for (in_addr_t forged = 10; forged < 10000; ++forged) {
        EXPECT_EQ(admitted(forged, 2), 2);
    }
    EXPECT_EQ(admitted(1, 1), 0) << "not forgotten over forged addresses";
    now += 100ms;
    EXPECT_EQ(admitted(1, 100), 50);
    now += 1h;
    EXPECT_EQ(admitted(1, 1200), 1000);
}

/// Messages that one receive gives.
int ReceivedBy(const SlpBase& socket) {
    int count = 0;
    socket.Receive([&count](SlpMessage& /*message*/) { ++count; });
    return count;
}

TEST(SlpBaseTest, RefusedDatagramsAreLogged) {
    const ZelLogging logging;
    SlpBase socket;
    EXPECT_FALSE(socket.Open("no address", SlpBase::kPort));
    EXPECT_FALSE(socket.Open("10.99.99.99", SlpBase::kPort));
    ASSERT_TRUE(socket.Open("0.0.0.0", SlpBase::kPort));
    SlpPeer peer(4000);
    std::string incomplete = SrvRqst("service:0123456789abcdefghij");
    ASSERT_EQ(incomplete.size(), 61U);
    incomplete[4] = 60;
    incomplete.resize(59);
    for (const std::string& datagram :
         {incomplete, Message(3, 1, Zeros(2)), Message(8, 1, Zeros(2)), Zeros(0),
          Message(7, 1, Zeros(6000))}) {
        peer.Send(datagram);
        EXPECT_EQ(ReceivedBy(socket), 0);
    }
    peer.Send(SrvRqst("service:x"));
    EXPECT_EQ(ReceivedBy(socket), 1);
    ExpectParts(ReadFile(ZelLogging::kLogFile),
                {"incomplete packet (60 != 59)\n", "Unsupported SLP request type 3\n",
                 "Unsupported SLP request type 8\n", "recvfrom() == 0\n",
                 "incomplete packet (6016 != 4096)\n"});
}

/// A loop around it neither spins nor waits for ever.
TEST(SlpBaseTest, AClosedSocketIsLoggedAndPaused) {
    const ZelLogging logging;
    SlpBase socket;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ReceivedBy(socket), 0);
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 900ms);
    ExpectParts(ReadFile(ZelLogging::kLogFile), {"recvfrom() == " + std::to_string(-1UL) + "\n"});

    auto receiving = std::async(std::launch::async, [&socket] {
        while (!socket.IsInterrupted()) {
            ReceivedBy(socket);
        }
    });
    socket.Interrupt();
    EXPECT_EQ(receiving.wait_for(30s), std::future_status::ready);
}

}  // namespace
