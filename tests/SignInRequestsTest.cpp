#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include "SignInRequests.h"
#include "XmlText.h"

namespace {

using Kind = ZelConfig::Kind;

/// `text` without its line breaks; NIL and NAMESPACES stand for what is the same at every place.
std::string Joined(std::string text) {
    const struct {
        const char* word;
        const char* meaning;
    } words[] = {
        {"\n", ""},
        {"NIL", "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:nil=\"true\"/>"},
        {"NAMESPACES",
         "xmlns:ns2=\"http://lusora.tembra.com/services/opla/OrsManagerTavo/v1/beans/signin\" "
         "xmlns:ns3=\"http://lusora.tembra.com/services/opla/OrsManagerTavo/v1/beans\" "
         "xmlns:ns4=\"http://lusora.tembra.com/services/opla/OrsManagerTavo/v1\""},
    };
    for (const auto& [word, meaning] : words) {
        for (auto at = text.find(word); at != std::string::npos; at = text.find(word)) {
            text.replace(at, std::string_view(word).size(), meaning);
        }
    }
    return text;
}

constexpr char kWlanUsed[] = R"(<ns2:internalInterface>
<ns2:defaultGateway>192.168.68.1</ns2:defaultGateway><ns2:ip>10.0.0.5</ns2:ip>
<ns2:macAddress>02:00:00:12:34:57</ns2:macAddress><ns2:name NIL
<ns2:networkMask>255.0.0.0</ns2:networkMask></ns2:internalInterface>)";
constexpr char kWiredUnused[] = R"(<ns2:externalInterface>
<ns2:defaultGateway NIL<ns2:ip NIL<ns2:macAddress>02:00:00:12:34:56</ns2:macAddress>
<ns2:name NIL<ns2:networkMask NIL</ns2:externalInterface>)";

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

TEST_F(SignInRequestsTest, PreSignInOfAWiredBox) {
    EXPECT_EQ(SignInRequests::PreSignIn(config_, kNewYear),
              Joined(R"(<?xml version='1.0' encoding='UTF-8'?>
<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/"><S:Body>
<ns4:preSignInTavo NAMESPACES><in0><ns2:device>
<ns2:fingerprint>TAVO0012345</ns2:fingerprint><ns2:hostname>BAY-7</ns2:hostname>
<ns2:type>TAVO</ns2:type>
</ns2:device>
<ns2:deviceDetails><ns2:caption>TAVO</ns2:caption><ns2:comment></ns2:comment>
<ns2:description>TAVO, Velka, QK20417B</ns2:description>
<ns2:serialNumber>TAVO0012345</ns2:serialNumber></ns2:deviceDetails>
<ns2:hardwareInformation><ns2:manufacturer>Velka</ns2:manufacturer><ns2:product>TAVO</ns2:product>
<ns2:serial>TAVO0012345</ns2:serial><ns2:version>16.43.06</ns2:version></ns2:hardwareInformation>
<ns2:networkConfiguration>
<ns2:internalInterface><ns2:defaultGateway NIL<ns2:ip NIL
<ns2:macAddress>02:00:00:12:34:57</ns2:macAddress><ns2:name NIL<ns2:networkMask NIL
</ns2:internalInterface>
<ns2:externalInterface><ns2:defaultGateway>192.168.68.1</ns2:defaultGateway>
<ns2:ip>192.168.68.42</ns2:ip><ns2:macAddress>02:00:00:12:34:56</ns2:macAddress>
<ns2:name NIL<ns2:networkMask>255.255.0.0</ns2:networkMask></ns2:externalInterface>
</ns2:networkConfiguration>
<ns2:adHocConfig><ns2:band>1</ns2:band><ns2:channel>1</ns2:channel>
<ns2:securityLevel>2</ns2:securityLevel><ns2:ssid>SSID</ns2:ssid>
<ns2:credentials>Dummy-Credentials</ns2:credentials>
<ns2:cacertificate>Dummy-CA-Cert</ns2:cacertificate>
<ns2:clientcertificate>Dummy-Client-Cert</ns2:clientcertificate>
<ns2:keypass>Lomitrax</ns2:keypass></ns2:adHocConfig>
<ns2:color>#8a4280</ns2:color>
<ns2:components><ns2:item><ns2:name>Agent</ns2:name><ns2:active>true</ns2:active>
<ns2:services></ns2:services><ns2:timestamp>1700000000123</ns2:timestamp></ns2:item>
</ns2:components>
<ns2:countryCode>AT</ns2:countryCode>
<ns2:date xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:type="ns2:DateEx">
<ns2:minute>35</ns2:minute><ns2:hour>0</ns2:hour><ns2:day>1</ns2:day><ns2:month>1</ns2:month>
<ns2:year>2024</ns2:year><ns2:timezone></ns2:timezone></ns2:date>
<ns2:infrastructureConfig><ns2:band>1</ns2:band><ns2:cacertificate>Dummy-CA-Cert</ns2:cacertificate>
<ns2:channel>1</ns2:channel><ns2:clientcertificate>Dummy-Client-Cert</ns2:clientcertificate>
<ns2:credentials>Dummy-Credentials</ns2:credentials><ns2:keypass>Lomitrax</ns2:keypass>
<ns2:mode>1</ns2:mode><ns2:securityLevel>106</ns2:securityLevel><ns2:ssid>SSID</ns2:ssid>
</ns2:infrastructureConfig>
<ns2:parentHostname>TAVO</ns2:parentHostname><ns2:registrationStatus>0</ns2:registrationStatus>
<ns2:updateConfigurationExt><ns2:updateSoftware>false</ns2:updateSoftware>
<ns2:currentVersion>10203</ns2:currentVersion><ns2:updateType>TAVO</ns2:updateType>
<ns2:updateLocation><ns2:port>80</ns2:port><ns2:context></ns2:context><ns2:attributes/>
</ns2:updateLocation><ns2:appVersion>10202</ns2:appVersion>
<ns2:firmwareVersion>10203</ns2:firmwareVersion><ns2:softwareVersion>10202</ns2:softwareVersion>
</ns2:updateConfigurationExt></in0></ns4:preSignInTavo></S:Body></S:Envelope>)") +
                  "\r\n");
}

