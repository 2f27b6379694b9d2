#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>

#include "ManagerAnswer.h"
#include "ManagerElements.h"
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
        for (const auto& [key, value] : kBefore) {
            config_.Set(key, value, ZelConfig::Kind::kPersistent);
        }
        config_.Set("hardware.devid", "TAVO0012345", ZelConfig::Kind::kFixed);
    }

    bool Apply(const std::string& content) {
        const ManagerAnswer answer(content);
        EXPECT_NE(answer.Root(), nullptr) << content;
        return PreSignInResponse::Apply(config_, answer.Root());
    }

    /// The box's own settings are `expected`, now and after the next start.
    void ExpectSettings(const Settings& expected, const std::string& name) const {
        ASSERT_TRUE(config_.Save());
        ZelConfig next;
        ASSERT_TRUE(next.Load()) << name;
        for (const auto& [key, value] : kBefore) {
            const auto changed = expected.find(key);
            const std::string& wanted = changed == expected.end() ? value : changed->second;
            EXPECT_EQ(config_.Get(key), wanted) << name << ": " << key;
            EXPECT_EQ(next.Get(key), wanted) << name << ": " << key << " after a start";
        }
        // A line of the file for each setting and no more.
        std::ifstream file(ZelConfig::kConfigurationFile);
        std::size_t lines = 0;
        for (std::string line; std::getline(file, line);) {
            ++lines;
            EXPECT_EQ(kBefore.count(line.substr(0, line.find('='))), 1U) << name << ": " << line;
        }
        EXPECT_EQ(lines, kBefore.size()) << name;
    }

    ZelConfig config_;
};

std::string HostName(const std::string& name) {
    return "<device><hostname>" + name + "</hostname></device>";
}

