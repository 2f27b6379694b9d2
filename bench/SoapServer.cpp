// What a server costs that a toolkit makes of the description which the agent publishes. It answers
// getDeviceInformation, with a thread for each connection; it does not judge what it is asked.
//
// soap-server PORT constant             answers what never changes
// soap-server PORT live LOGFILE         reads for each answer what the agent reads, each source
//                                       once, and writes the lines that the agent writes
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "BenchSupport.h"
#include "ConnectorSoap.nsmap"
#include "Descriptors.h"
#include "File.h"
#include "SocketGuard.h"
#include "connectorConnectorSoapService.h"

namespace {

constexpr int kBacklog = 128;
constexpr char kInterface[] = "eth0";

/// The values of an answer that may change.
struct Values {
    std::string kl15 = "12040";
    std::string kl30 = "12310";
    std::string address = "-1062714326";
    std::string netmask = "-65536";
    std::string gateway = "-1062714367";
    std::string vin = "TESTVIN0123456789";
    bool edge = false;
    bool hasCan = false;
    bool hasMost = false;
    bool isReserved = false;
};

class Log {
public:
    explicit Log(const char* path)
        : file_(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600)) {
        if (file_.Get() < 0) {
            BenchSupport::GiveUp(std::string(path) + " cannot be written");
        }
    }

    __attribute__((format(printf, 2, 3))) void Write(const char* format, ...) const {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        std::tm local{};
        localtime_r(&now.tv_sec, &local);
        std::array<char, 512> line{};
        std::size_t length = std::strftime(line.data(), line.size(), "%Y-%m-%d %H:%M:%S", &local);
        length += static_cast<std::size_t>(std::snprintf(line.data() + length, line.size() - length,
                                                         ".%06ld  debug   %-5d ",
                                                         now.tv_nsec / 1000, gettid()));
        va_list arguments;
        va_start(arguments, format);
        length += static_cast<std::size_t>(
            std::vsnprintf(line.data() + length, line.size() - length, format, arguments));
        va_end(arguments);
        line.at(length) = '\n';
        static_cast<void>(Descriptors::WriteAll(file_.Get(), {line.data(), length + 1}));
    }

private:
    SocketGuard file_;
};

std::string FirstLine(const char* path) {
    std::array<char, 128> line{};
    const File file = OpenToRead(path);
    if (!file || std::fgets(line.data(), line.size(), file.get()) == nullptr) {
        return "";
    }
    return {line.data(), std::strcspn(line.data(), "\n")};
}

/// Calls `use` with each line of a file.
template <typename Use>
void ForEachLine(const char* path, const Use& use) {
    const File file = OpenToRead(path);
    std::array<char, 1024> line{};
    while (file && std::fgets(line.data(), line.size(), file.get()) != nullptr) {
        use(std::string_view(line.data(), std::strcspn(line.data(), "\n")));
    }
}

/// The number that an address is in the answer, with a sign.
std::string AddressText(std::uint32_t networkOrder) {
    return std::to_string(static_cast<std::int32_t>(ntohl(networkOrder)));
}

std::string AskInterface(unsigned long code) {
    const SocketGuard socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::memcpy(request.ifr_name, kInterface, sizeof kInterface);
    if (ioctl(socket.Get(), code, &request) != 0) {
        return "";
    }
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return AddressText(address.sin_addr.s_addr);
}

std::string DefaultGateway() {
    std::string gateway;
    ForEachLine("/proc/net/route", [&gateway](std::string_view line) {
        // Interface, destination and gateway: names and numbers of eight digits, tabs between them.
        constexpr std::size_t kDigits = 8;
        const std::size_t begin = std::min(line.find('\t'), line.size() - 1) + 1;
        const auto destination =
            Numbers::Parse<std::uint32_t>(line.substr(begin, kDigits), Numbers::kHexadecimal);
        if (destination == 0U && gateway.empty()) {
            gateway =
                AddressText(Numbers::Parse<std::uint32_t>(line.substr(begin + kDigits + 1, kDigits),
                                                          Numbers::kHexadecimal)
                                .value_or(0));
        }
    });
    return gateway;
}

bool HasOpticalBus() {
    bool found = false;
    ForEachLine("/proc/bus/usb/devices", [&found](std::string_view line) {
        found |= line.find("Vendor=103a ProdID=000b") != std::string_view::npos;
    });
    return found;
}

std::string Vin() {
    std::string vin;
    ForEachLine("/tmp/kvadvin", [&vin](std::string_view line) {
        constexpr std::string_view kName = "KVAD=";
        if (line.starts_with(kName)) {
            vin = line.substr(kName.size());
        }
    });
    return vin;
}

/// Answers for all connections.
class Answerer {
public:
    /// Live with a log, else with constants.
    explicit Answerer(const char* logPath) {
        if (logPath != nullptr) {
            log_ = std::make_unique<Log>(logPath);
            trigger_.Reset(open("/dev/measure/0", O_RDONLY | O_CLOEXEC));
        }
    }

    void LogConnection(const soap& context) const {
        if (log_) {
            log_->Write("Webservices connection from %s",
                        Ipv4::Dotted(context.peer.in.sin_addr).c_str());
        }
    }

