#include <signal.h>

#include <vector>

#include "NetworkBox.h"
#include "WlanDevice.h"

namespace {

constexpr char kFile[] = "/tmp/supplicant/wpa.conf";

class WlanDeviceTest : public NetworkBox {
protected:
    WlanDeviceTest() {
        AddInterface("w0");
        SetWlan("102");
    }

    void SetSecrets(const std::string& credentials, const std::string& psk,
                    const std::string& encryption = "") {
        Set("wlan.conf.infra.credentials", credentials);
        Set("wlan.conf.infra.psk", psk);
        Set("wlan.conf.infra.encryption.type", encryption);
    }

    WlanDevice device_{"w0", "wext", context_};
    Supplicant supplicant_{"w0", "wpa_state=COMPLETED\n"};
};

TEST_F(WlanDeviceTest, TheFirstWrongSettingIsReported) {
    const std::tuple<const char*, std::vector<const char*>, const char*> cases[] = {
        {"wlan.conf.infra.band", {"", "-1", "2", "01"}, "1"},
        {"wlan.conf.infra.ssid", {""}, "workshop"},
        {"wlan.conf.infra.security.level", {"", "-1", "101", "110", "4294967398"}, "106"},
        {"wlan.conf.infra.credentials", {""}, "/config"},
        {"country.code", {""}, "XX"},
        {"country.code", {"XX", "at"}, "AT"},
        {"wlan.conf.infra.encryption.type", {"aes", "WEP"}, "TKIP"}};
    for (const auto& [key, wrong, right] : cases) {
        Set(key, wrong[0]);
    }
    WlanDevice::WlanValues values;
    int code = 0;
    for (const auto& [key, wrong, right] : cases) {
        --code;
        for (const char* value : wrong) {
            Set(key, value);
            EXPECT_EQ(values.Read(config_), code) << key << " " << value;
            EXPECT_EQ(device_.Connect(), -1);
        }
        Set(key, right);
    }
    EXPECT_EQ(values.Read(config_), 0);
    EXPECT_EQ(Recorded(), "");
}

TEST_F(WlanDeviceTest, TheSupplicantGetsTheNetworkOfTheLevel) {
    const struct {
        std::string level;
        const char* credentials;
        const char* psk;
        const char* encryption;
        std::string settings;  // empty: the file is not this agent's
    } cases[] = {
        {"102", "/x", "a phrase", "", "\tproto=RSN\n\tkey_mgmt=WPA-PSK\n\tpsk=\"a phrase\"\n"},
        {"103", "01ef", "", "", "\tproto=RSN\n\tkey_mgmt=WPA-PSK\n\tpsk=01ef\n"},
        {"104", "/x", "a phrase", "AES", "\tkey_mgmt=NONE\n"},
        {"105", "", "p", "AES",
         "\tproto=RSN\n\tpairwise=CCMP TKIP\n\tgroup=CCMP TKIP\n\tkey_mgmt=WPA-PSK\n\tpsk=\"p\"\n"},
        {"107", "", "p", "TKIP",
         "\tproto=WPA\n\tpairwise=TKIP CCMP\n\tgroup=TKIP CCMP\n\tkey_mgmt=WPA-PSK\n\tpsk=\"p\"\n"},
        {"106", "/config", "p", "AES", ""},
        {"108", "/config", "p", "AES", ""},
        {"109", "", "p", "AES", ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.level);
        SetWlan(c.level);
        SetSecrets(c.credentials, c.psk, c.encryption);
        WriteFile(kFile, "old");
        Ip("link set w0 down");
        EXPECT_EQ(device_.Connect(), 0);
        EXPECT_TRUE(IsUp("w0"));
        const std::string file = "network={\n\tssid=\"workshop\"\n" + c.settings + "}\n";
        EXPECT_EQ(ReadFile(kFile), c.settings.empty() ? "old" : file);
        const std::string directory = c.level == "106" ? "/config" : "/tmp/supplicant";
        EXPECT_EQ(Recorded(), SupplicantCommand("-i w0 -D wext", directory));
    }
}

TEST_F(WlanDeviceTest, NoSettingBecomesTwo) {
    const std::string most(32, 'x');
    const std::string many(600, 'x');
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"ssid", R"(a"\ {})", "ssid=\"a\"\\ {}\"\n"},
        {"ssid", "a\"#", "ssid=612223\n"},
        {"ssid", "a\"\n\tpsk=\"b", "ssid=61220a0970736b3d2262\n"},
        {"ssid", "\r\xff", "ssid=0dff\n"},
        {"ssid", most, "ssid=\"" + most + "\"\n"},
        {"ssid", most + "x", ""},
        {"psk", R"(a"\ {})", "psk=\"a\"\\ {}\"\n"},
        {"psk", "a#", "psk=\"a#\"\n"},
        {"psk", "a\"\n\tssid=\"b", ""},
        {"psk", "a\rb", ""},
        {"psk", many, ""},
        {"credentials", "a\n}\nnetwork={", ""},
        {"credentials", "a\rb", ""},
        {"credentials", many, ""}};
    for (const auto& [key, value, line] : cases) {
        SCOPED_TRACE(value);
        SetWlan("102");
        SetSecrets("01ef", key == "credentials" ? "" : "secret");
        Set("wlan.conf.infra." + key, value);
        WriteFile(kFile, "old");
        EXPECT_EQ(device_.Connect(), line.empty() ? -1 : 0);  // empty: refused
        EXPECT_EQ(Recorded().empty(), line.empty());
        EXPECT_EQ(ReadFile(kFile),
                  line.empty() ? "old"
                               : "network={\n\t" + (key == "ssid" ? line : "ssid=\"workshop\"\n") +
                                     "\tproto=RSN\n\tkey_mgmt=WPA-PSK\n\t" +
                                     (key == "psk" ? line : "psk=\"secret\"\n") + "}\n");
    }
}

