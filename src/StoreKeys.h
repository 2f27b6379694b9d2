#pragma once

/// Every key of the store (ZelConfig) that the agent knows: who writes it, its kind, its unit or
/// range. Kinds are those of ZelConfig::Kind; what is "persistent" stands in the configuration
/// file, with whatever else is there, and is what an administrator can set. Values are texts; those
/// without a unit are words of their source.
namespace StoreKeys {

// What the box is. Fixed, from the board's files at start-up (DeviceAttributes).
inline constexpr char kSerial[] = "hardware.serial";       // digits
inline constexpr char kDeviceId[] = "hardware.devid";      // "TAVO" and the serial number
inline constexpr char kDeviceType[] = "hardware.devtype";  // "TAVO"
inline constexpr char kHardwareVersion[] = "hardware.version";
/// Misspelt, and asked for as it is.
inline constexpr char kBatteryCapacity[] = "hardware.batttery.capactiy";  // "0"
inline constexpr char kLanMac[] = "network.mac.lan";           // six hexadecimal bytes, colons
inline constexpr char kWlanMac[] = "network.mac.wlan";         // the same, also without the adapter
inline constexpr char kBootVersion[] = "system.version.boot";  // and SoftwareUpdate
inline constexpr char kBootPackage[] = "system.version.boot_pkg";
inline constexpr char kApplicationVersion[] = "system.version.app";  // and SoftwareUpdate
inline constexpr char kApplicationPackage[] = "system.version.app_pkg";
inline constexpr char kPackage[] = "system.version.pkg";  // the later one of the two
inline constexpr char kVersion[] = "zel.version";         // StoreSetup: of the agent
inline constexpr char kRevision[] = "zel.svn.version";    // StoreSetup: of the agent

// Its state. Computed, or read from a file of the board, at every get (DeviceAttributes).
inline constexpr char kKl15[] = "system.voltage.kl15";          // file, mV
inline constexpr char kKl30[] = "system.voltage.kl30";          // file, mV
inline constexpr char kKl15Edge[] = "system.voltage.kl15trig";  // "1": terminal 15 was switched on
inline constexpr char kTemperature[] = "system.thermal.temp";   // degrees Celsius
inline constexpr char kTooHot[] = "system.thermal.tempcrit";    // "0", "1"
inline constexpr char kFanOn[] = "system.thermal.fanstate";     // "0", "1"
inline constexpr char kFanSpeed[] = "system.thermal.fanspeed";  // file
inline constexpr char kFreeMemory[] = "system.info.free_ram";   // kB
inline constexpr char kTimestamp[] = "system.timestamp";        // ms since 1970-01-01 00:00 UTC

// The vehicle. Computed, or read from a file of the board, at every get (DeviceAttributes).
inline constexpr char kVin[] = "diag.kvad.vin";
inline constexpr char kHasVin[] = "diag.kvad.available";  // "0", "1"
inline constexpr char kGatewayAddress[] = "diag.kvad.gateway";
inline constexpr char kControlUnits[] = "diag.kvad.sg_list";        // "[a,b]"
inline constexpr char kOpticalBusLight[] = "diag.most.lighton";     // "0", "1"
inline constexpr char kOpticalBusThere[] = "diag.most.tavobstate";  // "0", "1"
inline constexpr char kHeadC[] = "diag.connected.tavo_c";           // "0", "1"
inline constexpr char kHeadD[] = "diag.connected.tavo_d";           // file, "0", "1"

// The network as it is. Computed at every get (NetworkAttributes); addresses are dotted, no value
// where there is none.
inline constexpr char kLanIp[] = "network.current.lan.ip";
inline constexpr char kLanNetmask[] = "network.current.lan.netmask";
/// Misspelt: nobody provides it, and the legacy service answers an empty mask.
inline constexpr char kLanNetmaskMisspelt[] = "network.current.lan.netmasl";
inline constexpr char kWlanIp[] = "network.current.wlan.ip";
inline constexpr char kWlanNetmask[] = "network.current.wlan.netmask";
inline constexpr char kWlanQuality[] = "network.current.wlan.quality";  // 0 to 255
inline constexpr char kDefaultGateway[] = "network.current.defaultgateway";
inline constexpr char kNetworkType[] = "net.current.networktype";  // NetworkType: fixed, "0", "1"

// Who uses the box. Fixed (StoreSetup, then DeviceReservation).
inline constexpr char kState[] = "zel.state.current";  // "4" free, "5" reserved
inline constexpr char kOwner[] = "zel.state.owner";
inline constexpr char kHandle[] = "zel.state.handle";  // decimal
inline constexpr char kUuid[] = "zel.state.uuid";
inline constexpr char kHostLock[] = "zel.state.hostlock";  // dotted
// Whether it serves. Fixed.
inline constexpr char kServing[] =
    "zel.state.startup";  // StoreSetup, ManagerLocator, ZelSlpService: "0", "1"
inline constexpr char kStopped[] =
    "zel.state.is_stopped";  // OrsAgentServlet: "0", "1", no value before the first stop

// Settings. Persistent; also written by the one named.
inline constexpr char kOplaMode[] = "opla.mode";      // StoreSetup, where the file has none (then
                                                      // fixed): "OPLA", "OPLA-Next"
inline constexpr char kHostName[] = "tavo.hostname";  // PreSignInResponse, Zel
inline constexpr char kColor[] = "tavo.color";        // PreSignInResponse: ColorTable's names
inline constexpr char kCountry[] = "country.code";    // PreSignInResponse: two letters
inline constexpr char kManager[] =                    // OrsSignIn: dotted
    "com.tembra.lusora.agent.impl.configuration.AgentConfiguration.ips";
inline constexpr char kFoundManager[] =  // ManagerLocator: dotted
    "com.tembra.lusora.agent.impl.configuration.AgentConfiguration.ips.tmp";
inline constexpr char kAddressMode[] = "network.config.discover.mode";  // AddressMode
inline constexpr char kStaticIp[] = "network.config.static.ip";         // what inet_aton takes
inline constexpr char kStaticNetmask[] = "network.config.static.netmask";
inline constexpr char kStaticGateway[] = "network.config.static.gateway";
inline constexpr char kListenBacklog[] = "web.listen.backlog";
// PreSignInResponse: the access point.
inline constexpr char kWlanSecurity[] = "wlan.conf.infra.security.level";
inline constexpr char kWlanSsid[] = "wlan.conf.infra.ssid";
inline constexpr char kWlanBand[] = "wlan.conf.infra.band";
inline constexpr char kWlanChannel[] = "wlan.conf.infra.channel";
inline constexpr char kWlanCredentials[] = "wlan.conf.infra.credentials";
inline constexpr char kWlanPassPhrase[] = "wlan.conf.infra.psk";  // which empties it only
// Of the access point, too, and set by hand.
inline constexpr char kWlanEncryption[] = "wlan.conf.infra.encryption.type";  // "AES", "TKIP"

}  // namespace StoreKeys
