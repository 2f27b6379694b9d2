#include "SignInRequests.h"

#include <string_view>

#include "ColorTable.h"
#include "Namespaces.h"
#include "NetworkType.h"
#include "StoreKeys.h"
#include "XmlText.h"
#include "ZelLog.h"

namespace SignInRequests {
namespace {

std::string Stored(const ZelConfig& config, const char* key) {
    std::string value;
    if (!config.Get(key, value)) {
        ZEL_ERROR("Key %s not found at ZelConfig", key);
    }
    return value;
}

std::string Wrap(const std::string& name, const std::string& content) {
    return "<" + name + ">" + content + "</" + name + ">";
}

/// An element of the sign-in beans with a value, which is escaped.
std::string Bean(const char* name, std::string_view value) {
    return Wrap(std::string("ns2:") + name, XmlText::Escape(value));
}

std::string NilBean(const char* name) {
    return std::string("<ns2:") + name + " xmlns:xsi=\"" + Namespaces::kXmlSchemaInstance +
           "\" xsi:nil=\"true\"/>";
}

std::string DeviceChildren(const ZelConfig& config) {
    return Bean("fingerprint", Stored(config, StoreKeys::kDeviceId)) +
           Bean("hostname", Stored(config, StoreKeys::kHostName)) + Bean("type", "TAVO");
}

/// Keys of one of the box's interfaces.
struct Interface {
    const char* element;
    const char* ip;
    const char* mac;
    const char* mask;
    bool wired;
};
constexpr Interface kInternal{"ns2:internalInterface", StoreKeys::kWlanIp, StoreKeys::kWlanMac,
                              StoreKeys::kWlanNetmask, false};
constexpr Interface kExternal{"ns2:externalInterface", StoreKeys::kLanIp, StoreKeys::kLanMac,
                              StoreKeys::kLanNetmask, true};

/// The interface that is not in use has only its MAC address.
std::string InterfaceElement(const ZelConfig& config, const Interface& interface) {
    const bool isWired = NetworkType::IsLan(config);
    const auto inUse = [&](const char* name, const char* key) {
        return isWired == interface.wired ? Bean(name, Stored(config, key)) : NilBean(name);
    };
    return Wrap(interface.element, inUse("defaultGateway", StoreKeys::kDefaultGateway) +
                                       inUse("ip", interface.ip) +
                                       Bean("macAddress", Stored(config, interface.mac)) +
                                       NilBean("name") + inUse("networkMask", interface.mask));
}

std::string Components(const ZelConfig& config) {
    return Wrap(
        "ns2:components",
        Wrap("ns2:item", Bean("name", "Agent") + Bean("active", "true") + Bean("services", "") +
                             Bean("timestamp", Stored(config, StoreKeys::kTimestamp))));
}

std::string Date(std::time_t now) {
    constexpr int kFirstYear = 1900;
    std::tm local{};
    localtime_r(&now, &local);
    return std::string("<ns2:date xmlns:xsi=\"") + Namespaces::kXmlSchemaInstance +
           "\" xsi:type=\"ns2:DateEx\">" + Bean("minute", std::to_string(local.tm_min)) +
           Bean("hour", std::to_string(local.tm_hour)) +
           Bean("day", std::to_string(local.tm_mday)) +
           Bean("month", std::to_string(local.tm_mon + 1)) +
           Bean("year", std::to_string(local.tm_year + kFirstYear)) + Bean("timezone", "") +
           "</ns2:date>";
}

// What the manager knows about the box's WLAN settings is its own; these two only fill their place.
constexpr char kAdHocConfig[] =
    "<ns2:adHocConfig><ns2:band>1</ns2:band><ns2:channel>1</ns2:channel>"
    "<ns2:securityLevel>2</ns2:securityLevel><ns2:ssid>SSID</ns2:ssid>"
    "<ns2:credentials>Dummy-Credentials</ns2:credentials>"
    "<ns2:cacertificate>Dummy-CA-Cert</ns2:cacertificate>"
    "<ns2:clientcertificate>Dummy-Client-Cert</ns2:clientcertificate>"
    "<ns2:keypass>Lomitrax</ns2:keypass></ns2:adHocConfig>";
constexpr char kInfrastructureConfig[] =
    "<ns2:infrastructureConfig><ns2:band>1</ns2:band>"
    "<ns2:cacertificate>Dummy-CA-Cert</ns2:cacertificate><ns2:channel>1</ns2:channel>"
    "<ns2:clientcertificate>Dummy-Client-Cert</ns2:clientcertificate>"
    "<ns2:credentials>Dummy-Credentials</ns2:credentials><ns2:keypass>Lomitrax</ns2:keypass>"
    "<ns2:mode>1</ns2:mode><ns2:securityLevel>106</ns2:securityLevel><ns2:ssid>SSID</ns2:ssid>"
    "</ns2:infrastructureConfig>";
constexpr char kParent[] =
    "<ns2:parentHostname>TAVO</ns2:parentHostname>"
    "<ns2:registrationStatus>0</ns2:registrationStatus>";
constexpr char kUpdateLocation[] =
    "<ns2:updateType>TAVO</ns2:updateType><ns2:updateLocation><ns2:port>80</ns2:port>"
    "<ns2:context></ns2:context><ns2:attributes/></ns2:updateLocation>";

std::string UpdateConfiguration(const ZelConfig& config) {
    const std::string boot = Stored(config, StoreKeys::kBootVersion);
    const std::string application = Stored(config, StoreKeys::kApplicationVersion);
    return Wrap("ns2:updateConfigurationExt",
                Bean("updateSoftware", "false") + Bean("currentVersion", boot) + kUpdateLocation +
                    Bean("appVersion", application) + Bean("firmwareVersion", boot) +
                    Bean("softwareVersion", application));
}

std::string Envelope(const char* operation, const std::string& arguments) {
    return std::string("<?xml version='1.0' encoding='UTF-8'?><S:Envelope xmlns:S=\"") +
           Namespaces::kSoap11Envelope + "\"><S:Body><ns4:" + operation + " xmlns:ns2=\"" +
           Namespaces::kSignInBean + "\" xmlns:ns3=\"" + Namespaces::kSignInBaseBean +
           "\" xmlns:ns4=\"" + Namespaces::kSignInService + "\">" + arguments +
           "</ns4:" + operation + "></S:Body></S:Envelope>";
}

}  // namespace

std::string PreSignIn(const ZelConfig& config, std::time_t now) {
    const std::string deviceId = Stored(config, StoreKeys::kDeviceId);
    std::string device = Wrap("ns2:device", DeviceChildren(config));
    device += Wrap("ns2:deviceDetails", Bean("caption", "TAVO") + Bean("comment", "") +
                                            Bean("description", "TAVO, Velka, QK20417B") +
                                            Bean("serialNumber", deviceId));
    device +=
        Wrap("ns2:hardwareInformation", Bean("manufacturer", "Velka") + Bean("product", "TAVO") +
                                            Bean("serial", deviceId) + Bean("version", "16.43.06"));
    device += Wrap("ns2:networkConfiguration",
                   InterfaceElement(config, kInternal) + InterfaceElement(config, kExternal));
    device += kAdHocConfig;
    device += Bean("color", ColorTable::ValueOf(Stored(config, StoreKeys::kColor)));
    device += Components(config);
    device += Bean("countryCode", Stored(config, StoreKeys::kCountry));
    device += Date(now);
    device += kInfrastructureConfig;
    device += kParent;
    device += UpdateConfiguration(config);
    return Envelope("preSignInTavo", Wrap("in0", device)) + "\r\n";
}

std::string SignIn(const ZelConfig& config) {
    const std::string catalogues =
        "<ns2:shareCatalog><ns2:shares/></ns2:shareCatalog>" +
        Wrap("ns2:componentCatalog", Components(config)) +
        "<ns2:serviceUserCatalog><ns2:userContexts/></ns2:serviceUserCatalog>";
    return Envelope("signInTavo", Wrap("in0", DeviceChildren(config)) +
                                      Wrap("in1", InterfaceElement(config, kExternal) +
                                                      InterfaceElement(config, kInternal)) +
                                      Wrap("in2", catalogues));
}

}  // namespace SignInRequests
