#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "SlpAttributes.h"
#include "SlpCodec.h"
#include "SlpPeer.h"
#include "StoreSetup.h"
#include "Support.h"
#include "ZelLogging.h"
#include "ZelSlpService.h"

namespace {

using namespace std::chrono_literals;
using Kind = ZelConfig::Kind;

const std::string kTypes = "service:zel.connector,service:hux-vci,";

std::string SrvRqst(const std::string& type, std::size_t xid = 7) {
    return Message(1, xid, Zeros(2) + Text(type) + Text("default") + Zeros(4));
}

std::string AttrRqst(const std::string& url, const std::string& scope, std::size_t xid = 7) {
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
        config_.Set("zel.state.startup", "1", Kind::kFixed);
        config_.Set("tavo.hostname", "TAVO0012345", Kind::kFixed);
    }

    void Set(const char* key, const char* value) { config_.Set(key, value, Kind::kFixed); }

    /// Nothing comes for `datagram`: the answer to the request behind it comes first.
    void ExpectSilence(const std::string& datagram, const std::string& name) {
        client_.Send(datagram);
        EXPECT_EQ(client_.Ask(SrvRqst("service:hux-vci", 99)), SrvRply(99)) << name;
    }

    Trigger15 trigger15_;
    ZelConfig config_;
    DiscoverModeCtrl mode_{config_};
    std::atomic<int> signIns_ = 0;
    ZelSlpService service_{config_, mode_, [this] {
                               ++signIns_;
                               throw std::bad_alloc();  // the box opens however it ends
                           }};
    SlpPeer client_{4000};
};

TEST_F(SlpServiceTest, WhatIsAnsweredAndWhatIsNot) {
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering));
    EXPECT_EQ(client_.Ask(SrvRqst("service:zel.connector", 0xABCD)), SrvRply(0xABCD));
    EXPECT_EQ(client_.Ask(SrvRqst("my service:hux-vci://x")), SrvRply(7)) << "part of the type";
    EXPECT_EQ(client_.Ask(SrvRqst("")), SrvRply(7)) << "any type";
    const std::string types = Message(10, 5, Zeros(2) + Text(kTypes) + Zeros(1));
    EXPECT_EQ(client_.Ask(Message(9, 5, Zeros(2) + Word(0xFFFF) + Text("any"), "de")), types);
    client_.Send(Message(9, 5, Zeros(6)), "239.255.255.253");
    EXPECT_EQ(client_.Receive(), types) << "the multicast group is joined";

    const std::string legacy = client_.Ask(AttrRqst("SERVICE:hux-vci", "DeFault"));
    EXPECT_EQ(legacy, AttrRply(SlpAttributes::LegacyList(config_)));
    std::string announced = SrvRqst("service:zel.connector");
    announced[4] = static_cast<char>(announced[4] + 1);
    const struct {
        const char* name;
        std::string datagram;
    } silent[] = {
        {"another type", SrvRqst("service:printer")},
        {"a type in capitals", SrvRqst("SERVICE:HUX-VCI")},
        {"another scope", AttrRqst("service:zel.connector", "default,other")},
        {"no scope", AttrRqst("service:zel.connector", "")},
        {"a third URL", AttrRqst("service:zel.connector://x", "default")},
        {"a reply", SrvRply(7)},
        {"attributes nobody asked for", AttrRply("(Service=zel-manager),(ClusterIP='10.0.0.1')")},
        {"a registration", Message(3, 7, Zeros(10))},
        {"an answer of another kind", Message(2, 7, Zeros(2) + Word(0xFFFF))},
        {"lengths beyond the end", std::string("\2\6\0\20\0", 5) + std::string(4091, '\xFF')},
        {"a wrong length", announced},
        {"an empty datagram", ""},
        {"two bytes", std::string("\2\1")},
        {"a large one", Message(1, 7, Zeros(5000))},
    };
    for (const auto& s : silent) {
        ExpectSilence(s.datagram, s.name);
    }
}

