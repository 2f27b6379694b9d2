#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ManagerAnswer.h"
#include "SoftwareUpdate.h"
#include "Support.h"

namespace {

constexpr char kTool[] = "/usr/sbin/wget";                   // found before the tool itself
constexpr char kMd5[] = "5312e17c8c92d7c946a5940990a0a9d9";  // of "an image"

const std::string kOrder =
    "<updateConfigurationExt><updateSoftware>true</updateSoftware>"
    "<updateType>Application</updateType><updateLocation><protocol>http</protocol>"
    "<ip>127.0.0.1</ip><port>8080</port><context>/app.img</context><attributes>"
    "<item><key>OTHER</key><value>x</value></item>"
    "<item><key>MD5CHKSM</key><value>5312e17c8c92d7c946a5940990a0a9d9</value></item>"
    "<item><key>FILENAME</key><value>update.img</value></item></attributes></updateLocation>"
    "<appVersion>01.02.03</appVersion><firmwareVersion>9.9.9</firmwareVersion>"
    "</updateConfigurationExt>";

/// An order with one text in it changed.
std::string With(const std::string& from, const std::string& to,
                 const std::string& order = kOrder) {
    return std::string(order).replace(order.find(from), from.size(), to);
}

class SoftwareUpdateTest : public testing::Test {
protected:
    SoftwareUpdateTest() {
        config_.Set("system.version.app", "old app", ZelConfig::Kind::kFixed);
        config_.Set("system.version.boot", "old boot", ZelConfig::Kind::kFixed);
    }

    bool Run(const std::string& content) {
        return SoftwareUpdate(ReadAnswer(content)).Run(config_, installed_);
    }

