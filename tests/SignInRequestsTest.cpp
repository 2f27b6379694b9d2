#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

#include "SignInRequests.h"
#include "XmlText.h"

namespace {

using Kind = ZelConfig::Kind;

/// The texts in an element, a blank behind each.
std::string Values(const std::string& message, const std::string& element) {
    const std::size_t begin = message.find("<ns2:" + element + ">");
    const std::string inner =
        message.substr(begin, message.find("</ns2:" + element, begin) - begin);
    return std::regex_replace(std::regex_replace(inner, std::regex("<[^/][^>]*>"), ""),
                              std::regex("</[^>]*>"), " ");
}

class SignInRequestsTest : public testing::Test {
protected:
    SignInRequestsTest() {
        const struct {
            const char* key;
            const char* value;
        } settings[] = {
            {"hardware.devid", "TAVO0012345"},
            {"tavo.hostname", "BAY-7"},
            {"tavo.color", "violet"},
            {"country.code", "AT"},
            {"net.current.networktype", "0"},
            {"network.current.defaultgateway", "192.168.68.1"},
            {"network.current.lan.ip", "192.168.68.42"},
            {"network.current.lan.netmask", "255.255.0.0"},
            {"network.current.wlan.ip", "10.0.0.5"},
            {"network.current.wlan.netmask", "255.0.0.0"},
            {"network.mac.lan", "02:00:00:12:34:56"},
            {"network.mac.wlan", "02:00:00:12:34:57"},
            {"system.timestamp", "1700000000123"},
            {"system.version.app", "10202"},
            {"system.version.boot", "10203"},
        };
        for (const auto& [key, value] : settings) {
            config_.Set(key, value, Kind::kFixed);
        }
        // Local time is an hour ahead of, and in another year than, universal time.
        setenv("TZ", "CET-1", 1);
        tzset();
    }

    static constexpr std::time_t kNewYear = 1704065700;  // 2023-12-31 23:35:00 UTC
    ZelConfig config_;
};

// The form of the messages and their constant texts are checked by every manager.
TEST_F(SignInRequestsTest, TheValuesAreThoseOfTheBox) {
    const std::string preSignIn = SignInRequests::PreSignIn(config_, kNewYear);
    for (const char* part :
         {"<ns2:color>#8a4280<", "<ns2:timestamp>1700000000123<", "<ns2:countryCode>AT<",
          "<ns2:minute>35</ns2:minute><ns2:hour>0</ns2:hour><ns2:day>1</ns2:day>",
          "<ns2:month>1</ns2:month><ns2:year>2024</ns2:year>", "<ns2:currentVersion>10203<",
          "<ns2:appVersion>10202<", "<ns2:firmwareVersion>10203<", "<ns2:softwareVersion>10202<"}) {
        EXPECT_NE(preSignIn.find(part), std::string::npos) << part << " in " << preSignIn;
    }
    const struct {
        const char* type;
        const char* external;
        const char* internal;
    } cases[] = {
        {"0", "192.168.68.1 192.168.68.42 02:00:00:12:34:56 255.255.0.0 ", "02:00:00:12:34:57 "},
        {"1", "02:00:00:12:34:56 ", "192.168.68.1 10.0.0.5 02:00:00:12:34:57 255.0.0.0 "},
    };
    for (const auto& c : cases) {
        config_.Set("net.current.networktype", c.type, Kind::kFixed);
        for (const std::string& message :
             {SignInRequests::PreSignIn(config_, kNewYear), SignInRequests::SignIn(config_)}) {
            EXPECT_EQ(Values(message, "externalInterface"), c.external) << message;
            EXPECT_EQ(Values(message, "internalInterface"), c.internal) << message;
        }
    }
}

TEST_F(SignInRequestsTest, ValuesCannotBecomeMarkup) {
    const struct {
        const char* hostName;
        const char* element;
    } cases[] = {
        {"</ns2:hostname><ns2:type>X", "&lt;/ns2:hostname&gt;&lt;ns2:type&gt;X"},
        {"a&amp;b", "a&amp;amp;b"},
        {"bell\a", "bell?"},
    };
    for (const auto& c : cases) {
        config_.Set("tavo.hostname", c.hostName, Kind::kPersistent);
        const std::string element =
            std::string("<ns2:hostname>") + c.element + "</ns2:hostname><ns2:type>TAVO</ns2:type>";
        for (const std::string& message :
             {SignInRequests::PreSignIn(config_, kNewYear), SignInRequests::SignIn(config_)}) {
            EXPECT_NE(message.find(element), std::string::npos) << c.hostName << "\n" << message;
            EXPECT_TRUE(XmlText::Parse(message)) << c.hostName;
        }
    }
}

}  // namespace