TEST_F(WlanDeviceTest, ADirectoryThatIsNoPlainPathIsRefused) {
    SetWlan("106");
    const std::vector<std::string> paths{"/tmp/a;touch /tmp/x", "/a b", "$(id)",
                                         "/config\n",           "/a'b", std::string(400, '/')};
    for (const std::string& path : paths) {
        SetSecrets(path, "");
        EXPECT_EQ(device_.Connect(), -1) << path;
        EXPECT_EQ(Recorded(), "") << path;
    }
}

TEST_F(WlanDeviceTest, TheLinkIsWhatTheSupplicantSays) {
    const std::pair<const char*, int> cases[] = {
        {"bssid=1\nWPA_State=completed\nip=1\n", 1}, {"wpa_state=SCANNING\n", 0}, {"", 0}};
    for (const auto& [reply, link] : cases) {
        const Supplicant supplicant("w0", reply);
        EXPECT_EQ(device_.HasLink(), link) << reply;
    }
    EXPECT_EQ(WlanDevice("w7", "wext", context_).HasLink(), 0);
}

TEST_F(WlanDeviceTest, TheSupplicantIsEnded) {
    const std::string file = "/var/run/wpa_supplicant.pid";
    Record("/app/velka/wlan/sta/wpa_supplicant", "sleep 1000 > /dev/null & echo $! > " + file);
    EXPECT_EQ(device_.Connect(), 0);
    const int first = std::stoi(ReadFile(file));
    const Supplicant supplicant("w0", "wpa_state=SCANNING\n");
    EXPECT_EQ(device_.Connect(), -1);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_TRUE(Eventually([first] { return kill(first, 0) != 0; }));
    WriteFile(file, "none");
    EXPECT_EQ(device_.DisableInterface(), NetStatus::kDone);
    EXPECT_FALSE(std::filesystem::exists(file));
}

}  // namespace
