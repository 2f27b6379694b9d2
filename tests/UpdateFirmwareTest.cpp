#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

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

std::string NewImage(const std::string& content) {
    std::string path = "/tmp/new.image";
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

int State() {
    return UpdateFirmware().GetUpdateState(UpdateFirmware::APPLICATION);
}

int Update(const std::string& path) {
    return UpdateFirmware().DoUpdateFirmware(UpdateFirmware::APPLICATION, path);
}

TEST(UpdateFirmwareTest, ImagesGoIntoTheInactiveSlot) {
    const std::string first = ActiveSlot();
    const std::string old = ActiveImage();
    EXPECT_EQ(State(), UpdateFirmware::CLEAN);
    EXPECT_EQ(Update(NewImage("second")), 0);
    EXPECT_NE(ActiveSlot(), first);
    EXPECT_EQ(ActiveImage(), "second");
    EXPECT_EQ(ReadFile(kDirectory + first + "/image"), old) << "to fall back to";
    EXPECT_EQ(Update(NewImage("third")), 0);
    EXPECT_EQ(ActiveSlot(), first);
    EXPECT_EQ(ActiveImage(), "third");
    EXPECT_EQ(State(), UpdateFirmware::CLEAN);
    EXPECT_EQ(UpdateFirmware().GetUpdateState(UpdateFirmware::FIRMWARE), UpdateFirmware::CLEAN);

    std::filesystem::remove_all("/app/zel/images");
    EXPECT_EQ(State(), UpdateFirmware::CLEAN) << "a box that was never updated";
    EXPECT_EQ(Update(NewImage("first")), 0);
    EXPECT_EQ(ActiveImage(), "first");
    std::ofstream(kDirectory + "state") << "what?\n";
    EXPECT_EQ(State(), UpdateFirmware::UNKNOWN);
}

TEST(UpdateFirmwareTest, WhatIsNoImageChangesNothing) {
    const std::string image = ActiveImage();
    for (const std::string& path : {std::string("/tmp/none"), std::string("/tmp"), NewImage("")}) {
        EXPECT_EQ(Update(path), -1) << path;
        EXPECT_EQ(ActiveImage(), image);
        EXPECT_EQ(State(), UpdateFirmware::CLEAN);
    }
}

TEST(UpdateFirmwareTest, AFullDiskLeavesTheActiveSlot) {
    std::filesystem::copy("/app/zel/images", "/tmp/images",
                          std::filesystem::copy_options::recursive);
    ASSERT_EQ(mount("small", "/app/zel/images", "tmpfs", 0, "size=256k"), 0);
    std::filesystem::copy("/tmp/images", "/app/zel/images",
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::overwrite_existing);
    const std::string slot = ActiveSlot();
    const std::string image = ActiveImage();
    EXPECT_EQ(Update(NewImage(std::string(1000000, 'x'))), -1);
    EXPECT_EQ(ActiveSlot(), slot);
    EXPECT_EQ(ActiveImage(), image);
    EXPECT_EQ(State(), UpdateFirmware::DIRTY) << "begun and not completed";
    EXPECT_EQ(Update(NewImage("small enough")), 0);
    EXPECT_EQ(State(), UpdateFirmware::CLEAN);
}

// An updating process is killed at random moments. The active slot must always hold one of the
// images completely, and an update whose image did become active but was not concluded is dirty.
TEST(UpdateFirmwareTest, AnInterruptedUpdateLeavesACompleteSlotAndAnHonestState) {
    constexpr int kKills = 300;
    constexpr std::size_t kSize = 300000;
    std::mt19937 random(1);
    std::uniform_int_distribution<useconds_t> delay(0, 3000);
    ASSERT_EQ(Update(NewImage(std::string(kSize, 'a'))), 0);
    int dirty = 0;
    for (int i = 0; i < kKills; ++i) {
        const std::string before = ActiveImage();
        const std::string next(kSize, before[0] == 'a' ? 'b' : 'a');
        const std::string path = NewImage(next);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            Update(path);
            _exit(0);
        }
        usleep(delay(random));
        kill(child, SIGKILL);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        const std::string after = ActiveImage();
        ASSERT_TRUE(after == before || after == next) << "kill " << i;
        dirty += State() == UpdateFirmware::DIRTY ? 1 : 0;
        ASSERT_NE(State(), UpdateFirmware::UNKNOWN);
    }
    EXPECT_GT(dirty, 0) << "no update was ever interrupted: the test proved nothing";
    EXPECT_EQ(Update(NewImage("final")), 0);
    EXPECT_EQ(ActiveImage(), "final");
    EXPECT_EQ(State(), UpdateFirmware::CLEAN);
}

}  // namespace
