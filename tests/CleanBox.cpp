#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

constexpr char kLayers[] = "/layers";
/// Folders that a test may write to, and what is mounted below them.
constexpr const char* kFolders[] = {"/app", "/config", "/etc", "/proc/bus", "/proc/sys", "/run", "/tmp", "/usr", "/var"};
constexpr const char* kMounts[] = {"/run/netns", "/proc/sys/net"};

/// Gives every test the files of a fresh box: what it writes goes into layers above the box's
/// folders, which are taken away behind it.
class CleanBox : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        std::filesystem::create_directory(kLayers);
        Mount("layers", kLayers, "tmpfs", 0, "mode=755");
        for (const char* folder : kMounts) {
            Mount(folder, Layer(folder), nullptr, MS_BIND | MS_REC, "");
        }
        for (const std::string folder : kFolders) {
            Mount("overlay", folder, "overlay", 0,
                  "userxattr,lowerdir=" + folder + ",upperdir=" + Layer(folder + ".upper") +
                      ",workdir=" + Layer(folder + ".work"));
        }
        for (const char* folder : kMounts) {
            Mount(Layer(folder), folder, nullptr, MS_BIND | MS_REC, "");
        }
    }

    void OnTestEnd(const testing::TestInfo&) override {
        for (const std::string folder : kFolders) {
            Unmount(folder);
        }
        Unmount(kLayers);
    }

    /// The folder of that layer, made when there is none.
    static std::string Layer(std::string name) {
        std::replace(name.begin(), name.end(), '/', '-');
        const std::string path = std::string(kLayers) + "/" + name;
        std::filesystem::create_directory(path);
        return path;
    }

    static void Mount(const std::string& what, const std::string& folder, const char* type,
                      unsigned long flags, const std::string& options) {
        EXPECT_EQ(mount(what.c_str(), folder.c_str(), type, flags, options.c_str()), 0)
            << folder << ": " << std::strerror(errno);
    }

    static void Unmount(const std::string& folder) {
        EXPECT_EQ(umount2(folder.c_str(), MNT_DETACH), 0) << folder << ": " << std::strerror(errno);
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new CleanBox);
    return RUN_ALL_TESTS();
}
