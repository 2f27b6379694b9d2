#pragma once

/// XML namespaces of the agent's services and of the manager's. The files under protocols/ carry
/// the same texts.
namespace Namespaces {

inline constexpr char kSoap11Envelope[] = "http://schemas.xmlsoap.org/soap/envelope/";
inline constexpr char kSoap12Envelope[] = "http://www.w3.org/2003/05/soap-envelope";
inline constexpr char kXmlSchemaInstance[] = "http://www.w3.org/2001/XMLSchema-instance";

inline constexpr char kConnectorService[] = "http://lusora.tembra.com/services/zel/Connector/v1";
inline constexpr char kConnectorBean[] = "http://lusora.tembra.com/services/zel/Connector/v1/beans";
inline constexpr char kManagerBean[] = "http://lusora.tembra.com/services/zel/Manager/v1/beans";
inline constexpr char kBeans[] = "http://lusora.tembra.com/services/zel/beans";

inline constexpr char kAgentService[] = "http://lusora.tembra.com/services/Agent";

inline constexpr char kSignInService[] = "http://lusora.tembra.com/services/opla/OrsManagerTavo/v1";
inline constexpr char kSignInBaseBean[] =
    "http://lusora.tembra.com/services/opla/OrsManagerTavo/v1/beans";
inline constexpr char kSignInBean[] =
    "http://lusora.tembra.com/services/opla/OrsManagerTavo/v1/beans/signin";

}  // namespace Namespaces
