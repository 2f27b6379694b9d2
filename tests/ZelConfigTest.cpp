#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include "DefaultConfiguration.h"
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
    ZelConfig config_;
};

TEST_F(ZelConfigTest, GetFollowsTheKindOfTheEntry) {
    std::string value = "left over";
    EXPECT_FALSE(config_.Get("unknown", value));
    EXPECT_EQ(value, "");

    const std::string source = "/tmp/source";
    EXPECT_TRUE(config_.Set("file", source, Kind::kFile));
    EXPECT_FALSE(config_.Get("file", value)) << "missing source";
    const struct {
        std::string text;
        bool result;
        std::string value;
    } cases[] = {
        {"", true, ""},
        {"first\nsecond\n", true, "first"},
        {"\nsecond\n", false, ""},
        {"no end", true, "no end"},
        {std::string(9000, 'x'), true, std::string(8190, 'x')},
    };
    for (const auto& c : cases) {
        WriteFile(source, c.text);
        EXPECT_EQ(config_.Get("file", value), c.result) << c.text;
        EXPECT_EQ(value, c.value);
    }

    EXPECT_FALSE(config_.Set("computed", "x", Kind::kComputed));
    EXPECT_FALSE(config_.Get("computed", value)) << "marked computed, but nobody computes";
    config_.Register("computed", [](const std::string& key, std::string& out) {
        out = "value of " + key;
        return true;
    });
    EXPECT_EQ(config_.Get("computed"), "value of computed");
}

TEST_F(ZelConfigTest, RegisterLeavesTheKindOfAnExistingEntry) {
    const auto provider = [](const std::string&, std::string& out) {
        out = "computed";
        return true;
    };
    config_.Set("fixed", "stored", Kind::kFixed);
    EXPECT_TRUE(config_.Register("fixed", provider));
    EXPECT_TRUE(config_.Register("new", provider));
    EXPECT_EQ(config_.Get("fixed"), "stored");
    EXPECT_EQ(config_.Get("new"), "computed");
}

TEST_F(ZelConfigTest, ProvidersMayUseTheStore) {
    config_.Set("a", "1", Kind::kFixed);
    config_.Register("b", [this](const std::string&, std::string& out) {
        config_.Set("c", "2", Kind::kFixed);
        return config_.Get("a", out);
    });
    EXPECT_EQ(config_.Get("b"), "1");
}

TEST_F(ZelConfigTest, LoadScansLines) {
    const std::string longLine = "long=" + std::string(8191 - 5, 'x') + "rest=split\n";
    WriteFile(kFile, "\n\n#comment=1\nno separator\na=b=c\n\n   \nempty=\n=nameless\n" + longLine +
                         "trailing=blank \nlast=no line end");
    ASSERT_TRUE(config_.Load());
    EXPECT_EQ(config_.Get("a"), "b=c");
    std::string value = "x";
    EXPECT_TRUE(config_.Get("empty", value));
    EXPECT_EQ(value, "");
    EXPECT_EQ(config_.Get(""), "nameless");
    EXPECT_EQ(config_.Get("long"), std::string(8191 - 5, 'x'));
    EXPECT_EQ(config_.Get("rest"), "split");
    EXPECT_EQ(config_.Get("trailing"), "blank ");
    EXPECT_EQ(config_.Get("last"), "no line end");
    EXPECT_FALSE(config_.Get("#comment", value));
    EXPECT_FALSE(config_.Get("no separator", value));
}

TEST_F(ZelConfigTest, LoadFallsBackToTheOldFileAndThenToTheDefaults) {
    WriteFile(kFile + ".old", "tavo.hostname=old\n");
    ASSERT_TRUE(config_.Load());
    EXPECT_EQ(config_.Get("tavo.hostname"), "old");
    EXPECT_FALSE(std::filesystem::exists(kFile));

    std::filesystem::remove(kFile + ".old");
    ASSERT_TRUE(config_.Load());
    EXPECT_EQ(config_.Get("tavo.hostname"), "TAVO");
    EXPECT_EQ(config_.Get("UNDEFINED"), "DOES\\ NOT\\ EXIST");
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

    ZelConfig again;
    ASSERT_TRUE(again.Load());
    EXPECT_EQ(again.Get("opla.mode"), "");
    EXPECT_EQ(again.Get("b"), "2");
}

TEST_F(ZelConfigTest, SaveThatCannotBeWrittenLeavesTheFile) {
    WriteFile(kFile, "before=1\n");
    config_.Set("a", "1", Kind::kPersistent);
    // A directory in the place of the new file cannot be opened for writing.
    std::filesystem::create_directory(kFile + ".new");
    EXPECT_FALSE(config_.Save());
    EXPECT_EQ(ReadFile(kFile), "before=1\n");

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
    EXPECT_EQ(std::filesystem::status(WlanMacFile::kPath).permissions(),
              std::filesystem::perms(0644));
    EXPECT_EQ(umount("/config"), 0);
}

// A process that saves without pause is killed at a random moment, a thousand times: whatever is
// then on disk, loading it gives all keys, each at a value that had been saved or was being saved.
TEST_F(ZelConfigTest, AKilledSaveLosesNothing) {
    constexpr int kKills = 1000;
    constexpr int kKeys = 50;
    constexpr int kMaxDelayMicroseconds = 3000;
    const auto key = [](int i) { return "key." + std::to_string(i); };
    const auto fill = [&key](ZelConfig& config, long generation) {
        for (int i = 0; i < kKeys; ++i) {
            config.Set(key(i), std::to_string(generation), Kind::kPersistent);
        }
    };
    fill(config_, 0);
    ASSERT_TRUE(config_.Save());

    std::mt19937 random(1);
    std::uniform_int_distribution<useconds_t> delay(0, kMaxDelayMicroseconds);
    long last = 0;
    for (int kill = 0; kill < kKills; ++kill) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ZelConfig saver;
            for (long generation = last + 1;; ++generation) {
                fill(saver, generation);
                saver.Save();
            }
        }
        usleep(delay(random));
        ::kill(child, SIGKILL);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);

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
            config_.Set("shared", std::string(100, static_cast<char>('a' + t)), Kind::kFixed);
            const std::string shared = config_.Get("shared");
            EXPECT_EQ(shared, std::string(100, shared[0])) << "torn value";
            EXPECT_EQ(config_.Get(own), std::to_string(i));
        }
        EXPECT_TRUE(config_.Save());
    });
    ZelConfig loaded;
    ASSERT_TRUE(loaded.Load());
    EXPECT_EQ(loaded.Get("own.3"), "199");
}

}  // namespace
