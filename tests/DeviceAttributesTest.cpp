#include "DeviceAttributes.h"
#include "StoreSetup.h"
#include "Support.h"

namespace {

class DeviceAttributesTest : public testing::Test {
protected:
    bool Add() {
        return AddDeviceAttributes(config_, trigger15_, [] { return ""; });
    }

    /// What a get gives: its value, or "-" when there is none.
    std::string Get(const std::string& key) const {
        std::string value;
        return config_.Get(key, value) ? value : "-";
    }

    Trigger15 trigger15_;
    ZelConfig config_;
};

TEST_F(DeviceAttributesTest, LiveValuesAreReadAtEachGet) {
    EXPECT_TRUE(Add());
    EXPECT_EQ(Get("system.voltage.kl15trig"), "-") << "not open yet";
    trigger15_.Open();
    // What the services tell of the box is seen in their answers; here what no answer tells, then
    // after a change.
    WriteFile("/dev/measure/0", "1\n");
    WriteFile("/proc/sys/kl30", "9000\n");
    WriteFile("/proc/sys/tavoc_ver", "12\n");
    WriteFile("/proc/sys/tavod_avail", "1\n");
    WriteFile("/tmp/moststate", "0\n");
    for (const auto& [key, value] :
         Table<const char*, const char*>{{"hardware.version", "3"},
                                         {"hardware.batttery.capactiy", "0"},
                                         {"network.mac.wlan", "02:00:00:12:34:57"},
                                         {"system.version.boot_pkg", "10500"},
                                         {"system.version.app_pkg", "10600"},
                                         {"system.thermal.fanspeed", "2400"},
                                         {"diag.most.tavobstate", "1"},
                                         {"system.voltage.kl15trig", "1"},
                                         {"system.voltage.kl30", "9000"},
                                         {"diag.connected.tavo_c", "1"},
                                         {"diag.connected.tavo_d", "1"},
                                         {"diag.most.lighton", "0"}}) {
        EXPECT_EQ(Get(key), value) << key;
    }
    EXPECT_TRUE(trigger15_.Reset());
    WriteFile("/proc/bus/usb/devices", "P:  Vendor=103a ProdID=000c\n");
    OutputOf("rm /proc/sys/kl30 /proc/sys/tavoc_ver /proc/sys/atmel/acttemp /tmp/kvadvin");
    for (const auto& [key, value] :
         Table<const char*, const char*>{{"system.voltage.kl15trig", "0"},
                                         {"system.voltage.kl30", "-"},
                                         {"diag.connected.tavo_c", "0"},
                                         {"diag.most.lighton", "0"},
                                         {"diag.most.tavobstate", "0"},
                                         {"system.thermal.temp", "-"},
                                         {"diag.kvad.vin", "-"}}) {
        EXPECT_EQ(Get(key), value) << key;
    }
}

TEST_F(DeviceAttributesTest, Versions) {
    for (const auto& [text, app] :
         Table<const char*, const char*>{{"APPLICATION_VERSION=01.02.02\n", "10202"},
                                         {"APPLICATION_VERSION=11.02.02\n", "110202"},
                                         {"APPLICATION_VERSION=", ""},
                                         {"APPLICATION_VERSION=01", "1"},
                                         {"APPLICATION_VERSION=1234", "124"},
                                         {"010203", "10203"},
                                         {"0", ""},
                                         {"00", "0"}}) {
        WriteFile("/app/VERSION", text);
        EXPECT_TRUE(Add());
        EXPECT_EQ(Get("system.version.app"), app) << text;
    }
    WriteFile("/etc/PACKAGE_VERSION", "9\n");
    Add();
    EXPECT_EQ(Get("system.version.pkg"), "9") << "bytes are compared, not numbers";
    std::filesystem::remove("/app/VERSION");
    EXPECT_FALSE(Add());
    EXPECT_EQ(Get("system.version.app"), "");
}

TEST_F(DeviceAttributesTest, Temperatures) {
    Add();
    for (const auto& [line, temperature, critical, fan] :
         Table<const char*, const char*, const char*, const char*>{
             {"Temp:41,Status:12", "41", "1", "1"},
             {"Temp:41,Status:10", "41", "1", "0"},
             {"Temp:-3.5,x:y:2", "-", "-", "-"},
             {"Temp:-3.5 C,Status: 0x02", "-3.5 C", "0", "1"},
             {"Temp:,Status:0", "", "0", "0"},
             {"Temp:41", "-", "-", "-"},
             {"Temp:41,Status", "-", "-", "-"},
             {"Temp:41,Status:", "-", "-", "-"},
             {" Temp:41,Status:00", "-", "-", "-"},
             {"Temperature:41,Status:00", "-", "-", "-"},
             {"Temp:4,S:FFFFFFFFFFFF", "-", "-", "-"}}) {
        SCOPED_TRACE(line);
        WriteFile("/proc/sys/atmel/acttemp", line);
        EXPECT_EQ(Get("system.thermal.temp"), temperature);
        EXPECT_EQ(Get("system.thermal.tempcrit"), critical);
        EXPECT_EQ(Get("system.thermal.fanstate"), fan);
    }
}

TEST_F(DeviceAttributesTest, VehicleDiagnosis) {
    Add();
    for (const auto& [file, vin, available, gateway, list] :
         Table<std::string, std::string, const char*, const char*, const char*>{
             {"", "", "0", "", "[]"},
             {"\n\n  KVAD =\t VIN 1 \r\n\nother=1\nGW_DIAG_ADR= 10\nDIAG_ADR=1\nDIAG_ADR=2",
              "VIN 1", "1", "10", "[1,2]"},
             {"KVAD=first\nKVAD=\n", "", "0", "", "[]"},
             {"KVAD\nno pair\nDIAG_ADR\n=x\n", "", "0", "", "[]"},
             {"KVAD=" + std::string(3000, 'v'), std::string(1023 - 5, 'v'), "1", "", "[]"}}) {
        SCOPED_TRACE(file);
        WriteFile("/tmp/kvadvin", file);
        EXPECT_EQ(Get("diag.kvad.vin"), vin);
        EXPECT_EQ(Get("diag.kvad.available"), available);
        EXPECT_EQ(Get("diag.kvad.gateway"), gateway);
        EXPECT_EQ(Get("diag.kvad.sg_list"), list);
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
    EXPECT_NEAR(std::stod(Get("system.timestamp")), std::stod(OutputOf("date +%s%3N")), 60000);
    EXPECT_EQ(Get("system.info.free_ram").find_first_not_of("0123456789"), std::string::npos);
    EXPECT_GT(std::stol(Get("system.info.free_ram")), 0);

    WriteFile("/config/agent.configuration", "opla.mode=OPLA-next\n");
    SetUpStore(config_, trigger15_, [] { return ""; });
    EXPECT_EQ(Get("zel.state.startup"), "0");
    EXPECT_EQ(Get("zel.state.uuid"), "00000000-0000-0000-0000-000000000000");
    EXPECT_FALSE(Get("zel.svn.version").empty());
}

}  // namespace