TEST_F(SlpServiceTest, TheConnectorsAttributes) {
    Set("zel.state.owner", "J\xC3\xB6rg (first)~, <o\\k>=!");
    Set("network.current.lan.netmask", "255.255.0.0");
    Set("network.current.defaultgateway", "192.168.68.1");
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering));
    const auto expectParts = [this](const std::string& url, const std::vector<std::string>& parts) {
        const std::string answer = client_.Ask(AttrRqst(url, "default"));
        for (const std::string& part : parts) {
            EXPECT_NE(answer.find(part), std::string::npos) << part << " in " << answer;
        }
    };
    Set("diag.connected.tavo_c", "0");
    Set("diag.connected.tavo_d", "0");
    Set("diag.most.lighton", "0");
    expectParts("Service:Zel.Connector",
                {"(Counter=-2147483648)",
                 "(Owner=J\xC3\xB6rg \\28first\\29\\7e\\2c \\3co\\5ck\\3e\\3d\\21)",
                 "(VciChannels=[KLine,DCAN])"});
    client_.Ask(AttrRqst("service:hux-vci", "default"));
    Set("diag.connected.tavo_d", "1");
    Set("diag.most.lighton", "1");
    Set("diag.most.tavobstate", "1");
    Set("net.current.networktype", "1");
    Set("network.current.wlan.netmask", "0xFF.0377.x.0");
    // The last parts of the net mask are the gateway's.
    expectParts("", {"(Counter=-2147483647)", "(VciChannels=[KLine,MOST])", "(Netmask=-48127)",
                     "(NetGateway=-1062714367)", "(NetworkType=1)"});
}

TEST_F(SlpServiceTest, AddressesThatCannotBeReadAndValuesThatAreMissing) {
    const auto numbers = [this](const char* gateway, const char* netmask) {
        Set("network.current.defaultgateway", gateway);
        Set("network.current.lan.netmask", netmask);
        const std::string list = SlpAttributes::ConnectorList(config_, 0);
        const std::size_t begin = list.find("(Netmask=");
        return list.substr(begin, list.find(",(NetworkType") - begin);
    };
    EXPECT_EQ(numbers("0.0.0.0", "255.255.255.0"), "(Netmask=-256),(NetGateway=0)");
    EXPECT_EQ(numbers("", ""), "(Netmask=0),(NetGateway=0)");
    EXPECT_EQ(numbers("1.2", "x"), "(Netmask=16908288),(NetGateway=16908288)");
    EXPECT_EQ(numbers("1.2.3.4", "9 .9"), "(Netmask=151126788),(NetGateway=16909060)");
    EXPECT_EQ(numbers("-1.0.0.0", "0.0.0.99999999999999999999"),
              "(Netmask=2147483647),(NetGateway=-16777216)");

    std::ofstream("/proc/sys/kl30") << "99999999999999999999 V";
    std::filesystem::remove("/proc/sys/atmel/kl15_ewb");
    std::filesystem::remove("/tmp/kvadvin");
    Set("system.voltage.kl15trig", "");
    Set("tavo.color", "mauve");
    const std::string list = SlpAttributes::ConnectorList(config_, 0);
    for (const char* part : {"(Kl30Voltage=99999999999999999999 V)", "(Kl15Voltage=)",
                             "(Kl15Trigger=true)", "(VIN=)", "(Diag=[])", "(Color=)"}) {
        EXPECT_NE(list.find(part), std::string::npos) << part << " in " << list;
    }
}