    ZelConfig config_;
    SoftwareUpdate::Installed installed_;
};

// A recorder in the place of the download tool: what reaches it, and that nothing else runs.
TEST_F(SoftwareUpdateTest, OnlyAUsableAddressReachesTheShell) {
    InstallProgram(kTool, "printf '%s\\n' \"$@\" > /tmp/wget.log");
    const std::string longest(512, 'a');
    const struct {
        const char* from;
        std::string to;
        std::string url = {};  // empty when it is refused
    } cases[] = {
        {"http", "https", "https://127.0.0.1:8080/app.img"},
        {"http", "ftp", "ftp://127.0.0.1:8080/app.img"},
        {"http", "", "http://127.0.0.1:8080/app.img"},
        {"<port>8080</port>", "", "http://127.0.0.1:80/app.img"},
        {"127.0.0.1", "[fe80::1]", "http://[fe80::1]:8080/app.img"},
        {"/app.img", "", "http://127.0.0.1:8080"},
        {"/app.img", "/a?b=c&amp;d='e';(f)*!%20~#@,+",
         "http://127.0.0.1:8080/a?b=c&d='e';(f)*!%20~#@,+"},
        {"app.img", longest.substr(0, 440), "http://127.0.0.1:8080/" + longest.substr(0, 440)},
        {"http", "file"},
        {"http", "--post-file=/config/keypass http"},
        {"<ip>127.0.0.1</ip>", ""},
        {"127.0.0.1", "user:pass@host"},
        {"127.0.0.1", "$(touch /tmp/ran)"},
        {"8080", "$PATH"},
        {"8080", "80\" ; touch /tmp/ran ; \""},
        {"app.img", "\"&amp;touch\t/tmp/ran&amp;\""},
        {"app.img", "a&#10;touch /tmp/ran"},
        {"app.img", "a\\"},
        {"app.img", "\xc3\xbc"},
        {"app.img", longest},
        {"FILENAME", "NAME"},
        {"update.img", ".."},
        {"update.img", "../config/wpa.conf"},
        {"update.img", "log/x"},
        {"update.img", "a b"},
        {"update.img", "*"},
        {"update.img", longest},
    };
    for (const auto& [from, to, url] : cases) {
        std::filesystem::remove("/tmp/wget.log");
        WriteFile("/tmp/update.img", "an image");  // it must not pass for this download's
        EXPECT_FALSE(Run(With(from, to))) << to;
        EXPECT_EQ(ReadFile("/tmp/wget.log"),
                  url.empty() ? "" : "-q\n-O\n/tmp/update.img\n" + url + "\n")
            << to;
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/ran"));
}

/// A download tool that hands out the files of a directory.
class SoftwareDownloadTest : public SoftwareUpdateTest {
protected:
    SoftwareDownloadTest() {
        WriteFile("/tmp/served/app.img", "an image");
        InstallProgram(kTool, "cp /tmp/served/${4##*/} $3");
    }

    /// The images that are started next, and the versions that the box knows of itself.
    std::vector<std::string> Software() const {
        std::vector<std::string> software;
        for (const std::string type : {"application", "firmware"}) {
            const std::filesystem::path directory = "/app/zel/images/" + type;
            const std::string slot = ReadFile(directory / "active").substr(0, 1);
            software.push_back(ReadFile(directory / slot / "image"));
        }
        software.push_back(config_.Get("system.version.app"));
        software.push_back(config_.Get("system.version.boot"));
        return software;
    }
};

TEST_F(SoftwareDownloadTest, WhatGoesWrongLeavesTheSoftware) {
    const std::vector<std::string> before = Software();
    WriteFile("/tmp/served/empty.img", "");
    for (const std::string& order :
         {With("MD5CHKSM", "SUM"), With(kMd5, std::string(kMd5).substr(0, 31)),
          With("app.img", "empty.img", With(kMd5, "d41d8cd98f00b204e9800998ecf8427e")),
          With("true", "false"), kOrder}) {
        if (order == kOrder) {  // it is right, but the slot cannot be written
            std::filesystem::remove_all("/app/zel/images/application/b/image");
            std::filesystem::create_directories("/app/zel/images/application/b/image/in the way");
        }
        EXPECT_FALSE(Run(order)) << order;
        EXPECT_EQ(Software(), before) << order;
        EXPECT_FALSE(std::filesystem::exists("/tmp/update.img")) << order << ": left behind";
    }
}

TEST_F(SoftwareDownloadTest, TheVersionIsRecordedInTheFormReadAtStartOrAsItIs) {
    const std::string longest(SoftwareUpdate::kMaxVersion, '9');
    for (const auto& [text, recorded] :
         std::vector<std::pair<std::string, std::string>>{{"1.2.3", "10203"},
                                                          {"12.34.56", "123456"},
                                                          {"0.0.1", "00001"},
                                                          {"9.9", "9.9"},
                                                          {"", "old app"},
                                                          {"1.2.100", "1.2.100"},
                                                          {"-1.2.3", "-1.2.3"},
                                                          {"99999999999.1.1", "99999999999.1.1"},
                                                          {longest, longest},
                                                          {longest + "9", "old app"},
                                                          {"9&#10;9", "old app"}}) {
        config_.Set("system.version.app", "old app", ZelConfig::Kind::kFixed);
        installed_ = {};
        EXPECT_TRUE(Run(With("01.02.03", text))) << text;
        EXPECT_EQ(config_.Get("system.version.app"), recorded) << text;
    }
}

TEST_F(SoftwareDownloadTest, AnUpdateIsInstalledOnceInARun) {
    WriteFile("/tmp/served/other.img", "other");
    const std::string other =
        With("app.img", "other.img", With(kMd5, "795f3202b17cb6bc3d4b771d8c6c9eaf"));
    const std::string newer = With("01.02.03", "10.0", other);
    for (const auto& [order, isInstalled] : {std::pair{kOrder, true},
                                             {With("01.02.03", "9.9"), false},
                                             {With("Application", "Firmware"), true},
                                             {other, false},
                                             {newer, true},
                                             {newer, false}}) {
        EXPECT_EQ(Run(order), isInstalled) << order;
    }
}

}  // namespace
