#include <signal.h>

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

    /// Connects to a network of that level; the file that the supplicant got, or "old" when none
    /// was written. A refused network starts nothing.
    std::string FileFor(const std::string& level, const std::string& credentials,
                        const std::string& psk, bool isGood = true) {
        Set("wlan.conf.infra.security.level", level);
        Set("wlan.conf.infra.credentials", credentials);
        Set("wlan.conf.infra.psk", psk);
        WriteFile(kFile, "old");
        EXPECT_EQ(device_.Connect(Never), isGood ? NetStatus::kDone : NetStatus::kFailed);
        const std::string directory = level == "106" ? credentials : "/tmp/supplicant";
        EXPECT_EQ(Recorded(), isGood ? SupplicantCommand("-i w0 -D wext", directory) : "");
        return ReadFile(kFile);
    }

    WlanDevice device_{"w0", "wext", context_};
    Supplicant supplicant_{"w0", "bssid=1\nWPA_State=completed\nip=1\n"};
};

TEST_F(WlanDeviceTest, TheFirstWrongSettingIsReported) {
    const Table<std::string, std::vector<const char*>, const char*> cases{
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
    WlanValues values;
    int code = 0;
    for (const auto& [key, wrong, right] : cases) {
        --code;
        for (const char* value : wrong) {
            Set(key, value);
            EXPECT_EQ(values.Read(config_), code) << key << " " << value;
            EXPECT_EQ(device_.Connect(Never), NetStatus::kFailed);
        }
        Set(key, right);
    }
    EXPECT_EQ(values.Read(config_), 0);
    EXPECT_EQ(Recorded(), "");
}

TEST_F(WlanDeviceTest, TheSupplicantGetsTheNetworkOfTheLevel) {
    const std::string ciphers = "\tpairwise=CCMP TKIP\n\tgroup=CCMP TKIP\n";
    const std::string others = "\tpairwise=TKIP CCMP\n\tgroup=TKIP CCMP\n";
    const std::string key = "\tkey_mgmt=WPA-PSK\n\tpsk=";
    const Table<std::string, std::string, std::string, std::string, std::string> cases{
        {"102", "/x", "a phrase", "", "\tproto=RSN\n" + key + "\"a phrase\"\n"},
        {"103", "01ef", "", "", "\tproto=RSN\n" + key + "01ef\n"},
        {"104", "/x", "a phrase", "AES", "\tkey_mgmt=NONE\n"},
        {"105", "", "p", "AES", "\tproto=RSN\n" + ciphers + key + "\"p\"\n"},
        {"107", "", "p", "TKIP", "\tproto=WPA\n" + others + key + "\"p\"\n"},
        {"106", "/config", "p", "AES", ""},  // the file is not this agent's
        {"108", "/config", "p", "AES", ""},
        {"109", "", "p", "AES", ""}};
    for (const auto& [level, credentials, psk, encryption, settings] : cases) {
        Set("wlan.conf.infra.encryption.type", encryption);
        Ip("link set w0 down");
        const std::string file = "network={\n\tssid=\"workshop\"\n" + settings + "}\n";
        EXPECT_EQ(FileFor(level, credentials, psk), settings.empty() ? "old" : file) << level;
        EXPECT_TRUE(IsUp("w0"));
    }
}

TEST_F(WlanDeviceTest, NoSettingBecomesTwo) {
    const std::string most(32, 'x');
    for (const auto& [ssid, written] :
         Table<std::string, std::string>{{R"(a"\ {})", R"("a"\ {}")"},
                                         {"a\"#", "612223"},
                                         {"a\"\n\tpsk=\"b", "61220a0970736b3d2262"},
                                         {"\r\xff", "0dff"},
                                         {most, '"' + most + '"'},
                                         {most + "x", ""}}) {
        Set("wlan.conf.infra.ssid", ssid);
        EXPECT_EQ(
            FileFor("104", "", "", !written.empty()),
            written.empty() ? "old" : "network={\n\tssid=" + written + "\n\tkey_mgmt=NONE\n}\n");
    }
    SetWlan("102");
    for (const std::string psk : {R"(a"\ {})", "a#"}) {
        EXPECT_TRUE(FileFor("102", "01ef", psk).ends_with("\tpsk=\"" + psk + "\"\n}\n"));
    }
    const std::string many(600, 'x');
    for (const std::string& psk : {std::string("a\"\n\tssid=\"b"), std::string("a\rb"), many}) {
        EXPECT_EQ(FileFor("102", "01ef", psk, false), "old") << psk;
    }
    for (const std::string& key : {std::string("a\n}\nnetwork={"), std::string("a#"), many}) {
        EXPECT_EQ(FileFor("102", key, "", false), "old") << key;
    }
    for (const char* path : {"/a;touch /x", "/a b", "$(id)", "/a\n", "/a'b", many.c_str()}) {
        EXPECT_EQ(FileFor("106", path, "", false), "old") << path;
    }
}

TEST_F(WlanDeviceTest, TheSupplicantIsEnded) {
    const std::string file = "/var/run/wpa_supplicant.pid";
    Record("/app/velka/wlan/sta/wpa_supplicant", "sleep 1000 > /dev/null & echo $! > " + file);
    EXPECT_EQ(device_.Connect(Never), NetStatus::kDone);
    const int first = std::stoi(ReadFile(file));
    const Supplicant supplicant("w0", "wpa_state=SCANNING\n");
    for (const auto& [asked, seconds] : Table<int, int>{{3, 2}, {1000, 60}}) {
        std::chrono::microseconds waited{};
        onPause = [&waited](std::chrono::microseconds pause) { waited += pause; };
        int left = asked;
        EXPECT_EQ(device_.Connect([&left] { return --left == 0; }), NetStatus::kFailed);
        EXPECT_EQ(waited, std::chrono::seconds(1 + seconds)) << "1 for the supplicant's start";
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_TRUE(Eventually([first] { return kill(first, 0) != 0; }));
    }
    WriteFile(file, "none");
    EXPECT_EQ(device_.DisableInterface(), NetStatus::kDone);
    EXPECT_FALSE(std::filesystem::exists(file));
}

}  // namespace
