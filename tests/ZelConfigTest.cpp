#include <sys/mount.h>

#include <algorithm>

#include "DefaultConfiguration.h"
#include "DurableFile.h"
#include "Support.h"
#include "WlanMacFile.h"
#include "ZelConfig.h"

namespace {

using Kind = ZelConfig::Kind;

const std::string kFile = ZelConfig::kConfigurationFile;

class ZelConfigTest : public testing::Test {
protected:
    void SetUp() override {
        for (const char* suffix : {"", ".old", ".new"}) {
            std::filesystem::remove(kFile + suffix);
        }
    }

    /// What a get gives: its value, or "-" when there is none.
    std::string Get(const std::string& key) const {
        std::string value = "left over";
        const bool isThere = config_.Get(key, value);
        EXPECT_TRUE(isThere || value.empty()) << key;
        return isThere ? value : "-";
    }

    ZelConfig config_;
};

TEST_F(ZelConfigTest, GetFollowsTheKindOfTheEntry) {
    EXPECT_TRUE(config_.Set("file", "/tmp/source", Kind::kFile));
    EXPECT_EQ(Get("file"), "-") << "missing source";
    for (const auto& [text, value] :
         Table<std::string, std::string>{{"", ""},
                                         {"first\nsecond\n", "first"},
                                         {"\nsecond\n", "-"},
                                         {"no end", "no end"},
                                         {std::string("zero\0byte", 9), "zero"},
                                         {std::string(9000, 'x'), std::string(8190, 'x')}}) {
        WriteFile("/tmp/next", text);
        std::filesystem::rename("/tmp/next", "/tmp/source");
        EXPECT_EQ(Get("file"), value);
    }
    std::filesystem::remove("/tmp/source");
    EXPECT_EQ(Get("file"), "-") << "no source any more";
    const std::string process = OutputOf("sleep 60 > /dev/null 2>&1 & printf $!");
    EXPECT_TRUE(config_.Set("file", "/proc/" + process + "/comm", Kind::kFile));
    EXPECT_TRUE(Eventually([this] { return Get("file") == "sleep"; }));
    OutputOf("kill " + process);
    EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists("/proc/" + process); }));
    EXPECT_EQ(Get("file"), "-") << "the kernel has taken it away";

    EXPECT_FALSE(config_.Set("computed", "x", Kind::kComputed));
    EXPECT_EQ(Get("computed"), "-") << "marked computed, but nobody computes";
    config_.Set("fixed", "stored", Kind::kFixed);
    for (const char* key : {"computed", "fixed"}) {
        EXPECT_TRUE(config_.Register(key, [this](const std::string& name, std::string& out) {
            config_.Set("set by a provider", "1", Kind::kFixed);
            out = name + Get("set by a provider");
            return true;
        }));
    }
    EXPECT_EQ(Get("computed"), "computed1");
    EXPECT_EQ(Get("fixed"), "stored") << "its kind stays";
}

TEST_F(ZelConfigTest, LoadScansLines) {
    const std::string longValue(8191 - 5, 'x');
    WriteFile(kFile, "\n\n#comment=1\nno separator\na=b=c\n\n   \nempty=\n=nameless\nlong=" +
                         longValue + "rest=split\ntrailing=blank \nlast=no line end");
    ASSERT_TRUE(config_.Load());
    for (const auto& [key, value] : Table<const char*, std::string>{{"a", "b=c"},
                                                                    {"empty", ""},
                                                                    {"", "nameless"},
                                                                    {"long", longValue},
                                                                    {"rest", "split"},
                                                                    {"trailing", "blank "},
                                                                    {"last", "no line end"},
                                                                    {"#comment", "-"},
                                                                    {"no separator", "-"}}) {
        EXPECT_EQ(Get(key), value) << key;
    }
}

TEST_F(ZelConfigTest, LoadFallsBackToTheOldFileAndThenToTheDefaults) {
    WriteFile(kFile + ".old", "tavo.hostname=old\n");
    ASSERT_TRUE(config_.Load());
    EXPECT_EQ(Get("tavo.hostname"), "old");
    EXPECT_FALSE(std::filesystem::exists(kFile));

    std::filesystem::remove(kFile + ".old");
    ASSERT_TRUE(config_.Load());
    EXPECT_EQ(Get("tavo.hostname"), "TAVO");
    EXPECT_EQ(Get("UNDEFINED"), "DOES\\ NOT\\ EXIST");
    EXPECT_EQ(ReadFile(kFile), kDefaultConfiguration);
    EXPECT_EQ(std::count(kDefaultConfiguration.begin(), kDefaultConfiguration.end(), '\n'), 90);
}

