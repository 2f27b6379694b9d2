#pragma once

#include <string>

/// The files with which an enterprise WLAN (EAP-TLS) is joined. All of them are their owner's
/// alone.
namespace WlanEnterprise {

inline constexpr char kDirectory[] = "/config";
inline constexpr char kCaCertificate[] = "/config/cacert";
inline constexpr char kClientCertificate[] = "/config/clientcert";
inline constexpr char kPrivateKey[] = "/config/keypass";
inline constexpr char kSupplicantFile[] = "/config/wpa.conf";

/// Replaces the certificates and the private key, given as the text of their files; an empty text
/// keeps the present file. Returns false when one cannot be written.
[[nodiscard]] bool WriteCertificates(const std::string& caCertificate,
                                     const std::string& clientCertificate,
                                     const std::string& privateKey);

/// Replaces the supplicant's network file. Returns false when it cannot be written.
[[nodiscard]] bool WriteSupplicantFile(const std::string& ssid, const std::string& deviceId);

}  // namespace WlanEnterprise
