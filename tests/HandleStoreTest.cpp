#include "HandleStore.h"
#include "Support.h"

TEST(HandleStoreTest, HandlesAreKeptForTheUserAlone) {
    setenv("XDG_STATE_HOME", "/tmp/state/of/user", 1);
    for (const auto& [id, handle] : Table<const char*, const char*>{
             {"TAVO1", "-12"}, {"TAVO1", "34"}, {"TAVO2", "56"}, {"TAVO3", "7"}}) {
        EXPECT_TRUE(HandleStore::Put(id, handle));
        EXPECT_EQ(HandleStore::Get(id), handle);
    }
    HandleStore::Forget("TAVO1");
    EXPECT_EQ(HandleStore::Get("TAVO1"), "");
    EXPECT_EQ(OutputOf("cd /tmp/state/of/user; stat -c %a zelctl; ls zelctl"),
              "700\nTAVO2\nTAVO3\n");
}

TEST(HandleStoreTest, NoDeviceIdLeavesTheDirectory) {
    setenv("HOME", "/root", 1);
    for (const auto& [state, id, path] : Table<const char*, const char*, const char*>{
             {"/s", "TAVO-1_x", "/s/zelctl/TAVO-1_x"},
             {"/s", "../../x", "/s/zelctl/%2e%2e%2f%2e%2e%2fx"},
             {"/s", "%2e\n\xff", "/s/zelctl/%252e%0a%ff"},
             {"", "T", "/root/.local/state/zelctl/T"},
             {"relative", "T", "/root/.local/state/zelctl/T"}}) {
        setenv("XDG_STATE_HOME", state, 1);
        EXPECT_EQ(HandleStore::PathOf(id), path);
    }
    EXPECT_FALSE(HandleStore::Put("", "1"));
    unsetenv("XDG_STATE_HOME");
    unsetenv("HOME");
    EXPECT_FALSE(HandleStore::Put("T", "1"));
}
