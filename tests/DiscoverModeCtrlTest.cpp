#include <gtest/gtest.h>

#include <sstream>

#include "DiscoverModeCtrl.h"
#include "Support.h"

namespace {

using Trigger = DiscoverModeCtrl::Trigger;

/// A store whose mode nobody has written.
struct Store : ZelConfig {
    Store() { Set(StoreKeys::kAddressMode, "-", Kind::kPersistent); }
    std::string Mode() const { return Get(StoreKeys::kAddressMode); }
};

/// The mode that the next start finds.
std::string SavedMode() {
    ZelConfig config;
    config.Load();
    return config.Get(StoreKeys::kAddressMode);
}

/// Events in words of two digits: the trigger and the mode.
void Feed(DiscoverModeCtrl& mode, const std::string& events) {
    std::istringstream words(events);
    for (std::string word; words >> word;) {
        mode.Event(static_cast<Trigger>(word[0] - '0'), static_cast<AddressMode>(word[1] - '0'));
    }
}

TEST(DiscoverModeCtrlTest, TheModeOfTheNextStart) {
    const std::tuple<const char*, const char*, const char*, AddressMode> cases[] = {
        {"static values invalid", "01 13", "3", AddressMode::kDhcp},
        {"a fall-back to DHCP that did not begin static", "03 13", "-", AddressMode::kDhcp},
        {"static, restarted", "01 03 13", "3", AddressMode::kDhcp},
        {"fell back, not used yet", "03 12", "-", AddressMode::kLinkLocal},
        {"fell back and used", "03 12 30", "2", AddressMode::kLinkLocal},
        {"fell back, searched, used", "03 12 20 30", "-", AddressMode::kLinkLocal},
        {"bad static values, used", "01 13 30", "3", AddressMode::kDhcp},
        {"link-local, nobody found", "02 20", "3", AddressMode::kLinkLocal},
        {"the same, used after all", "02 20 13 01 30", "2", AddressMode::kLinkLocal},
        {"DHCP, nobody found, used", "03 20 30", "-", AddressMode::kDhcp},
        {"used at once, then nothing counts", "02 30 20 03 13", "-", AddressMode::kLinkLocal},
        {"nothing assigned", "12 20 30 02", "-", AddressMode::kLinkLocal},
    };
    for (const auto& [name, events, next, current] : cases) {
        SCOPED_TRACE(name);
        Store store;
        EXPECT_TRUE(store.Save());
        DiscoverModeCtrl mode(store);
        Feed(mode, events);
        EXPECT_EQ(store.Mode(), "-") << "not enabled";
        EXPECT_EQ(mode.CurrentMode(), AddressMode::kConfigured);
        mode.Enable();
        Feed(mode, events);
        EXPECT_EQ(store.Mode(), next);
        EXPECT_EQ(SavedMode(), next);
        EXPECT_EQ(mode.CurrentMode(), current);
    }
}

TEST(DiscoverModeCtrlTest, AModeThatIsFollowedTouchesNothingElse) {
    Store store;
    DiscoverModeCtrl mode(store);
    mode.Assigned(AddressMode::kLinkLocal);
    EXPECT_EQ(mode.CurrentMode(), AddressMode::kConfigured);
    mode.Follow();
    mode.Assigned(AddressMode::kLinkLocal);
    EXPECT_EQ(mode.CurrentMode(), AddressMode::kLinkLocal) << "not enabled";
    mode.Enable();
    Feed(mode, "20 01");
    mode.Assigned(AddressMode::kLinkLocal);
    Feed(mode, "13");
    EXPECT_EQ(store.Mode(), "3") << "it began static";
    mode.Assigned(AddressMode::kLinkLocal);
    Feed(mode, "20");
    EXPECT_EQ(mode.CurrentMode(), AddressMode::kLinkLocal);
    Feed(mode, "30");
    EXPECT_EQ(store.Mode(), "3") << "it was not rewritten on the search";
}

TEST(DiscoverModeCtrlTest, EventsOfSeveralThreads) {
    Store store;
    DiscoverModeCtrl mode(store);
    mode.Enable();
    Feed(mode, "03 12");
    InFourThreads([&mode](int) {
        for (int n = 0; n < 100; ++n) {
            mode.Event(Trigger::kCommunicated);
            EXPECT_EQ(mode.CurrentMode(), AddressMode::kLinkLocal);
        }
    });
    EXPECT_EQ(SavedMode(), "2");
}

}  // namespace
