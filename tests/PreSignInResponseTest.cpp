#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "ManagerAnswer.h"
#include "Namespaces.h"
#include "PreSignInResponse.h"
#include "ServiceSchemas.h"
#include "Support.h"

namespace {

using Settings = std::map<std::string, std::string>;

const std::string kLevel = "wlan.conf.infra.security.level";
const std::string kSsid = "wlan.conf.infra.ssid";
const std::string kBand = "wlan.conf.infra.band";
const std::string kChannel = "wlan.conf.infra.channel";
const std::string kCredentials = "wlan.conf.infra.credentials";
const std::string kPassPhrase = "wlan.conf.infra.psk";

/// What the box has before each answer.
const Settings kBefore = {{"tavo.hostname", "BAY-7"},
                          {"tavo.color", "white"},
                          {"country.code", "AT"},
                          {kLevel, "105"},
                          {kSsid, "before"},
                          {kBand, "1"},
                          {kChannel, "2"},
                          {kCredentials, "secret before"},
                          {kPassPhrase, "pass phrase before"}};

constexpr char kCertificates[] =
    "<cacertificate>ca\nca</cacertificate><clientcertificate>client</clientcertificate>"
    "<keypass>key &amp; pass</keypass>";

std::string Wlan(const std::string& level, const std::string& ssid, const std::string& more) {
    return "<infrastructureConfig><securityLevel>" + level + "</securityLevel><ssid>" + ssid +
           "</ssid>" + more + "</infrastructureConfig>";
}

class PreSignInResponseTest : public testing::Test {
protected:
    PreSignInResponseTest() {
        Restore();
        config_.Set("hardware.devid", "TAVO0012345", ZelConfig::Kind::kFixed);
    }

    void Restore() {
        for (const auto& [key, value] : kBefore) {
            config_.Set(key, value, ZelConfig::Kind::kPersistent);
        }
    }

    bool Apply(const std::string& content) {
        return PreSignInResponse::Apply(config_, ReadAnswer(content));
    }

    /// The settings of the box and of its file are those of `kBefore` but for `changed`, and no
    /// others.
    void ExpectSettings(const Settings& changed, const std::string& name) const {
        ASSERT_TRUE(config_.Save());
        Settings expected = changed;
        expected.insert(kBefore.begin(), kBefore.end());
        std::ifstream file(ZelConfig::kConfigurationFile);
        Settings saved;
        for (std::string line; std::getline(file, line);) {
            const std::size_t sign = line.find('=');
            saved[line.substr(0, sign)] = line.substr(sign + 1);
        }
        EXPECT_EQ(saved, expected) << name;
    }

