// Any bytes as what a box answers to the commands of zelctl: nothing that steers a terminal is
// shown. An input is the number of a command and the body of each answer up to a zero byte, the
// last of which goes on answering.

#include <sys/mman.h>
#include <unistd.h>

#include "AgentCommands.h"
#include "ConnectorCommands.h"
#include "FileCommands.h"
#include "Fuzzing.h"
#include "HttpClient.h"
#include "InfoCommand.h"
#include "MoveCommands.h"

using Fuzzing::Require;

namespace {

std::string_view answers;

Outcome NextAnswer(std::string& body) {
    std::string_view rest = answers;
    body = Fuzzing::Take(rest, '\0');
    answers = rest.empty() ? answers : rest;
    return body.empty() ? Outcome{ExitStatus::kNotUnderstood, "empty"} : Outcome{};
}

/// Standard output, kept in memory.
class Output {
public:
    Output() : file_(memfd_create("output", 0)) {
        Require(dup2(file_, STDOUT_FILENO) == STDOUT_FILENO, "output can be kept");
        setenv("HOME", "/tmp", 1);
    }
    /// What was printed since the last time.
    std::string Take() {
        std::fflush(stdout);
        const off_t size = lseek(file_, 0, SEEK_CUR);
        std::string text(static_cast<std::size_t>(size), '\0');
        Require(pread(file_, text.data(), text.size(), 0) == size, "output can be read");
        lseek(file_, 0, SEEK_SET);
        return text;
    }

private:
    int file_;
};

}  // namespace

Outcome HttpClient::Get(const BoxAddress&, const std::string&, std::chrono::milliseconds,
                        std::string& body) {
    return NextAnswer(body);
}

Outcome HttpClient::Post(const BoxAddress&, const std::string&, const std::string&,
                         std::chrono::milliseconds, std::string& body) {
    return NextAnswer(body);
}

struct HttpClient::Kept::Library {};
HttpClient::Kept::Kept(int) {}
HttpClient::Kept::~Kept() = default;

Outcome HttpClient::Kept::Get(const BoxAddress&, const std::string&, std::chrono::milliseconds,
                              std::string& body) {
    return NextAnswer(body);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr struct {
        Outcome (*run)(const Options& options) = nullptr;
        bool json = false;
        const char* allowed = "\n";
    } kCommands[] = {
        {InfoCommand::Run},
        {InfoCommand::Run, true},
        {ConnectorCommands::Reserve},
        {ConnectorCommands::Release},
        {ConnectorCommands::Lock},
        {MoveCommands::Mode},
        {ConnectorCommands::Command, false, "\n\t"},
        {AgentCommands::SelfTest},
        {AgentCommands::Status},
        {AgentCommands::Start},
        {FileCommands::Wsdl, false, "\n\t"},
        {AgentCommands::SelfTest, true},
        {AgentCommands::Status, true},
        {FileCommands::Log, true},
    };
    static Output output;
    std::string_view rest = Fuzzing::ToText(data, size);
    const auto& command = kCommands[Fuzzing::TakeByte(rest) % std::size(kCommands)];
    answers = rest;
    Options options;
    options.box = "192.168.68.42";
    options.json = command.json;
    options.noWait = true;
    options.arguments = {command.run == ConnectorCommands::Lock ? "any" : "dhcp", "voltage"};
    options.parameters = {"key=value"};
    const Outcome outcome = command.run(options);
    const std::string shown = output.Take();
    Require(!Fuzzing::HasControls(shown, command.allowed), "what is shown is safe");
    Require(outcome.Failed() == !outcome.text.empty(), "a failure has a reason");
    return 0;
}
