#include <unistd.h>

#include "NetworkBox.h"
#include "WpaCliInterface.h"

namespace {

using WpaCliInterfaceTest = NetworkBox;

TEST_F(WpaCliInterfaceTest, EveryOpeningHasALocalSocketOfItsOwn) {
    const char* path = "/tmp/supplicant/ctrl/w0";
    std::string last;
    WpaCliInterface client;
    EXPECT_EQ(client.Open(path), 1);
    for (const std::size_t size : {0U, 1U, 4095U, 5000U}) {  // no reply, whole ones, a cut one
        const Supplicant supplicant("w0", std::string(size, 'x'));
        EXPECT_EQ(client.Open(path), 0);
        const std::string name = OutputOf("ls /tmp | grep wpa_ctrl_");
        EXPECT_TRUE(name.starts_with("wpa_ctrl_" + std::to_string(getpid()) + "-")) << name;
        EXPECT_NE(std::exchange(last, name), name);
        std::string reply = "left over";
        EXPECT_EQ(client.Request("", reply), -1);
        EXPECT_EQ(client.Request("STATUS", reply), 0);
        EXPECT_EQ(reply, std::string(std::min<std::size_t>(size, 4095), 'x'));
        client.Close();
    }
    EXPECT_EQ(OutputOf("ls /tmp | grep wpa_ctrl_"), "");
}

}  // namespace
