#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <tuple>
#include <utility>

#include "SignInRequests.h"
#include "Support.h"
#include "XmlText.h"

namespace {

/// The texts in an element, a blank behind each.
std::string Values(const std::string& message, const std::string& element) {
    const std::size_t begin = message.find("<ns2:" + element + ">");
    const std::string inner =
        message.substr(begin, message.find("</ns2:" + element, begin) - begin);
    return std::regex_replace(std::regex_replace(inner, std::regex("<[^/][^>]*>"), ""),
                              std::regex("</[^>]*>"), " ");
}

// The form of the messages and their constant texts are checked by every manager.
TEST(SignInRequestsTest, TheValuesAreThoseOfTheBoxAndCannotBecomeMarkup) {
    ZelConfig config;
    for (const auto& [key, value] : {std::pair{"hardware.devid", "TAVO0012345"},
                                     {"tavo.hostname", "</ns2:hostname>&amp;\a"},
                                     {"tavo.color", "violet"},
                                     {"country.code", "AT"},
                                     {"network.current.defaultgateway", "192.168.68.1"},
                                     {"network.current.lan.ip", "192.168.68.42"},
                                     {"network.current.lan.netmask", "255.255.0.0"},
                                     {"network.current.wlan.ip", "10.0.0.5"},
                                     {"network.current.wlan.netmask", "255.0.0.0"},
                                     {"network.mac.lan", "02:00:00:12:34:56"},
                                     {"network.mac.wlan", "02:00:00:12:34:57"},
                                     {"system.timestamp", "1700000000123"},
                                     {"system.version.app", "10202"},
                                     {"system.version.boot", "10203"}}) {
        config.Set(key, value, ZelConfig::Kind::kFixed);
    }
    // Local time is an hour ahead of, and in another year than, universal time.
    setenv("TZ", "CET-1", 1);
    tzset();
    constexpr std::time_t kNewYear = 1704065700;  // 2023-12-31 23:35:00 UTC
    const std::string text = SignInRequests::PreSignIn(config, kNewYear);
    ExpectParts(
        text,
        {"<ns2:color>#8a4280<", "<ns2:timestamp>1700000000123<", "<ns2:countryCode>AT<",
         "<ns2:minute>35</ns2:minute><ns2:hour>0</ns2:hour><ns2:day>1</ns2:day>",
         "<ns2:month>1</ns2:month><ns2:year>2024</ns2:year>", "<ns2:currentVersion>10203<",
         "<ns2:appVersion>10202<", "<ns2:firmwareVersion>10203<", "<ns2:softwareVersion>10202<"});
    for (const auto& [type, external, internal] :
         {std::tuple{"0", "192.168.68.1 192.168.68.42 02:00:00:12:34:56 255.255.0.0 ",
                     "02:00:00:12:34:57 "},
          {"1", "02:00:00:12:34:56 ", "192.168.68.1 10.0.0.5 02:00:00:12:34:57 255.0.0.0 "}}) {
        config.Set("net.current.networktype", type, ZelConfig::Kind::kFixed);
        for (const std::string& message :
             {SignInRequests::PreSignIn(config, kNewYear), SignInRequests::SignIn(config)}) {
            EXPECT_EQ(Values(message, "externalInterface"), external) << message;
            EXPECT_EQ(Values(message, "internalInterface"), internal) << message;
            EXPECT_EQ(Values(message, "hostname"), "&lt;/ns2:hostname&gt;&amp;amp;?") << message;
            EXPECT_TRUE(XmlText::Parse(message)) << message;
        }
    }
    unsetenv("TZ");
}

}  // namespace
