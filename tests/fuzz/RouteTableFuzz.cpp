// Any bytes as the kernel's route table.

#include <arpa/inet.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "Fuzzing.h"
#include "NetRequests.h"
#include "NetworkAttributes.h"

using Fuzzing::Require;

namespace {

constexpr char kDirectory[] = "/tmp/net";
constexpr char kTable[] = "/tmp/net/route";

ZelConfig& MakeStore() {
    mkdir(kDirectory, 0755);
    Require(mount(kDirectory, "/proc/self/net", nullptr, MS_BIND, nullptr) == 0,
            "the table can be replaced");
    auto* config = new ZelConfig;
    NetworkAttributes::Add(*config, [] { return std::string(); });
    return *config;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ZelConfig& config = MakeStore();
    const std::string_view text = Fuzzing::ToText(data, size);
    Fuzzing::WriteFile(kTable, text);

    std::string dotted;
    in_addr address{};
    const bool isKnown = config.Get("network.current.defaultgateway", dotted);
    Require(isKnown ? inet_pton(AF_INET, dotted.c_str(), &address) == 1 : dotted.empty(),
            "a gateway is an address or none");
    Require(!isKnown || text.find("00000000") != std::string_view::npos,
            "a gateway is that of a default route");

    in_addr_t gateway = 0;
    Require(!Failed(NetRequests::ReadGateway(NetworkAttributes::kLanInterface, gateway)),
            "the table is read");
    Require(gateway == 0 || text.find(NetworkAttributes::kLanInterface) != std::string_view::npos,
            "a gateway is that of the interface");
    return 0;
}
