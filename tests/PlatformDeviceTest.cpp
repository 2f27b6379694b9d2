#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "MeasureDevice.h"
#include "Reboot.h"

namespace {

TEST(MeasureDeviceTest, TheEdgeStaysUntilItIsReset) {
    const std::string path = "/dev/measure/0";
    const int device = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(device, 0);
    bool triggered = true;
    EXPECT_EQ(MeasureDevice::QueryTrigger15(device, triggered), 0);
    EXPECT_FALSE(triggered);
    std::ofstream(path) << "1\n";
    EXPECT_EQ(MeasureDevice::QueryTrigger15(device, triggered), 0);
    EXPECT_TRUE(triggered);
    EXPECT_EQ(MeasureDevice::ResetTrigger15(device), 0);
    EXPECT_EQ(MeasureDevice::QueryTrigger15(device, triggered), 0);
    EXPECT_FALSE(triggered);
    std::ofstream(path) << "?\n";
    EXPECT_EQ(MeasureDevice::QueryTrigger15(device, triggered), -1);
    close(device);
    EXPECT_EQ(MeasureDevice::QueryTrigger15(-1, triggered), -1);
    EXPECT_EQ(MeasureDevice::ResetTrigger15(-1), -1);
}

class RebootTest : public testing::Test {
protected:
    // Never on the host itself: only where the tool is the box's recorder.
    void SetUp() override {
        std::string tool(4096, '\0');
        std::ifstream("/sbin/reboot").read(tool.data(), static_cast<std::streamsize>(tool.size()));
        ASSERT_NE(tool.find("/tmp/reboot.log"), std::string::npos) << "run this in a simulated box";
    }
};

TEST_F(RebootTest, AsksTheSystem) {
    EXPECT_EQ(Reboot().DoReboot(), 0);
    for (int i = 0; i < 1000 && !std::filesystem::exists("/tmp/reboot.log"); ++i) {
        usleep(10000);
    }
    EXPECT_TRUE(std::filesystem::exists("/tmp/reboot.log"));
}

TEST_F(RebootTest, TellsThatTheToolIsMissing) {
    std::filesystem::remove("/usr/sbin/reboot");
    EXPECT_EQ(Reboot().DoReboot(), -1);
}

}  // namespace