TEST_F(ZelConfigTest, SaveWritesPersistentEntriesInKeyOrder) {
    config_.Set("b", "2", Kind::kPersistent);
    config_.Set("B", "1", Kind::kPersistent);
    config_.Set("live", "x", Kind::kFixed);
    config_.Set("file", "/etc/hostname", Kind::kFile);
    config_.Set("breaks", "x\nopla.mode=OPLA-Next", Kind::kPersistent);
    config_.Set("long", std::string(9000, 'x') + "=y", Kind::kPersistent);
    WriteFile(kFile, "before=1\n");
    ASSERT_TRUE(config_.Save());
    EXPECT_EQ(ReadFile(kFile),
              "B=1\nb=2\nbreaks=x opla.mode=OPLA-Next\nlong=" + std::string(8191 - 5, 'x') + "\n");
    EXPECT_EQ(ReadFile(kFile + ".old"), "before=1\n");
    EXPECT_FALSE(std::filesystem::exists(kFile + ".new"));
}

TEST_F(ZelConfigTest, SaveThatCannotBeWrittenLeavesTheFile) {
    WriteFile(kFile, "before=1\n");
    config_.Set("a", "1", Kind::kPersistent);
    // A directory in the place of the new file cannot be opened for writing.
    std::filesystem::create_directory(kFile + ".new");
    EXPECT_FALSE(config_.Save());
    EXPECT_EQ(ReadFile(kFile), "before=1\n");

    // A device takes what is written, but cannot force it to a disk.
    std::filesystem::create_symlink("/dev/null", "/tmp/device");
    EXPECT_FALSE(DurableFile::Write("/tmp/device", "text", 0666));

    // A file that is mounted is neither renamed nor replaced.
    std::filesystem::remove(kFile + ".new");
    ASSERT_EQ(mount(kFile.c_str(), kFile.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_FALSE(config_.Save());
    EXPECT_FALSE(config_.WriteDefaults());
    EXPECT_EQ(umount(kFile.c_str()), 0);
    EXPECT_EQ(ReadFile(kFile), "before=1\n");
    EXPECT_FALSE(std::filesystem::exists(kFile + ".new"));
}

TEST(WlanMacFileTest, AppearsAsAWholeOrNotAtAll) {
    const auto find = [] { return "02:00:00:00:00:01"; };
    ASSERT_EQ(mount("full", "/config", "tmpfs", 0, "size=8k"), 0);
    WriteFile("/config/filler", std::string(8192, 'x'));
    WlanMacFile::Ensure(find);
    std::filesystem::remove("/config/filler");
    EXPECT_TRUE(std::filesystem::is_empty("/config"));
    WlanMacFile::Ensure(find);
    EXPECT_EQ(ReadFile(WlanMacFile::kPath), "02:00:00:00:00:01");
    EXPECT_EQ(OutputOf(std::string("stat -c %a ") + WlanMacFile::kPath), "644\n");
    EXPECT_EQ(umount("/config"), 0);
}

// A process that saves without pause is killed at a random moment, a thousand times: whatever is
// then on disk, loading it gives all keys, each at a value that had been saved or was being saved.
TEST_F(ZelConfigTest, AKilledSaveLosesNothing) {
    constexpr int kKeys = 50;
    const auto key = [](int i) { return "key." + std::to_string(i); };
    const auto fill = [&key](ZelConfig& config, long generation) {
        for (int i = 0; i < kKeys; ++i) {
            config.Set(key(i), std::to_string(generation), Kind::kPersistent);
        }
    };
    fill(config_, 0);
    ASSERT_TRUE(config_.Save());

    std::mt19937 random(1);
    long last = 0;
    for (int kill = 0; kill < 1000; ++kill) {
        KillAtWork(random, [&fill, last] {
            ZelConfig saver;
            for (long generation = last + 1;; ++generation) {
                fill(saver, generation);
                saver.Save();
            }
        });
        ZelConfig loaded;
        ASSERT_TRUE(loaded.Load());
        const std::string generation = loaded.Get(key(0));
        for (int i = 0; i < kKeys; ++i) {
            ASSERT_EQ(loaded.Get(key(i)), generation) << "kill " << kill << " key " << i;
        }
        ASSERT_GE(std::stol(generation), last) << "kill " << kill << ": an older state came back";
        last = std::stol(generation);
        ASSERT_TRUE(loaded.Save());
    }
    EXPECT_GT(last, 0) << "no save was ever completed: the test proved nothing";
}

TEST_F(ZelConfigTest, ManyThreadsAtOnce) {
    InFourThreads([this](int t) {
        const std::string own = "own." + std::to_string(t);
        for (int i = 0; i < 200; ++i) {
            config_.Set(own, std::to_string(i), Kind::kPersistent);
            config_.Set("shared", std::string(1000000, static_cast<char>('a' + t)), Kind::kFixed);
            const std::string shared = config_.Get("shared");
            EXPECT_TRUE(shared == std::string(1000000, shared[0])) << "torn value";
            EXPECT_EQ(config_.Get(own), std::to_string(i));
        }
        EXPECT_TRUE(config_.Save());
    });
    ZelConfig loaded;
    ASSERT_TRUE(loaded.Load());
    EXPECT_EQ(loaded.Get("own.3"), "199");
}

}  // namespace
