#include <fcntl.h>

#include "MeasureDevice.h"
#include "Reboot.h"
#include "Support.h"

TEST(MeasureDeviceTest, WhatIsNoAnswerIsAFailure) {
    WriteFile("/dev/measure/0", "?\n");
    const int device = open("/dev/measure/0", O_RDWR | O_CLOEXEC);
    bool triggered = true;
    EXPECT_EQ(MeasureDevice::QueryTrigger15(device, triggered), -1);
    close(device);
    EXPECT_EQ(MeasureDevice::QueryTrigger15(-1, triggered), -1);
    EXPECT_EQ(MeasureDevice::ResetTrigger15(-1), -1);
}

TEST(RebootTest, TellsThatTheToolIsMissing) {
    // Never on the host itself: only where the tool is the box's recorder.
    ASSERT_NE(ReadFile("/sbin/reboot").find("/tmp/reboot.log"), std::string::npos);
    std::filesystem::remove("/usr/sbin/reboot");
    EXPECT_EQ(Reboot().DoReboot(), -1);
}