TEST_F(PreSignInResponseTest, WhatAnAnswerChanges) {
    std::string longName;
    for (int i = 0; i < 63; ++i) {
        longName += "\U0001f527";
    }
    const std::string longSsid(32, 's');
    const std::string longKey(64, 'F');
    const struct {
        const char* name;
        std::string content;
        Settings changed;
    } cases[] = {
        {"nothing", "", {}},
        {"all of it",
         HostName("lane-3.hall_2") + "<color>#163279</color><countryCode>FR</countryCode>" +
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
        {"one bad value beside a good one",
         HostName("a=b") + "<color>#be1110</color>",
         {{"tavo.color", "red"}}},
        {"empty country", "<countryCode/>", {{"country.code", "DE"}}},
        {"longest host name", HostName(longName), {{"tavo.hostname", longName}}},
        {"host name of all kinds",
         HostName("\n\t #1 Bühne; -H `id` &quot;&amp;'*:/|\u00a0\n "),
         {{"tavo.hostname", "#1 Bühne; -H `id` \"&'*:/|\u00a0"}}},
        {"device without host name", "<device><type>TAVO</type></device>", {}},
        // A pre-shared key that the manager does not tell again.
        {"WLAN as before",
         Wlan("105", "other", "<credentials>\n Dummy-Credentials\n</credentials>"),
         {}},
        {"longest SSID and a key, which is newer than the pass phrase",
         Wlan("105", longSsid, "<credentials>" + longKey + "</credentials>"),
         {{kSsid, longSsid}, {kCredentials, longKey}, {kPassPhrase, ""}}},
        {"only an SSID", Wlan("102", " \"#' ", ""), {{kLevel, "102"}, {kSsid, " \"#' "}}},
        {"nothing in the others",
         Wlan("105", "other", "<band/><channel> </channel><credentials>\n  </credentials>"),
         {{kSsid, "other"}}},
        {"open WLAN has no key",
         Wlan("2", "open", "<band>1</band><channel>-1</channel><credentials>x</credentials>"),
         {{kLevel, "2"}, {kSsid, "open"}, {kChannel, "-1"}}},
        {"without level", "<infrastructureConfig><ssid>s</ssid></infrastructureConfig>", {}},
        {"without SSID",
         "<infrastructureConfig><securityLevel>2</securityLevel></infrastructureConfig>",
         {}},
        {"blank level", Wlan(" ", "s", ""), {}},
        {"blank SSID", Wlan("104", "\n ", "<band>0</band>"), {}},
    };
    for (const auto& c : cases) {
        for (const auto& [key, value] : kBefore) {
            config_.Set(key, value, ZelConfig::Kind::kPersistent);
        }
        EXPECT_TRUE(Apply(c.content)) << c.name;
        ExpectSettings(c.changed, c.name);
    }
    EXPECT_FALSE(std::filesystem::exists("/config/wpa.conf")) << "only for an enterprise WLAN";
}

TEST_F(PreSignInResponseTest, WhatCouldDoHarmChangesNothing) {
    const std::string contents[] = {
        HostName("&#10; "),
        HostName("a&#10;opla.mode=OPLA-Next"),
        HostName("a\tb"),
        HostName("a\u007f"),
        HostName("a\u0085"),
        HostName("a\u2028b"),
        HostName("$(reboot)"),
        HostName("a\\b"),
        HostName("a,b"),
        HostName("~"),
        HostName("a!b&gt;"),
        HostName(std::string(64, 'n')),
        "<color>blue</color>",
        "<color>#163279&#10;a=b</color>",
        "<countryCode>DEU</countryCode>",
        "<countryCode>D&#10;</countryCode>",
        "<countryCode>;a</countryCode>",
        Wlan("105&#10;a=b", "s", ""),
        Wlan("1234567890", "s", ""),
        Wlan("2", "s&#10;a=b", ""),
        Wlan("2", "s&#9;", ""),
        Wlan("2", std::string(33, 's'), ""),
        Wlan("2", "s", "<band>1&#10;a=b</band>"),
        Wlan("2", "s", "<channel>1;reboot</channel>"),
        Wlan("105", "s", "<credentials>k&#10;a=b</credentials>"),
        Wlan("102", "s", "<credentials>k&#13;</credentials>"),
        Wlan("105", "s", "<credentials>" + std::string(65, 'f') + "</credentials>"),
        Wlan("106", "s\"&#10;}&#10;network={&#10;ssid=\"evil", kCertificates)};
    for (const std::string& content : contents) {
        Apply(content);
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

class SignInSchemasTest : public testing::Test {
protected:
    bool Accepts(const std::string& text) {
        const XmlText::Document document = XmlText::Parse(text);
        EXPECT_TRUE(document) << text;
        xmlNode* answer = xmlDocGetRootElement(document.get());
        ManagerElements::DropForeignAndNil(answer);
        ManagerElements::DropUnknown(answer);
        read_ = XmlText::Content(answer);
        std::string errors;
        return schemas_.Accept(answer, errors);
    }

    std::string read_;

    ServiceSchemas schemas_{"TaSigninServlet"};
};

TEST_F(SignInSchemasTest, EachFormOfAnAnswer) {
    const std::string service = "http://lusora.tembra.com/services/opla/OrsManagerTavo/v1";
    const std::string prefixes = " xmlns:s=\"" + service + "\" xmlns:b=\"" + service +
                                 "/beans/signin\" xmlns:x=\"urn:x\" xmlns:i=\"" +
                                 Namespaces::kXmlSchemaInstance + "\"";
    // An answer with the prefixes of its three levels.
    const struct {
        const char* operation;
        const char* result;
        const char* content;
    } forms[] = {{"", "", ""},     {"s:", "", ""},     {"s:", "s:", ""},
                 {"s:", "", "b:"}, {"s:", "s:", "b:"}, {"s:", "s:", "s:"}};
    const struct {
        const char* content;
        bool accepted;
        const char* read;
    } contents[] = {
        {"<B:updateConfigurationExt><B:updateSoftware>true</B:updateSoftware><B:updateLocation>"
         "<B:ip>192.168.68.2</B:ip><B:attributes><B:item><B:value>image</B:value>"
         "<B:key>FILENAME</B:key></B:item></B:attributes></B:updateLocation>"
         "</B:updateConfigurationExt><B:date><B:year> 2024 </B:year></B:date><B:color>c</B:color>",
         true, "true192.168.68.2imageFILENAME 2024 c"},
        {"<B:device i:type='b:Device' B:id=''><B:hostname i:type='not:known'>h</B:hostname>"
         "</B:device>",
         true, "h"},
        {"<B:date i:nil='1'><B:year>x</B:year></B:date><B:device><B:hostname i:nil='true'/>"
         "</B:device><B:color i:nil='false'>c</B:color>",
         true, "c"},
        {"<B:new><B:date>soon</B:date></B:new><x:date>soon</x:date><B:date><x:year>x</x:year>"
         "<B:new><B:year>x</B:year></B:new><B:date>x</B:date><B:year>2024</B:year></B:date>"
         "<B:updateConfigurationExt><B:attributes><B:new>x</B:new><B:item><x:key>x</x:key>"
         "<B:key>k</B:key></B:item></B:attributes></B:updateConfigurationExt><B:device><B:color>"
         "x<B:new/></B:color></B:device>",
         true, "2024k"},
        {"<B:color><B:new/></B:color>", false, ""},
        {"<B:device>red</B:device>", false, "red"},
        {"<B:infrastructureConfig><B:new/><B:securityLevel>1e2</B:securityLevel>"
         "</B:infrastructureConfig>",
         false, "1e2"},
    };
    for (const auto& form : forms) {
        for (const auto& [content, accepted, read] : contents) {
            std::string answer = "<O:preSignInTavoResponse" + prefixes +
                                 " id=''><R:new>x</R:new><R:preSignInTavoReturn id=''>";
            answer += content;
            answer += "</R:preSignInTavoReturn><x:new/></O:preSignInTavoResponse>";
            answer = std::regex_replace(answer, std::regex("\\bO:"), form.operation);
            answer = std::regex_replace(answer, std::regex("\\bR:"), form.result);
            answer = std::regex_replace(answer, std::regex("\\bB:"), form.content);
            EXPECT_EQ(Accepts(answer), accepted) << answer;
            EXPECT_EQ(read_, read) << answer;
        }
    }
    EXPECT_TRUE(Accepts("<signInTavoResponse><anything/></signInTavoResponse>"));
    EXPECT_TRUE(Accepts("<s:signInTavoResponse xmlns:s=\"" + service + "\"/>"));
    EXPECT_FALSE(Accepts("<s:signInTavoResponse xmlns:s=\"http://example.com/other\"/>"));
    EXPECT_FALSE(Accepts("<signInTavo/>"));
    EXPECT_FALSE(
        Accepts("<preSignInTavoResponse><x:preSignInTavoReturn xmlns:x=\"urn:x\"/>"
                "</preSignInTavoResponse>"));
    EXPECT_TRUE(Accepts("<preSignInTavoResponse><preSignInTavoReturn xmlns:i=\"" +
                        std::string(Namespaces::kXmlSchemaInstance) +
                        "\" i:nil=\"true\"/></preSignInTavoResponse>"));
}

}  // namespace