    /// Memory of the answer is the context's, until the next request.
    void Answer(soap* context, _connector__getDeviceInformationResponse& response) const {
        if (log_) {
            log_->Write("Received %zu bytes should %zu", static_cast<std::size_t>(context->length),
                        static_cast<std::size_t>(context->length));
            log_->Write("Passing request for '%s' to ZelConnectorServlet", context->path);
            log_->Write("ZEL soap method: %s", "getDeviceInformation");
        }
        const Values values = log_ ? Read() : Values{};
        auto& out = *soap_new_bean__DeviceInformation(context);
        response.out = &out;
        out.channels = soap_new_bean__Channels(context);
        for (const auto name : {manager__ChannelName::KLine, manager__ChannelName::DCAN,
                                manager__ChannelName::MOST}) {
            auto* const channel = soap_new_manager__Channel(context);
            const bool isMost = name == manager__ChannelName::MOST;
            channel->active = values.isReserved && (isMost ? values.hasMost : values.hasCan);
            channel->ip = values.address;
            channel->name = name;
            channel->port = isMost ? manager__ChannelPort::_6802 : manager__ChannelPort::_6801;
            channel->type = static_cast<manager__ChannelType>(name);
            out.channels->manager__Channel_.push_back(channel);
        }
        out.currentNetworkConfig = soap_new_bean__NetworkConfig(context);
        auto& network = *out.currentNetworkConfig;
        network.gateway = values.gateway;
        network.ip4Address = values.address;
        network.lanDiscoverMode = "202";
        network.macAddress = 2;
        network.netmask = values.netmask;
        network.type = bean__NetworkType::_0;
        network.wlanSignal = 0;
        out.firmware = "10203";
        out.id = "TAVO0012345";
        out.kl15 = values.kl15;
        out.kl15Edge = values.edge;
        out.kl30 = values.kl30;
        out.serial = "0012345";
        out.state = bean__State::_4;
        out.vin = values.vin;
    }

private:
    /// In the agent's order.
    Values Read() const {
        Values values;
        values.kl15 = FirstLine("/proc/sys/atmel/kl15_ewb");
        values.kl30 = FirstLine("/proc/sys/kl30");
        log_->Write("Kl30 voltage %s, Kl15 voltage %s", values.kl30.c_str(), values.kl15.c_str());
        values.address = AskInterface(SIOCGIFADDR);
        const std::string headC = FirstLine("/proc/sys/tavoc_ver");
        values.hasCan = headC == "0" && FirstLine("/proc/sys/tavod_avail") == "0";
        values.hasMost = HasOpticalBus() && FirstLine("/tmp/moststate") == "1";
        log_->Write("MAC address: %s", "02:00:00:12:34:56");
        values.netmask = AskInterface(SIOCGIFNETMASK);
        values.gateway = DefaultGateway();
        char state = '0';
        values.edge = pread(trigger_.Get(), &state, 1, 0) == 1 && state == '1';
        values.vin = Vin();
        return values;
    }

    std::unique_ptr<Log> log_;
    SocketGuard trigger_;
};

struct FreeContext {
    void operator()(soap* context) const {
        soap_destroy(context);
        soap_end(context);
        soap_free(context);
    }
};
using Context = std::unique_ptr<soap, FreeContext>;

void Serve(Context context) {
    ConnectorSoapService(context.get()).serve();
}

/// What the toolkit calls between two requests of a connection; the memory would grow otherwise.
int ForgetRequest(soap* context) {
    soap_destroy(context);
    soap_end(context);
    return SOAP_OK;
}

}  // namespace

int ConnectorSoapService::getDeviceInformation(_connector__getDeviceInformation* /*request*/,
                                               _connector__getDeviceInformationResponse& response) {
    static_cast<const Answerer*>(soap->user)->Answer(soap, response);
    return SOAP_OK;
}

// The description has more operations than are measured.
#define NO_OPERATION(name)                                                               \
    int ConnectorSoapService::name(_connector__##name*, _connector__##name##Response&) { \
        return SOAP_NO_METHOD;                                                           \
    }
NO_OPERATION(reserveDevice)
NO_OPERATION(releaseDevice)
NO_OPERATION(resetTrigger15Edge)
NO_OPERATION(setHostLock)
NO_OPERATION(switchMode)
NO_OPERATION(executeGenericCommand)

int main(int argc, char** argv) {
    const std::string_view mode = argc > 2 ? argv[2] : "";
    const bool isLive = mode == "live" && argc == 4;
    if (!isLive && (mode != "constant" || argc != 3)) {
        BenchSupport::GiveUp(
            "usage: soap-server PORT constant\n       soap-server PORT live LOGFILE");
    }
    const Answerer answerer(isLive ? argv[3] : nullptr);
    const Context listener(soap_new1(SOAP_IO_KEEPALIVE));
    listener->bind_flags = SO_REUSEADDR;
    listener->socket_flags = MSG_NOSIGNAL;
    listener->max_keep_alive = 0;  // a connection serves as many requests as its client likes
    listener->fserveloop = ForgetRequest;
    listener->user = const_cast<Answerer*>(&answerer);  // is const again where it is used
    const auto port = BenchSupport::Argument<std::uint16_t>(argv[1], "port");
    if (!soap_valid_socket(soap_bind(listener.get(), nullptr, port, kBacklog))) {
        BenchSupport::GiveUp("the port cannot be had");
    }
    for (;;) {
        if (soap_valid_socket(soap_accept(listener.get()))) {
            answerer.LogConnection(*listener);
            std::thread(Serve, Context(soap_copy(listener.get()))).detach();
        }
    }
}