    ZelConfig config_;
};

std::string HostName(const std::string& name) {
    return "<device><hostname>" + name + "</hostname></device>";
}

TEST_F(PreSignInResponseTest, WhatAnAnswerChanges) {
    const std::string longName = Times(63, "\U0001f527");
    const std::string longSsid(32, 's');
    const std::string longKey(64, 'F');
    const struct {
        std::string content;
        Settings changed = {};
    } cases[] = {
        {HostName("lane-3.hall_2") + "<color>#163279</color><countryCode>FR</countryCode>" +
             Wlan("102", "Hall &amp; Yard",
                  "<band>2</band><channel> 36 </channel>"
                  "<credentials> pass phrase=1 </credentials>"),
         {{"tavo.hostname", "lane-3.hall_2"},
          {"tavo.color", "blue"},
          {"country.code", "FR"},
          {kLevel, "102"},
          {kSsid, "Hall & Yard"},
          {kBand, "2"},
          {kChannel, "36"},
          {kCredentials, " pass phrase=1 "}}},
        {HostName("a=b") + "<color>#be1110</color>", {{"tavo.color", "red"}}},
        {"<countryCode/>", {{"country.code", "DE"}}},
        {HostName(longName), {{"tavo.hostname", longName}}},
        {HostName("\n\t #1 Bühne; -H `id` &quot;&amp;'*:/|\u00a0\n "),
         {{"tavo.hostname", "#1 Bühne; -H `id` \"&'*:/|\u00a0"}}},
        // The first of a name counts, also where it is empty.
        {"<device/>" + HostName("second")},
        {"<countryCode>FR</countryCode><countryCode>AT</countryCode>", {{"country.code", "FR"}}},
        // A pre-shared key that the manager does not tell again.
        {Wlan("105", "other", "<credentials>\n Dummy-Credentials\n</credentials>")},
        // A key is newer than the pass phrase.
        {Wlan("105", longSsid, "<credentials>" + longKey + "</credentials>"),
         {{kSsid, longSsid}, {kCredentials, longKey}, {kPassPhrase, ""}}},
        {Wlan("102", " \"#' ", ""), {{kLevel, "102"}, {kSsid, " \"#' "}}},
        {Wlan("105", "other", "<band/><channel> </channel><credentials>\n  </credentials>"),
         {{kSsid, "other"}}},
        // An open WLAN has no key.
        {Wlan("2", "open", "<band>1</band><channel>-1</channel><credentials>x</credentials>"),
         {{kLevel, "2"}, {kSsid, "open"}, {kChannel, "-1"}}},
        {"<infrastructureConfig><ssid>s</ssid></infrastructureConfig>"},
        {Wlan(" ", "s", "")},
        {Wlan("104", "\n ", "<band>0</band>")},
    };
    for (const auto& [content, changed] : cases) {
        Restore();
        EXPECT_TRUE(Apply(content)) << content;
        ExpectSettings(changed, content);
    }
    EXPECT_FALSE(std::filesystem::exists("/config/wpa.conf")) << "only for an enterprise WLAN";
}

TEST_F(PreSignInResponseTest, WhatCouldDoHarmChangesNothing) {
    std::vector<std::string> contents = {
        "<color>blue</color>",
        "<color>#163279&#10;a=b</color>",
        "<countryCode>DEU</countryCode>",
        "<countryCode>D&#10;</countryCode>",
        "<countryCode>;a</countryCode>",
        HostName(std::string(64, 'n')),
        Wlan("2", std::string(33, 's'), ""),
        Wlan("105", "s", "<credentials>" + std::string(65, 'f') + "</credentials>"),
        Wlan("106", "s\"&#10;}&#10;network={&#10;ssid=\"evil", kCertificates)};
    for (const char* name : {"&#10; ", "a&#10;opla.mode=OPLA-Next", "a\u007f", "a\u0085",
                             "a\u2028b", "$(reboot)", "a\\b", "a,b", "~", "a!b&gt;"}) {
        contents.push_back(HostName(name));
    }
    for (const auto& [level, ssid, more] : {std::tuple{"105&#10;a=b", "s", ""},
                                            {"12345678901", "s", ""},
                                            {"2", "s&#10;a=b", ""},
                                            {"2", "s", "<band>1&#10;a=b</band>"},
                                            {"2", "s", "<channel>1;reboot</channel>"},
                                            {"105", "s", "<credentials>k&#10;a=b</credentials>"}}) {
        contents.push_back(Wlan(level, ssid, more));
    }
    for (const std::string& content : contents) {
        static_cast<void>(Apply(content));  // whatever becomes of the rest
        ExpectSettings({}, content);
    }
    EXPECT_FALSE(std::filesystem::exists("/config/wpa.conf"));
    EXPECT_FALSE(std::filesystem::exists("/config/cacert"));
}

TEST_F(PreSignInResponseTest, AnEnterpriseWlan) {
    EXPECT_FALSE(Apply(Wlan("106", "s", "<cacertificate>ca</cacertificate><keypass>k</keypass>")))
        << "no client certificate";
    for (const char* path : {"/config/cacert", "/config/keypass", "/config/wpa.conf"}) {
        // A directory that holds something cannot be replaced by a file.
        std::filesystem::remove(path);
        std::filesystem::create_directories(std::string(path) + "/in the way");
        EXPECT_FALSE(Apply(Wlan("106", "s", kCertificates))) << path;
        std::filesystem::remove_all(path);
    }
    ExpectSettings({}, "none of them");
    EXPECT_TRUE(Apply(Wlan("106", "s", kCertificates)));
    // What stands for the present files; the name of the network is new all the same.
    EXPECT_TRUE(Apply(Wlan("106", "a\"b #c",
                           "<cacertificate>new</cacertificate><clientcertificate/>"
                           "<keypass>Lomitrax</keypass>")));
    config_.Set(kPassPhrase, "", ZelConfig::Kind::kPersistent);
    const Settings taken = {
        {kLevel, "106"}, {kSsid, "a\"b #c"}, {kCredentials, "/config"}, {kPassPhrase, ""}};
    ExpectSettings(taken, "the second");
    EXPECT_EQ(ReadFile("/config/cacert"), "new");
    EXPECT_EQ(ReadFile("/config/clientcert"), "client");
    EXPECT_EQ(ReadFile("/config/keypass"), "key & pass");
    EXPECT_NE(ReadFile("/config/wpa.conf").find("\n  ssid=612262202363\n"), std::string::npos);

    EXPECT_TRUE(Apply(Wlan("105", "s", ""))) << "there is no key that it could be joined with";
    ExpectSettings(taken, "still");
}

// Answers that are written as toolkits do are tried by the simulated manager.
TEST(SignInSchemasTest, WhatIsReadOfAnAnswerIsChecked) {
    const std::string service = Namespaces::kSignInService;
    const std::string begin = "<s:preSignInTavoResponse xmlns:s=\"" + service + "\" xmlns:b=\"" +
                              service + "/beans/signin\" xmlns:x=\"urn:x\" xmlns:i=\"" +
                              Namespaces::kXmlSchemaInstance + "\" id=''>";
    const struct {
        std::string text;
        bool accepted;
        const char* left = "";
        const char* fileName = "";
    } answers[] = {
        // The first "attributes" count wherever they stand, the others only where they belong.
        {begin +
             "<s:new>x</s:new><preSignInTavoReturn id=''><b:new><date>soon</date><attributes>"
             "<b:other><key>FILENAME</key><value>image</value></b:other></attributes></b:new>"
             "<x:date>soon</x:date><date><x:year>x</x:year><b:new><year>x</year></b:new>"
             "<date>x</date><b:year> 2024 </b:year></date><updateConfigurationExt><attributes>"
             "<new>x</new><item><x:key>x</x:key><key>k</key></item></attributes>"
             "</updateConfigurationExt><device b:id='' i:type='b:D'><b:color>x<b:new/></b:color>"
             "<hostname i:nil='true'/></device><b:device i:nil='1'>x</b:device>"
             "<color i:nil='false'>c</color></preSignInTavoReturn><x:new/>"
             "</s:preSignInTavoResponse>",
         true, " 2024 kc", "image"},
        {begin + "<s:preSignInTavoReturn><color><b:new/></color></s:preSignInTavoReturn>"
                 "</s:preSignInTavoResponse>",
         false},
        {begin + "<s:preSignInTavoReturn><device>red</device></s:preSignInTavoReturn>"
                 "</s:preSignInTavoResponse>",
         false, "red"},
        {begin + "<s:preSignInTavoReturn><b:infrastructureConfig><b:securityLevel>1e2"
                 "</b:securityLevel></b:infrastructureConfig></s:preSignInTavoReturn>"
                 "</s:preSignInTavoResponse>",
         false, "1e2"},
        {begin + "<x:preSignInTavoReturn/></s:preSignInTavoResponse>", false},
        {begin + "<preSignInTavoReturn i:nil='true'/></s:preSignInTavoResponse>", true},
        {"<signInTavoResponse/>", true},
        {"<s:signInTavoResponse xmlns:s='" + service + "'/>", true},
        {"<s:signInTavoResponse xmlns:s='urn:other'/>", false},
        {"<signInTavo/>", false},
    };
    ServiceSchemas schemas("TaSigninServlet");
    for (const auto& [text, accepted, left, fileName] : answers) {
        const XmlText::Document document = XmlText::Parse(text);
        xmlNode* answer = xmlDocGetRootElement(document.get());
        EXPECT_EQ(ManagerElements::Read(answer).fileName, fileName) << text;
        std::string errors;
        EXPECT_EQ(schemas.Accept(answer, errors), accepted) << text << errors;
        EXPECT_EQ(XmlText::Content(answer), left) << text;
    }
}

}  // namespace
