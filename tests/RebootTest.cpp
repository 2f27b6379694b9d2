#include "Reboot.h"
#include "Support.h"

TEST(RebootTest, TellsThatTheToolIsMissing) {
    // Never on the host itself: only where the tool is the box's recorder.
    ASSERT_NE(ReadFile("/sbin/reboot").find("/tmp/reboot.log"), std::string::npos);
    std::filesystem::remove("/usr/sbin/reboot");
    EXPECT_EQ(Reboot().DoReboot(), -1);
}
