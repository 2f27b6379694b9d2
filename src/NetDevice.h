#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include <functional>
#include <string>
#include <utility>

#include "AddressMode.h"
#include "DiscoverModeCtrl.h"
#include "NetRequests.h"
#include "ZelConfig.h"

/// A network interface that the agent drives: its flags, its IPv4 address and its routes. DHCP (RFC
/// 2131), link-local addresses (RFC 3927) and gratuitous ARP (RFC 5227) are the board's tools.
/// Takes no lock: one interface is configured by one thread at a time.
class NetDevice {
public:
    /// Asked while something is waited for; true ends the wait.
    using StopRequested = std::function<bool()>;

    /// What every interface works on; it outlives the interface.
    struct Context {
        ZelConfig& config;
        DiscoverModeCtrl& discoverMode;
    };

    /// The configured static addresses ("network.config.static.*"), in network byte order.
    class StaticValues {
    public:
        StaticValues() = default;
        virtual ~StaticValues() = default;

        /// Reads the addresses, in any form that inet_aton accepts. False, and a line in the log,
        /// at the first that is none.
        bool Read(const ZelConfig& config);

        in_addr_t Ip() const { return ip_; }
        in_addr_t Netmask() const { return netmask_; }
        in_addr_t Gateway() const { return gateway_; }

        /// Says in the log why the kernel has refused the values, and which of them to correct;
        /// nothing when they are not the reason.
        void ExplainRefusal() const;

    private:
        in_addr_t ip_ = 0;
        in_addr_t netmask_ = 0;
        in_addr_t gateway_ = 0;
    };

    /// `interface` is a name of the kernel, alias labels like "eth0:1" included; the kernel is
    /// given its first 15 characters.
    NetDevice(std::string interface, const Context& context)
        : name_(std::move(interface)), context_(context) {}
    virtual ~NetDevice() = default;
    NetDevice(const NetDevice&) = delete;
    NetDevice& operator=(const NetDevice&) = delete;

    /// Whether there is a link.
    virtual bool HasLink() { return true; }
    /// Gives the interface its address by the address mode, which the first call reads from the
    /// store, and the routes that belong to it. It is not configured as long as it has none,
    /// whatever the tools say.
    virtual NetStatus ConfigureInterface();
    virtual NetStatus EnableInterface();
    /// Takes the address away and the interface down.
    virtual NetStatus DisableInterface();

    /// Gives the interface an address of that kind, whatever the address mode. Link-local
    /// addressing is only tried for: its tool's failure is none here.
    NetStatus SetStatic(in_addr_t ip, in_addr_t netmask, in_addr_t gateway);
    NetStatus SetDhcp();
    NetStatus SetApipa();

    // The single steps. Addresses are in network byte order.
    NetStatus SetIp(in_addr_t address);
    NetStatus SetNetmask(in_addr_t address);
    /// Adds a default route through `gateway`. One that is there already is no failure.
    NetStatus SetGateway(in_addr_t gateway);
    /// Routes the multicast groups of SLP to this interface.
    NetStatus SetHostGateway();
    void DelHostGateway();
    /// Deletes the default route through this interface's gateway, or the first one there is when
    /// this interface has none. No failure when there is none at all.
    void DelDefaultGateway();
    /// Sets `gateway` to that of the interface's default route, 0 when it has none.
    NetStatus GetGateway(in_addr_t& gateway) const;
    /// Ends the interface's DHCP client.
    void StopDhcpClient();
    /// One gratuitous ARP.
    void Announce();

    const std::string& Name() const { return name_; }

protected:
    /// Sends a request about this interface (NetRequests::Send).
    NetStatus InterfaceRequest(ifreq* request, unsigned long code) const {
        return NetRequests::Send(name_, request, code);
    }

    const ZelConfig& Config() const { return context_.config; }

    /// Whether EnableInterface has really set the interface up since the last call.
    bool TakeFreshlyUp() { return std::exchange(isFreshlyUp_, false); }

private:
    NetStatus DoSetGateway(unsigned short flags, in_addr_t dst, in_addr_t gw, in_addr_t mask);
    NetStatus DoDelGateway(unsigned short flags, in_addr_t dst, in_addr_t gw);
    bool HasAddress() const;
    NetStatus StartDhcp();
    void StartApipa();
    NetStatus FinishConfiguration();
    void ConfigureDhcp();
    NetStatus ConfigureApipa();
    NetStatus ConfigureStatic();
    std::string DhcpPidFile() const;

    std::string name_;
    AddressMode mode_ = AddressMode::kConfigured;
    bool isFreshlyUp_ = false;
    Context context_;
};
