#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "DiscoverModeCtrl.h"
#include "Support.h"

namespace {

using Trigger = DiscoverModeCtrl::Trigger;
using Events = std::vector<std::pair<Trigger, unsigned>>;

constexpr auto kAssigning = Trigger::kAssigning;
constexpr auto kFellBack = Trigger::kFellBack;
constexpr auto kNotFound = Trigger::kNotFound;
constexpr auto kCommunicated = Trigger::kCommunicated;

constexpr char kModeKey[] = "network.config.discover.mode";

/// The mode that the next start finds.
std::string SavedMode() {
    ZelConfig config;
    config.Load();
    return config.Get(kModeKey);
}

TEST(DiscoverModeCtrlTest, TheModeOfTheNextStart) {
    const struct {
        const char* name;
        Events events;
        const char* mode;  // "-" is not rewritten
        unsigned current;
    } cases[] = {
        {"static values invalid", {{kAssigning, 1}, {kFellBack, 3}}, "3", 3},
        {"a fall-back to DHCP that did not begin static",
         {{kAssigning, 3}, {kFellBack, 3}},
         "-",
         3},
        {"static, restarted", {{kAssigning, 1}, {kAssigning, 3}, {kFellBack, 3}}, "3", 3},
        {"fell back, not used yet", {{kAssigning, 3}, {kFellBack, 2}}, "-", 2},
        {"fell back and used", {{kAssigning, 3}, {kFellBack, 2}, {kCommunicated, 0}}, "2", 2},
        {"fell back, searched, used",
         {{kAssigning, 3}, {kFellBack, 2}, {kNotFound, 0}, {kCommunicated, 0}},
         "-",
         2},
        {"bad static values, used", {{kAssigning, 1}, {kFellBack, 3}, {kCommunicated, 0}}, "3", 3},
        {"link-local, nobody found", {{kAssigning, 2}, {kNotFound, 0}}, "3", 2},
        {"link-local, nobody found, used after all",
         {{kAssigning, 2}, {kNotFound, 0}, {kFellBack, 3}, {kAssigning, 1}, {kCommunicated, 0}},
         "2",
         2},
        {"DHCP, nobody found, used", {{kAssigning, 3}, {kNotFound, 0}, {kCommunicated, 0}}, "-", 3},
        {"used at once, then nothing counts",
         {{kAssigning, 2}, {kCommunicated, 0}, {kNotFound, 0}, {kAssigning, 3}, {kFellBack, 3}},
         "-",
         2},
        {"nothing assigned",
         {{kFellBack, 2}, {kNotFound, 0}, {kCommunicated, 0}, {kAssigning, 2}},
         "-",
         2},
    };
    for (const auto& c : cases) {
        ZelConfig config;
        config.Set(kModeKey, "-", ZelConfig::Kind::kPersistent);
        config.Save();
        DiscoverModeCtrl ignoring(config);
        DiscoverModeCtrl mode(config);
        for (const auto& [trigger, value] : c.events) {
            ignoring.Event(trigger, value);
        }
        EXPECT_EQ(config.Get(kModeKey), "-") << c.name << ": not enabled";
        EXPECT_EQ(ignoring.CurrentMode(), 0U) << c.name;
        mode.Enable();
        for (const auto& [trigger, value] : c.events) {
            mode.Event(trigger, value);
        }
        EXPECT_EQ(config.Get(kModeKey), c.mode) << c.name;
        EXPECT_EQ(SavedMode(), c.mode) << c.name;
        EXPECT_EQ(mode.CurrentMode(), c.current) << c.name;
    }
}

TEST(DiscoverModeCtrlTest, OnlyALinkLocalBoxTellsNetworksApart) {
    ZelConfig config;
    DiscoverModeCtrl mode(config);
    mode.Enable();
    EXPECT_TRUE(mode.SharesNetworkWith("10.0.0.1"));
    mode.Event(kAssigning, DiscoverModeCtrl::kLinkLocal);
    EXPECT_FALSE(mode.SharesNetworkWith("10.0.0.1"));
    EXPECT_FALSE(mode.SharesNetworkWith("169.25.4.1"));
    EXPECT_TRUE(mode.SharesNetworkWith("169.254.4.1"));
}

TEST(DiscoverModeCtrlTest, AModeThatIsFollowedTouchesNothingElse) {
    ZelConfig config;
    config.Set(kModeKey, "-", ZelConfig::Kind::kPersistent);
    DiscoverModeCtrl mode(config);
    mode.Assigned(DiscoverModeCtrl::kLinkLocal);
    EXPECT_EQ(mode.CurrentMode(), 0U);
    mode.Follow();
    mode.Assigned(DiscoverModeCtrl::kLinkLocal);
    EXPECT_EQ(mode.CurrentMode(), DiscoverModeCtrl::kLinkLocal) << "not enabled";
    mode.Enable();
    mode.Event(kNotFound);
    mode.Event(kAssigning, DiscoverModeCtrl::kStatic);
    mode.Assigned(DiscoverModeCtrl::kLinkLocal);
    mode.Event(kFellBack, DiscoverModeCtrl::kDhcp);
    EXPECT_EQ(config.Get(kModeKey), "3") << "it began static";
    mode.Assigned(DiscoverModeCtrl::kLinkLocal);
    mode.Event(kNotFound);
    EXPECT_EQ(mode.CurrentMode(), DiscoverModeCtrl::kLinkLocal);
    mode.Event(kCommunicated);
    EXPECT_EQ(config.Get(kModeKey), "3") << "it was not rewritten on the search";
}

TEST(DiscoverModeCtrlTest, EventsOfSeveralThreads) {
    ZelConfig config;
    DiscoverModeCtrl mode(config);
    mode.Enable();
    mode.Event(kAssigning, DiscoverModeCtrl::kDhcp);
    mode.Event(kFellBack, DiscoverModeCtrl::kLinkLocal);
    InFourThreads([&mode](int) {
        for (int n = 0; n < 100; ++n) {
            mode.Event(kCommunicated);
            EXPECT_EQ(mode.CurrentMode(), DiscoverModeCtrl::kLinkLocal);
        }
    });
    EXPECT_EQ(SavedMode(), "2");
}

}  // namespace
