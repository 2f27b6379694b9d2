#include <sys/mount.h>

#include "Support.h"
#include "UpdateFirmware.h"

namespace {

const std::string kDirectory = "/app/zel/images/application/";

std::string ActiveSlot() {
    std::string slot;
    std::ifstream(kDirectory + "active") >> slot;
    return slot;
}

std::string ActiveImage() {
    return ReadFile(kDirectory + ActiveSlot() + "/image");
}

int State() {
    return UpdateFirmware().GetUpdateState(UpdateFirmware::APPLICATION);
}

int Update(const std::string& path) {
    return UpdateFirmware().DoUpdateFirmware(UpdateFirmware::APPLICATION, path);
}

int UpdateWith(const std::string& content) {
    WriteFile("/tmp/new.image", content);
    return Update("/tmp/new.image");
}

TEST(UpdateFirmwareTest, ImagesGoIntoTheInactiveSlot) {
    const std::string first = ActiveSlot();
    const std::string old = ActiveImage();
    for (const char* path : {"/tmp/none", "/tmp", "/dev/null"}) {
        EXPECT_EQ(Update(path), -1) << path;
        EXPECT_EQ(ActiveImage(), old);
        EXPECT_EQ(State(), UpdateFirmware::CLEAN);
    }
    EXPECT_EQ(UpdateWith("second"), 0);
    EXPECT_EQ(ActiveImage(), "second");
    EXPECT_EQ(ReadFile(kDirectory + first + "/image"), old) << "to fall back to";
    EXPECT_EQ(UpdateWith("third"), 0);
    EXPECT_EQ(ActiveSlot(), first);
    EXPECT_EQ(ActiveImage(), "third");
    EXPECT_EQ(State(), UpdateFirmware::CLEAN);

    std::filesystem::remove_all("/app/zel/images");
    EXPECT_EQ(State(), UpdateFirmware::CLEAN) << "a box that was never updated";
    EXPECT_EQ(UpdateWith("first"), 0);
    EXPECT_EQ(ActiveImage(), "first");
    WriteFile(kDirectory + "state", "what?\n");
    EXPECT_EQ(State(), UpdateFirmware::UNKNOWN);
}

TEST(UpdateFirmwareTest, AFullDiskLeavesTheActiveSlot) {
    OutputOf("cp -r /app/zel/images /tmp");
    ASSERT_EQ(mount("small", "/app/zel/images", "tmpfs", 0, "size=256k"), 0);
    ASSERT_EQ(OutputOf("cp -r /tmp/images /app/zel"), "");
    const std::string image = ActiveImage();
    EXPECT_EQ(UpdateWith(std::string(1000000, 'x')), -1);
    EXPECT_EQ(ActiveImage(), image);
    EXPECT_EQ(State(), UpdateFirmware::DIRTY) << "begun and not completed";
    EXPECT_EQ(UpdateWith("small enough"), 0);
    EXPECT_EQ(State(), UpdateFirmware::CLEAN);
}

// An updating process is killed at random moments. The active slot must always hold one of the
// images completely, and an update whose image did become active but was not concluded is dirty.
TEST(UpdateFirmwareTest, AnInterruptedUpdateLeavesACompleteSlotAndAnHonestState) {
    constexpr std::size_t kSize = 300000;
    std::mt19937 random(1);
    ASSERT_EQ(UpdateWith(std::string(kSize, 'a')), 0);
    int dirty = 0;
    for (int i = 0; i < 300; ++i) {
        const std::string before = ActiveImage();
        const std::string next(kSize, before[0] == 'a' ? 'b' : 'a');
        WriteFile("/tmp/new.image", next);
        KillAtWork(random, [] { Update("/tmp/new.image"); });
        const std::string after = ActiveImage();
        ASSERT_TRUE(after == before || after == next) << "kill " << i;
        dirty += State() == UpdateFirmware::DIRTY ? 1 : 0;
        ASSERT_NE(State(), UpdateFirmware::UNKNOWN);
    }
    EXPECT_GT(dirty, 0) << "no update was ever interrupted: the test proved nothing";
    EXPECT_EQ(UpdateWith("final"), 0);
    EXPECT_EQ(ActiveImage(), "final");
    EXPECT_EQ(State(), UpdateFirmware::CLEAN);
}

}  // namespace
