#include "HandleStore.h"
#include "Support.h"

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
