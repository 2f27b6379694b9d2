#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "HandleStore.h"

TEST(HandleStoreTest, HandlesAreKeptForTheUserAlone) {
    setenv("XDG_STATE_HOME", "/tmp/state/of/user", 1);
    EXPECT_TRUE(HandleStore::Put("TAVO1", "-12"));
    EXPECT_TRUE(HandleStore::Put("TAVO1", "34"));
    EXPECT_TRUE(HandleStore::Put("TAVO2", "56"));
    EXPECT_EQ(HandleStore::Get("TAVO1"), "34");
    struct stat status {};
    ASSERT_EQ(stat("/tmp/state/of/user/zelctl", &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);
    HandleStore::Forget("TAVO1");
    EXPECT_EQ(HandleStore::Get("TAVO1"), "");
    EXPECT_EQ(HandleStore::Get("TAVO2"), "56");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/tmp/state/of/user/zelctl"), {}),
              1);
}

TEST(HandleStoreTest, NoDeviceIdLeavesTheDirectory) {
    setenv("HOME", "/root", 1);
    struct Case {
        const char* state;
        const char* id;
        const char* path;
    };
    constexpr Case kCases[] = {
        {"/s", "TAVO-1_x", "/s/zelctl/TAVO-1_x"},
        {"/s", "../../x", "/s/zelctl/%2e%2e%2f%2e%2e%2fx"},
        {"/s", "%2e\n\xff", "/s/zelctl/%252e%0a%ff"},
        {"", "T", "/root/.local/state/zelctl/T"},
        {"relative", "T", "/root/.local/state/zelctl/T"},
    };
    for (const Case& each : kCases) {
        setenv("XDG_STATE_HOME", each.state, 1);
        EXPECT_EQ(HandleStore::PathOf(each.id), each.path);
    }
    EXPECT_FALSE(HandleStore::Put("", "1"));
    unsetenv("XDG_STATE_HOME");
    unsetenv("HOME");
    EXPECT_FALSE(HandleStore::Put("T", "1"));
}
