#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ManagerAnswer.h"
#include "SoftwareUpdate.h"
#include "Support.h"

namespace {

namespace fs = std::filesystem;

constexpr char kServed[] = "/tmp/served";
constexpr char kTool[] = "/usr/sbin/wget";                   // found before the tool itself
constexpr char kMd5[] = "5312e17c8c92d7c946a5940990a0a9d9";  // of "an image"

/// What an order says; an element that is "-" is left out.
struct Order {
    std::string type = "Application";
    std::string protocol = "-";
    std::string ip = "127.0.0.1";
    std::string port = "8080";
    std::string context = "/app.img";
    std::string md5 = kMd5;
    std::string fileName = "update.img";
    std::string version = "01.02.03";
    std::string updateSoftware = "true";
};

std::string Element(const std::string& name, const std::string& value) {
    return value == "-" ? "" : "<" + name + ">" + value + "</" + name + ">";
}

std::string ToXml(const Order& order) {
    const auto item = [](const std::string& key, const std::string& value) {
        return "<item><key>" + key + "</key>" + Element("value", value) + "</item>";
    };
    const std::string attributes = "<attributes>" + item("OTHER", "x") +
                                   item("MD5CHKSM", order.md5) + item("FILENAME", order.fileName) +
                                   "</attributes>";
    const std::string version = order.type == "Application" ? "appVersion" : "firmwareVersion";
    const std::string otherVersion = order.type == "Application" ? "firmwareVersion" : "appVersion";
    return "<updateConfigurationExt>" + Element("updateSoftware", order.updateSoftware) +
           Element("updateType", order.type) + "<updateLocation>" +
           Element("protocol", order.protocol) + Element("ip", order.ip) +
           Element("port", order.port) + Element("context", order.context) + attributes +
           "</updateLocation>" + Element(version, order.version) + Element(otherVersion, "9.9.9") +
           "</updateConfigurationExt>";
}

/// Value of an order with this one member changed.
Order With(std::string Order::*member, const std::string& value) {
    Order order;
    order.*member = value;
    return order;
}

class SoftwareUpdateTest : public testing::Test {
protected:
    SoftwareUpdateTest() {
        config_.Set("system.version.app", "old app", ZelConfig::Kind::kFixed);
        config_.Set("system.version.boot", "old boot", ZelConfig::Kind::kFixed);
    }

    bool Run(const std::string& content) {
        const ManagerAnswer answer(content);
        EXPECT_NE(answer.Root(), nullptr) << content;
        return SoftwareUpdate(answer.Root()).Run(config_, installed_);
    }

    static std::string ActiveImage(const std::string& type) {
        const std::string directory = "/app/zel/images/" + type + "/";
        std::string slot;
        std::ifstream(directory + "active") >> slot;
        return ReadFile(directory + slot + "/image");
    }

    ZelConfig config_;
    SoftwareUpdate::Installed installed_;
};

// A recorder in the place of the download tool: what reaches it, and that nothing else runs.
TEST_F(SoftwareUpdateTest, OnlyAUsableAddressReachesTheShell) {
    InstallProgram(kTool, "printf '%s\\n' \"$@\" > /tmp/wget.log");
    const std::string longest(512, 'a');
    const struct {
        Order order;
        std::string url = {};  // empty when it is refused
    } cases[] = {
        {Order{}, "http://127.0.0.1:8080/app.img"},
        {With(&Order::protocol, "https"), "https://127.0.0.1:8080/app.img"},
        {With(&Order::protocol, "ftp"), "ftp://127.0.0.1:8080/app.img"},
        {With(&Order::protocol, ""), "http://127.0.0.1:8080/app.img"},
        {With(&Order::port, "-"), "http://127.0.0.1:80/app.img"},
        {With(&Order::ip, "[fe80::1]"), "http://[fe80::1]:8080/app.img"},
        {With(&Order::context, "-"), "http://127.0.0.1:8080"},
        {With(&Order::context, "/a?b=c&amp;d='e';(f)*!%20~#@,+"),
         "http://127.0.0.1:8080/a?b=c&d='e';(f)*!%20~#@,+"},
        {With(&Order::context, "/" + longest.substr(0, 440)),
         "http://127.0.0.1:8080/" + longest.substr(0, 440)},
        {With(&Order::protocol, "file")},
        {With(&Order::protocol, "--post-file=/config/keypass http")},
        {With(&Order::ip, "-")},
        {With(&Order::ip, "user:pass@host")},
        {With(&Order::ip, "$(touch /tmp/ran)")},
        {With(&Order::port, "$PATH")},
        {With(&Order::port, "80\" ; touch /tmp/ran ; \"")},
        {With(&Order::context, "/$(touch${IFS}/tmp/ran)")},
        {With(&Order::context, "/\"&amp;touch\t/tmp/ran&amp;\"")},
        {With(&Order::context, "/a&#10;touch /tmp/ran")},
        {With(&Order::context, "/a\\")},
        {With(&Order::context, "/\xc3\xbc")},
        {With(&Order::context, "/" + longest)},
        {With(&Order::fileName, "-")},
        {With(&Order::fileName, "")},
        {With(&Order::fileName, "..")},
        {With(&Order::fileName, "../config/wpa.conf")},
        {With(&Order::fileName, "a b")},
        {With(&Order::fileName, "$(reboot)")},
        {With(&Order::fileName, "*")},
        {With(&Order::fileName, longest)},
    };
    for (const auto& [order, url] : cases) {
        fs::remove("/tmp/wget.log");
        // What an earlier download has left must not pass for this one.
        std::ofstream("/tmp/update.img") << "an image";
        EXPECT_FALSE(Run(ToXml(order))) << ToXml(order);
        const std::string refused;
        const std::string arguments = "-q\n-O\n/tmp/update.img\n" + url + "\n";
        EXPECT_EQ(ReadFile("/tmp/wget.log"), url.empty() ? refused : arguments) << ToXml(order);
    }
    EXPECT_FALSE(fs::exists("/tmp/ran"));
    fs::remove(kTool);
}

/// A download tool that hands out the files of a directory.
class SoftwareDownloadTest : public SoftwareUpdateTest {
protected:
    SoftwareDownloadTest() {
        WriteFile(std::string(kServed) + "/app.img", "an image");
        InstallProgram(kTool, std::string("cp ") + kServed + "/${4##*/} $3");
    }
    ~SoftwareDownloadTest() override { fs::remove(kTool); }