TEST_F(SignInRequestsTest, SignInOfAWiredBox) {
    EXPECT_EQ(SignInRequests::SignIn(config_), Joined(R"(<?xml version='1.0' encoding='UTF-8'?>
<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/"><S:Body>
<ns4:signInTavo NAMESPACES><in0>
<ns2:fingerprint>TAVO0012345</ns2:fingerprint><ns2:hostname>BAY-7</ns2:hostname>
<ns2:type>TAVO</ns2:type>
</in0><in1>
<ns2:externalInterface><ns2:defaultGateway>192.168.68.1</ns2:defaultGateway>
<ns2:ip>192.168.68.42</ns2:ip><ns2:macAddress>02:00:00:12:34:56</ns2:macAddress>
<ns2:name NIL<ns2:networkMask>255.255.0.0</ns2:networkMask></ns2:externalInterface>
<ns2:internalInterface><ns2:defaultGateway NIL<ns2:ip NIL
<ns2:macAddress>02:00:00:12:34:57</ns2:macAddress><ns2:name NIL<ns2:networkMask NIL
</ns2:internalInterface>
</in1><in2>
<ns2:shareCatalog><ns2:shares/></ns2:shareCatalog><ns2:componentCatalog>
<ns2:components><ns2:item><ns2:name>Agent</ns2:name><ns2:active>true</ns2:active>
<ns2:services></ns2:services><ns2:timestamp>1700000000123</ns2:timestamp></ns2:item>
</ns2:components>
</ns2:componentCatalog><ns2:serviceUserCatalog><ns2:userContexts/></ns2:serviceUserCatalog>
</in2></ns4:signInTavo></S:Body></S:Envelope>)"));
}

TEST_F(SignInRequestsTest, TheInterfaceInUseIsSentInFull) {
    config_.Set("net.current.networktype", "1", Kind::kFixed);
    const std::string preSignIn = SignInRequests::PreSignIn(config_, kNewYear);
    EXPECT_NE(preSignIn.find(Joined(std::string(kWlanUsed) + kWiredUnused)), std::string::npos)
        << preSignIn;
    const std::string signIn = SignInRequests::SignIn(config_);
    EXPECT_NE(signIn.find(Joined(std::string(kWiredUnused) + kWlanUsed)), std::string::npos)
        << signIn;
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
