#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "ColorTable.h"
#include "DeviceAttributes.h"
#include "StoreSetup.h"
#include "Support.h"

namespace {

class DeviceAttributesTest : public testing::Test {
protected:
    /// What a get gives: its value, or "-" when there is none.
    std::string Get(const std::string& key) const {
        std::string value;
        return config_.Get(key, value) ? value : "-";
    }

    Trigger15 trigger15_;
    ZelConfig config_;
};

// What the services tell of the box is seen in their answers.
TEST_F(DeviceAttributesTest, WhatNoAnswerTells) {
    EXPECT_TRUE(AddDeviceAttributes(config_, trigger15_, [] { return ""; }));
    AddLateAttributes(config_);
    trigger15_.Open();
    const struct {
        const char* key;
        const char* value;
    } cases[] = {
        {"hardware.version", "3"},
        {"hardware.batttery.capactiy", "0"},
        {"network.mac.wlan", "02:00:00:12:34:57"},
        {"system.version.boot_pkg", "10500"},
        {"system.version.app_pkg", "10600"},
        {"system.thermal.fanspeed", "2400"},
        {"system.thermal.fanstate", "0"},
        {"system.thermal.tempcrit", "0"},
        {"diag.kvad.available", "1"},
        {"diag.most.tavobstate", "1"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Get(c.key), c.value) << c.key;
    }
    EXPECT_GT(std::stol(Get("system.info.free_ram")), 0);
    EXPECT_EQ(Get("system.info.free_ram").find_first_not_of("0123456789"), std::string::npos);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_NEAR(
        static_cast<double>(std::stoll(Get("system.timestamp"))),
        static_cast<double>(std::chrono::milliseconds(now / std::chrono::milliseconds(1)).count()),
        60000);
}

TEST_F(DeviceAttributesTest, LiveValuesAreReadAtEachGet) {
    AddDeviceAttributes(config_, trigger15_, [] { return ""; });
    EXPECT_EQ(Get("system.voltage.kl15trig"), "-") << "not open yet";
    trigger15_.Open();
    WriteFile("/dev/measure/0", "1\n");
    WriteFile("/proc/sys/kl30", "9000\n");
    WriteFile("/proc/sys/tavoc_ver", "12\n");
    WriteFile("/proc/sys/tavod_avail", "1\n");
    WriteFile("/tmp/moststate", "0\n");
    EXPECT_EQ(Get("system.voltage.kl15trig"), "1");
    EXPECT_EQ(Get("system.voltage.kl30"), "9000");
    EXPECT_EQ(Get("diag.connected.tavo_c"), "1");
    EXPECT_EQ(Get("diag.connected.tavo_d"), "1");
    EXPECT_EQ(Get("diag.most.lighton"), "0");
    EXPECT_TRUE(trigger15_.Reset());
    EXPECT_EQ(Get("system.voltage.kl15trig"), "0");

    WriteFile("/proc/bus/usb/devices", "P:  Vendor=103a ProdID=000c\n");
    EXPECT_EQ(Get("diag.most.lighton"), "0");
    EXPECT_EQ(Get("diag.most.tavobstate"), "0");
    for (const char* source :
         {"/proc/sys/kl30", "/proc/sys/tavoc_ver", "/proc/sys/atmel/acttemp", "/tmp/kvadvin"}) {
        std::filesystem::remove(source);
    }
    EXPECT_EQ(Get("system.voltage.kl30"), "-");
    EXPECT_EQ(Get("diag.connected.tavo_c"), "0");
    EXPECT_EQ(Get("system.thermal.temp"), "-");
    EXPECT_EQ(Get("diag.kvad.vin"), "-");
}

TEST_F(DeviceAttributesTest, Versions) {
    const struct {
        const char* text;
        const char* app;
    } cases[] = {
        {"APPLICATION_VERSION=01.02.02\n", "10202"},
        {"APPLICATION_VERSION=11.02.02\n", "110202"},
        {"APPLICATION_VERSION=", ""},
        {"APPLICATION_VERSION=01", "1"},
        {"APPLICATION_VERSION=1234", "124"},
        {"010203", "10203"},
        {"0", ""},
        {"00", "0"},
    };
    for (const auto& c : cases) {
        WriteFile("/app/VERSION", c.text);
        EXPECT_TRUE(AddDeviceAttributes(config_, trigger15_, [] { return ""; }));
        EXPECT_EQ(Get("system.version.app"), c.app) << c.text;
    }
    WriteFile("/etc/PACKAGE_VERSION", "9\n");
    AddDeviceAttributes(config_, trigger15_, [] { return ""; });
    EXPECT_EQ(Get("system.version.pkg"), "9") << "bytes are compared, not numbers";
    std::filesystem::remove("/app/VERSION");
    EXPECT_FALSE(AddDeviceAttributes(config_, trigger15_, [] { return ""; }));
    EXPECT_EQ(Get("system.version.app"), "");
}

TEST_F(DeviceAttributesTest, Temperatures) {
    AddDeviceAttributes(config_, trigger15_, [] { return ""; });
    const struct {
        const char* line;
        const char* temperature;
        const char* critical;
        const char* fan;
    } cases[] = {
        {"Temp:41,Status:12", "41", "1", "1"},    {"Temp:41,Status:10", "41", "1", "0"},
        {"Temp:-3.5,x:y:2", "-", "-", "-"},       {"Temp:-3.5 C,Status: 0x02", "-3.5 C", "0", "1"},
        {"Temp:,Status:0", "", "0", "0"},         {"Temp:41", "-", "-", "-"},
        {"Temp:41,Status", "-", "-", "-"},        {"Temp:41,Status:", "-", "-", "-"},
        {" Temp:41,Status:00", "-", "-", "-"},    {"Temperature:41,Status:00", "-", "-", "-"},
        {"Temp:4,S:FFFFFFFFFFFF", "-", "-", "-"},
    };
    for (const auto& c : cases) {
        WriteFile("/proc/sys/atmel/acttemp", c.line);
        EXPECT_EQ(Get("system.thermal.temp"), c.temperature) << c.line;
        EXPECT_EQ(Get("system.thermal.tempcrit"), c.critical) << c.line;
        EXPECT_EQ(Get("system.thermal.fanstate"), c.fan) << c.line;
    }
}

TEST_F(DeviceAttributesTest, VehicleDiagnosis) {
    AddDeviceAttributes(config_, trigger15_, [] { return ""; });
    const struct {
        std::string file;
        std::string vin;
        std::string available;
        std::string gateway;
        std::string list;
    } cases[] = {
        {"", "", "0", "", "[]"},
        {"\n\n  KVAD =\t VIN 1 \r\n\nother=1\nGW_DIAG_ADR= 10\nDIAG_ADR=1\nDIAG_ADR=2", "VIN 1",
         "1", "10", "[1,2]"},
        {"KVAD=first\nKVAD=\n", "", "0", "", "[]"},
        {"KVAD\nno pair\nDIAG_ADR\n=x\n", "", "0", "", "[]"},
        {"KVAD=" + std::string(3000, 'v'), std::string(1023 - 5, 'v'), "1", "", "[]"},
    };
    for (const auto& c : cases) {
        WriteFile("/tmp/kvadvin", c.file);
        EXPECT_EQ(Get("diag.kvad.vin"), c.vin) << c.file;
        EXPECT_EQ(Get("diag.kvad.available"), c.available) << c.file;
        EXPECT_EQ(Get("diag.kvad.gateway"), c.gateway) << c.file;
        EXPECT_EQ(Get("diag.kvad.sg_list"), c.list) << c.file;
    }
}

TEST_F(DeviceAttributesTest, TheStoreAtStartUp) {
    WriteFile("/config/agent.configuration",
              "opla.mode=OPLA-Next\nzel.version=9\nhardware.serial=fake\n");
    SetUpStore(config_, trigger15_, [] { return ""; });
    EXPECT_EQ(Get("zel.state.startup"), "1");
    EXPECT_EQ(Get("zel.state.current"), "4");
    EXPECT_EQ(Get("zel.version"), "9") << "the file replaces defaults";
    EXPECT_EQ(Get("system.voltage.kl15trig"), "0") << "the measurement device is open";

    WriteFile("/config/agent.configuration", "opla.mode=OPLA-next\n");
    ZelConfig other;
    SetUpStore(other, trigger15_, [] { return ""; });
    EXPECT_EQ(other.Get("zel.state.startup"), "0");
    EXPECT_EQ(other.Get("zel.state.uuid"), "00000000-0000-0000-0000-000000000000");
    EXPECT_FALSE(other.Get("zel.svn.version").empty());
}

TEST(ColorTableTest, BothWays) {
    EXPECT_EQ(ColorTable::ValueOf("white"), "#ede3d3");
    EXPECT_EQ(ColorTable::ValueOf("grey"), "#acaea6");
    EXPECT_EQ(ColorTable::NameOf("#163279"), "blue");
    EXPECT_EQ(ColorTable::ValueOf("White"), "");
    EXPECT_EQ(ColorTable::NameOf(""), "");
}

}  // namespace