TEST_F(SlpServiceTest, ValuesOfPeersStayValuesAndListsStayShort) {
    const std::string car = "\xF0\x9F\x9A\x97";
    const auto times = [](std::size_t count, const std::string& text) {
        std::string all;
        for (std::size_t i = 0; i < count; ++i) {
            all += text;
        }
        return all;
    };
    const auto ownerIn = [this](const std::string& owner) {
        config_.Set("zel.state.owner", owner, Kind::kFixed);
        const std::string list = SlpAttributes::ConnectorList(config_, 0);
        const std::size_t begin = list.find("(Owner=") + 7;
        return list.substr(begin, list.find("),(Kl15Voltage=") - begin);
    };
    EXPECT_EQ(ownerIn("x),(State=4"), "x\\29\\2c\\28State\\3d4");
    EXPECT_EQ(ownerIn("a\n\x7f\x1b[m"), "a\\0a\\7f\\1b[m");
    EXPECT_EQ(ownerIn(times(5000, "b,")), times(32, "b\\2c")) << "64 characters";
    EXPECT_EQ(ownerIn(times(65, car)), times(64, car));
    EXPECT_EQ(ownerIn(times(65, "\xF0\x9F")), times(32, "\xF0\x9F")) << "broken ones are bytes";

    std::ofstream kvadVin("/tmp/kvadvin");
    kvadVin << "KVAD=TESTVIN0123456789\nDIAG_ADR=1),(State=4\n";
    for (int i = 0; i < 300; ++i) {
        kvadVin << "DIAG_ADR=0x10\n";
    }
    kvadVin.close();
    for (const std::size_t size : {1U, 63U, 100U, 5000U}) {
        for (const std::string& name : {std::string("n"), std::string(")"), car}) {
            config_.Set("tavo.hostname", times(size, name), Kind::kFixed);
            config_.Set("hardware.devtype", times(size, name), Kind::kFixed);
            const std::string list = SlpAttributes::ConnectorList(config_, -2147483647);
            const std::string legacy = SlpAttributes::LegacyList(config_);
            EXPECT_LE(std::max(list.size(), legacy.size()), 1400U - 22) << size << name;
            EXPECT_EQ(std::count(list.begin(), list.end(), '('), 25) << list;
            EXPECT_EQ(std::count(legacy.begin(), legacy.end(), ')'), 12) << legacy;
            for (const char* part :
                 {"(Diag=[1\\29,\\28State\\3d4,0x10,", "0x10]),(AccuCapacity=0)",
                  "(VIN=TESTVIN0123456789)", "(UUID=00000000-0000-0000-0000-000000000000)"}) {
                EXPECT_NE(list.find(part), std::string::npos) << part << " in " << list;
            }
        }
    }
}

TEST_F(SlpServiceTest, TheLegacyAttributes) {
    Set("network.current.lan.ip", "192.168.68.42");
    Set("network.current.wlan.ip", "10.0.0.9");
    Set("net.current.networktype", "1");
    Set("system.version.app", "12");
    const std::string list = SlpAttributes::LegacyList(config_);
    EXPECT_TRUE(list.starts_with("(DevClass=HUX-VCI)(FirmwareRev=12)(Mac")) << list;
    EXPECT_NE(list.find("(IpAddress=10.0.0.9)(Assigned"), std::string::npos) << list;
}

TEST_F(SlpServiceTest, OnlyAFullAnswerToANeighbourCountsAsFound) {
    mode_.Enable();
    mode_.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kDhcp);
    mode_.Event(DiscoverModeCtrl::Trigger::kFellBack, DiscoverModeCtrl::kLinkLocal);
    Set("network.config.discover.mode", "-");
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering));
    client_.Ask(SrvRqst("service:zel.connector"));
    client_.Ask(AttrRqst("", "default"));
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
    client_.Ask(AttrRqst("service:hux-vci", "default"));
    client_.Ask(AttrRqst("", "default"));
    finished.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kStatic);
    EXPECT_EQ(finished.CurrentMode(), DiscoverModeCtrl::kDhcp) << "the answer was the last event";
}

TEST_F(SlpServiceTest, OpensWhenTheManagerHasSignedTheBoxIn) {
    SlpPeer manager(ManagerLocator::kManagerPort);
    Set("zel.state.startup", "0");
    Set(ManagerLocator::kRememberedKey, SlpPeer::kAddress);
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering | ZelSlpService::kSignIn));
    client_.Send(SrvRqst("service:zel.connector", 1));
    client_.Send(AttrRqst("", "default", 2));
    // Received in this order: the reply below is handled behind the requests.
    manager.Receive();
    manager.Send(AttrRply("(Service=zel-manager),(ClusterIP='10.0.0.7')", 0));
    ASSERT_TRUE(Eventually([this] { return config_.Get("zel.state.startup") == "1"; }));
    EXPECT_EQ(signIns_, 1);
    EXPECT_EQ(config_.Get(ManagerLocator::kFoundKey), "10.0.0.7");
    EXPECT_EQ(client_.Ask(SrvRqst("service:zel.connector", 3)), SrvRply(3))
        << "the first answer is to the first request since";
}