    /// The images that are started next, and the versions that the box knows of itself.
    void ExpectSoftware(const std::vector<std::string>& expected, const std::string& name) const {
        const std::vector<std::string> present = {
            ActiveImage("application"), config_.Get("system.version.app"), ActiveImage("firmware"),
            config_.Get("system.version.boot")};
        EXPECT_EQ(present, expected) << name;
        EXPECT_FALSE(fs::exists("/tmp/update.img")) << name << ": left behind";
    }
};

TEST_F(SoftwareDownloadTest, WhatGoesWrongLeavesTheSoftware) {
    const std::string application = ActiveImage("application");
    const std::string firmware = ActiveImage("firmware");
    WriteFile(std::string(kServed) + "/empty.img", "");
    Order empty = With(&Order::context, "/empty.img");
    empty.md5 = "d41d8cd98f00b204e9800998ecf8427e";
    const struct {
        const char* name = nullptr;
        Order order;
    } cases[] = {
        {"no sum", With(&Order::md5, "-")},
        {"a part of the sum", With(&Order::md5, std::string(kMd5).substr(0, 31))},
        {"an image without content", empty},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(Run(ToXml(c.order))) << c.name;
        ExpectSoftware({application, "old app", firmware, "old boot"}, c.name);
    }
    EXPECT_FALSE(Run("")) << "nothing is said of software";
    EXPECT_FALSE(Run(ToXml(With(&Order::updateSoftware, "false"))));
    ExpectSoftware({application, "old app", firmware, "old boot"}, "no order");
    // A slot that cannot be written.
    fs::remove_all("/app/zel/images/application/b/image");
    fs::create_directories("/app/zel/images/application/b/image/in the way");
    EXPECT_FALSE(Run(ToXml(Order{})));
    ExpectSoftware({application, "old app", firmware, "old boot"}, "not installed");
}

TEST_F(SoftwareDownloadTest, TheVersionIsRecordedInTheFormReadAtStartOrAsItIs) {
    const std::string longest(SoftwareUpdate::kMaxVersion, '9');
    const struct {
        std::string text;
        std::string recorded;
    } cases[] = {
        {"1.2.3", "10203"},     {"01.02.03", "10203"},
        {"12.34.56", "123456"}, {"0.0.1", "00001"},
        {"9.9", "9.9"},         {"", "old app"},
        {"1.2.100", "1.2.100"}, {"-1.2.3", "-1.2.3"},
        {"Größe 1", "Größe 1"}, {"99999999999.1.1", "99999999999.1.1"},
        {longest, longest},     {longest + "9", "old app"},
        {"9&#10;9", "old app"},
    };
    for (const auto& c : cases) {
        config_.Set("system.version.app", "old app", ZelConfig::Kind::kFixed);
        installed_ = {};
        EXPECT_TRUE(Run(ToXml(With(&Order::version, c.text)))) << c.text;
        EXPECT_EQ(config_.Get("system.version.app"), c.recorded) << c.text;
    }
}

TEST_F(SoftwareDownloadTest, AnUpdateIsInstalledOnceInARun) {
    WriteFile(std::string(kServed) + "/other.img", "other");
    Order other = With(&Order::context, "/other.img");
    other.md5 = "795f3202b17cb6bc3d4b771d8c6c9eaf";
    Order newer = other;
    newer.version = "10.0";
    const Order renamed = With(&Order::version, "9.9");
    const Order firmware = With(&Order::type, "Firmware");
    for (const auto& [order, isInstalled] : {std::pair{Order{}, true},
                                             {renamed, false},
                                             {firmware, true},
                                             {other, false},
                                             {newer, true},
                                             {newer, false}}) {
        EXPECT_EQ(Run(ToXml(order)), isInstalled) << ToXml(order);
    }
}

}  // namespace