TEST_F(SlpServiceTest, LackOfMemoryLosesADatagramAndNoThread) {
    config_.Register("diag.kvad.gateway",
                     [](const std::string&, std::string&) -> bool { throw std::bad_alloc(); });
    ASSERT_TRUE(service_.Start(ZelSlpService::kAnswering));
    ExpectSilence(AttrRqst("", "default"), "no memory for it");
}

TEST_F(SlpServiceTest, StopsWhileItWaits) {
    for (const char* oplaMode : {"OPLA", "OPLA-Next"}) {
        Set("opla.mode", oplaMode);
        Set("zel.state.startup", "0");
        ZelSlpService service(config_, mode_, [this] { ++signIns_; });
        ASSERT_TRUE(service.Start(3));
        std::this_thread::sleep_for(200ms);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(service.Stop(3));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    }
    EXPECT_EQ(signIns_, 0);
    EXPECT_EQ(config_.Get("zel.state.startup"), "0");
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
    const auto report = limit.TakeReport(now);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->dropped, 200U);
    EXPECT_EQ(report->last.s_addr, 1U);
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

TEST(SlpBaseTest, RefusedDatagramsAreLogged) {
    const ZelLogging logging;
    SlpBase socket;
    EXPECT_FALSE(socket.Open("no address", SlpBase::kPort));
    EXPECT_FALSE(socket.Open("10.99.99.99", SlpBase::kPort));
    ASSERT_TRUE(socket.Open("0.0.0.0", SlpBase::kPort));
    EXPECT_FALSE(socket.ReceiveWithin(10ms));
    SlpPeer peer(4000);
    std::string incomplete = SrvRqst("service:0123456789abcdefghij");
    ASSERT_EQ(incomplete.size(), 61U);
    incomplete[4] = 60;
    incomplete.resize(59);
    const std::string datagrams[] = {incomplete, Message(3, 1, Zeros(2)), Message(8, 1, Zeros(2)),
                                     "", Message(7, 1, Zeros(6000))};
    for (const std::string& datagram : datagrams) {
        peer.Send(datagram);
        EXPECT_FALSE(socket.ReceiveWithin(30s));
    }
    peer.Send(SrvRqst("service:x"));
    const auto message = socket.ReceiveWithin(30s);
    ASSERT_TRUE(message && std::holds_alternative<SlpRequest>(*message));
    const auto& request = std::get<SlpRequest>(*message);
    EXPECT_EQ(request.peerAddress, SlpPeer::kAddress);
    EXPECT_EQ(request.peerPort, 4000U);
    const std::string log = ReadFile(ZelLogging::kLogFile);
    for (const char* line : {"incomplete packet (60 != 59)\n", "Unsupported SLP request type 3\n",
                             "Unsupported SLP request type 8\n", "recvfrom() == 0\n",
                             "incomplete packet (6016 != 4096)\n"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

/// A loop around it neither spins nor waits for ever.
TEST(SlpBaseTest, AClosedSocketIsLoggedAndPaused) {
    const ZelLogging logging;
    SlpBase socket;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(socket.Receive());
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 900ms);
    const std::string log = ReadFile(ZelLogging::kLogFile);
    EXPECT_NE(log.find("recvfrom() == " + std::to_string(-1UL) + "\n"), std::string::npos);

    auto receiving = std::async(std::launch::async, [&socket] {
        while (!socket.IsInterrupted()) {
            socket.Receive();
        }
    });
    socket.Interrupt();
    EXPECT_EQ(receiving.wait_for(30s), std::future_status::ready);
}

}  // namespace
