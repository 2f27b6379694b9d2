#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <utility>

#include "AgentCommands.h"
#include "BoxCommands.h"
#include "Characters.h"
#include "Completion.h"
#include "ConnectorCommands.h"
#include "FileCommands.h"
#include "InfoCommand.h"
#include "MetricsCommand.h"
#include "MoveCommands.h"
#include "Revision.h"
#include "SafeText.h"

namespace CommandLine {
namespace {

/// What a command takes besides --help, --json and --wait.
enum Taken : unsigned {
    kBox = 1U << 0U,
    kHandle = 1U << 1U,
    kFilters = 1U << 2U,
    kOwnerAndLock = 1U << 3U,
    kParameters = 1U << 4U,
    kInterval = 1U << 5U,
    kFollow = 1U << 6U,
    kAgent = 1U << 7U,
    kMetrics = 1U << 8U,
    kReturn = 1U << 9U,  ///< waits for the box to be back
};

struct Command {
    const char* name = nullptr;
    const char* words = nullptr;  ///< as the usage line shows them
    const char* description = nullptr;
    const char* examples = nullptr;
    Run run = nullptr;
    unsigned taken = 0;
    std::size_t wordCount = 0;  ///< that it needs, besides the box
    double timeout = 10;
};

constexpr double kModeTimeout = 60;  // the box may take half a minute
constexpr double kRestartTimeout = 180;
constexpr double kCommandTimeout = 60;  // boxes commonly end a command after half a minute
constexpr char kWaitFree[] = "--wait-free";
constexpr int kWaitFreePreset = 600;

constexpr Command kCommands[] = {
    {"find", "", "Find the boxes on the network",
     "zelctl find --state free\n"
     "  zelctl find --color red --json",
     BoxCommands::Find, kFilters},
    {"watch", "", "Show the boxes on the network and what changes, until Ctrl-C",
     "zelctl watch\n"
     "  zelctl watch --interval 10 >> changes.txt",
     BoxCommands::Watch, kInterval},
    {"metrics", "", "Write metrics of the boxes on the network, for a monitoring system",
     "zelctl metrics\n"
     "  zelctl metrics --output /var/lib/prometheus/node-exporter/zel.prom",
     MetricsCommand::Run, kMetrics},
    {"info", "[BOX]", "Show what a box is",
     "zelctl info\n"
     "  zelctl info 192.168.68.42 --json",
     InfoCommand::Run, kBox},
    {"reserve", "[BOX]", "Reserve a box; prints the handle, which is also kept",
     "zelctl reserve --owner me --wait-free\n"
     "  zelctl reserve TAVO0012345 --owner me --lock 192.168.68.1",
     ConnectorCommands::Reserve, kBox | kOwnerAndLock},
    {"release", "[BOX]", "Release a reserved box",
     "zelctl release\n"
     "  zelctl release TAVO0012345 --handle 1234567890",
     ConnectorCommands::Release, kBox | kHandle},
    {"lock", "[BOX] HOST", "Open the diagnostic ports of a reserved box to one host, or to any",
     "zelctl lock 192.168.68.7\n"
     "  zelctl lock TAVO0012345 any",
     ConnectorCommands::Lock, kBox | kHandle, 1},
    {"mode", "[BOX] MODE",
     "Switch a box's addressing (dhcp, linklocal or configured) and print its new address",
     "zelctl mode dhcp\n"
     "  zelctl mode TAVO0012345 linklocal",
     MoveCommands::Mode, kBox | kHandle | kReturn, 1, kModeTimeout},
    {"command", "[BOX] SUBSYSTEM COMMAND [KEY=VALUE...]",
     "Run a command on the vehicle interface of a reserved box",
     "zelctl command vehicle voltage unit=mV\n"
     "  zelctl command TAVO0012345 vehicle voltage",
     ConnectorCommands::Command, kBox | kHandle | kParameters, 2, kCommandTimeout},
    {"selftest", "[BOX]", "Run a box's self test", "zelctl selftest TAVO0012345",
     AgentCommands::SelfTest, kBox, 0, kModeTimeout},
    {"status", "[BOX]", "Show whether a box's service runs, and what it monitors",
     "zelctl status TAVO0012345", AgentCommands::Status, kBox},
    {"start", "[BOX]", "Start a box's service", "zelctl start TAVO0012345", AgentCommands::Start,
     kBox},
    {"stop", "[BOX]", "Stop a box's service: nobody can reserve it", "zelctl stop TAVO0012345",
     AgentCommands::Stop, kBox},
    {"restart", "[BOX]", "Restart a box, and print its address when it is back",
     "zelctl restart TAVO0012345", MoveCommands::Restart, kBox | kReturn, 0, kRestartTimeout},
    {"log", "[BOX]", "Print a box's log",
     "zelctl log 192.168.68.42 | grep error\n"
     "  zelctl log --follow",
     FileCommands::Log, kBox | kFollow},
    {"wsdl", "[BOX]", "Print the description of a box's connector service",
     "zelctl wsdl > connector.wsdl\n"
     "  zelctl wsdl --agent",
     FileCommands::Wsdl, kBox | kAgent},
};

constexpr char kBoxHelp[] =
    "BOX is an address or a host name (:PORT may follow), a serial number or a device\n"
    "id. It may be left out when there is only one box on the network, or only one that\n"
    "is reserved from here, if the command needs a reservation. -- ends the options: what\n"
    "follows are words, even those that begin with a hyphen.\n\n";
constexpr char kStatusHelp[] =
    "Exit status: 0 done; 1 the box refuses, its service is stopped (status) or a test\n"
    "has failed (selftest); 2 wrong usage; 3 no such box, or it cannot be reached; 4 the\n"
    "answer is a fault or is not understood; 5 the output cannot be written.";

// What the shells' completion files call; no person does.
constexpr char kComplete[] = "--complete";

class HelpFormatter : public CLI::Formatter {
public:
    explicit HelpFormatter(std::string usage) : usage_(std::move(usage)) {}
    std::string make_usage(const CLI::App* /*app*/,  // NOLINT(readability-identifier-naming)
                           std::string /*name*/) const override {
        return "Usage: zelctl " + usage_ + "\n";
    }

private:
    std::string usage_;
};

/// What the command line is read into.
struct Reading {
    Options options;
    double timeout = 0;
    double wait = 0;
    double interval = 0;
    double forgetDays = 0;
    double waitFree = 0;
};

std::chrono::milliseconds ToMilliseconds(double seconds) {
    constexpr double kMilliseconds = 1000;
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * kMilliseconds));
}

constexpr double kLeastSeconds = 0.1;

/// The library's own takes "nan" for a number within every range.
CLI::Validator Range(double least, double most) {
    const CLI::Validator range = CLI::Range(least, most);
    const auto check = [range](std::string& text) {
        const bool isNumber = text.find_first_of("nN") == std::string::npos;
        return isNumber ? range(text) : "'" + text + "' is no number";
    };
    return {check, ""};
}

void AddSeconds(CLI::App& app, const std::string& name, double& value, double preset,
                const std::string& description) {
    constexpr double kMost = 3600;
    const std::string text = "SECONDS (" + std::to_string(static_cast<int>(preset)) + ")";
    app.add_option(name, value, description)
        ->default_val(preset)
        ->option_text(text)
        ->check(Range(kLeastSeconds, kMost));
}

/// An option that is given or not, and has no value.
void AddFlag(CLI::App& app, const std::string& name, bool& value, const std::string& description) {
    app.add_flag(name, value, description)->disable_flag_override();
}

/// An option with a text, which is given when it is not empty: a script's variable that is not set
/// must not mean every box, or every host.
CLI::Option& AddText(CLI::App& app, const std::string& name, std::string& value,
                     const std::string& type, const std::string& description) {
    const auto check = [](const std::string& text) {
        return text.empty() ? "an empty text is none" : std::string();
    };
    return *app.add_option(name, value, description)
                ->option_text(type)
                ->check(CLI::Validator(check, "", ""));
}

void AddFilters(CLI::App& app, Options& options) {
    AddText(app, "--color", options.color, "COLOR", "Only boxes of this color: a name, or #rrggbb");
    AddText(app, "--serial", options.serial, "SERIAL", "Only the box with this serial number");
    AddText(app, "--state", options.state, "free|reserved", "Only boxes that are free, or reserved")
        .transform(CLI::IsMember({"free", "reserved"}, CLI::ignore_case));
    AddText(app, "--owner", options.owner, "NAME", "Only boxes that this one has reserved");
}

void AddMetrics(CLI::App& app, Reading& reading) {
    AddText(app, "--output", reading.options.output, "FILE",
            "The file to be replaced as a whole; - or nothing is standard output");
    AddFlag(app, "--owner-label", reading.options.ownerLabel, "Tell also who has reserved a box");
    AddFlag(app, "--temperature", reading.options.temperature,
            "Ask each box also whether it is too hot");
    AddText(app, "--state", reading.options.stateFile, "FILE",
            "What earlier searches have seen, in place of the file of the user");
    constexpr double kLeast = 0.001;
    constexpr double kMost = 3660;
    app.add_option("--forget", reading.forgetDays, "How long a box that is gone is told")
        ->default_val(7)
        ->option_text("DAYS (7)")
        ->check(Range(kLeast, kMost));
}

bool LooksLikeOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-' && !Characters::IsDigit(word[1]);
}

void AddCommand(CLI::App& app, const Command& command, Reading& reading) {
    Options& options = reading.options;
    const auto takes = [&command](Taken what) { return (command.taken & what) != 0; };
    CLI::App& added = *app.add_subcommand(command.name, command.description);
    added.group("Commands");
    added.set_help_flag("-h,--help", "Print this help");
    added.formatter(std::make_shared<HelpFormatter>(std::string(command.name) +
                                                    (*command.words == '\0' ? "" : " ") +
                                                    command.words + " [OPTIONS]"));
    added.footer((takes(kBox) ? kBoxHelp : "") + std::string("Examples:\n  ") + command.examples);
    if (takes(kFilters)) {
        AddFilters(added, options);
    }
    if (takes(kOwnerAndLock)) {
        AddText(added, "--owner", options.owner, "NAME", "Who reserves").required();
        AddText(added, "--lock", options.lock, "HOST",
                "The only host that may use the diagnostic ports, or any");
    }
    if (takes(kOwnerAndLock)) {
        constexpr double kMost = 86400;
        added
            .add_option(kWaitFree, reading.waitFree,
                        "Wait for a box that is reserved, and take it when it is free")
            ->option_text("[SECONDS] (" + std::to_string(kWaitFreePreset) + ")")
            ->check(Range(kLeastSeconds, kMost));
    }
    if (takes(kHandle)) {
        AddText(added, "--handle", options.handle, "HANDLE",
                "Of the reservation, in place of the one kept");
    }
    AddFlag(added, "--json", options.json, "Print JSON, errors too");
    if (takes(kFollow)) {
        AddFlag(added, "--follow", options.follow, "Go on with what is new, until Ctrl-C");
    }
    if (takes(kAgent)) {
        AddFlag(added, "--agent", options.agent, "That of the agent service instead");
    }
    if (takes(kMetrics)) {
        AddMetrics(added, reading);
    }
    if (takes(kInterval)) {
        AddSeconds(added, "--interval", reading.interval, 5, "Time from one search to the next");
    }
    if (takes(kBox)) {
        added.allow_extras();  // the words; an option for them would take "[a,b]" for two
        AddSeconds(added, "--timeout", reading.timeout, command.timeout,
                   takes(kReturn)
                       ? "Longest wait in all, until the box is seen again"
                       : "Longest wait for the box to accept, and for each part of its answer");
    }
    if (takes(kReturn)) {
        AddFlag(added, "--no-wait", options.noWait, "Only tell the box, and print no address");
    }
    AddSeconds(added, "--wait", reading.wait, 2,
               "How long boxes have time to answer a search; twice that where answers get lost");
}

/// Gives an option whose value may be left out the one it has then. An address is no number of
/// seconds, nor is what begins with a zero before another digit, as serial numbers do.
void FillIn(std::vector<std::string>& arguments) {
    const auto end = arguments.end();
    for (auto argument = arguments.begin(); argument != end; ++argument) {
        const auto value = std::next(argument);
        const bool hasValue = value != end && !value->empty() &&
                              value->find_first_not_of("0123456789.") == std::string::npos &&
                              std::count(value->begin(), value->end(), '.') < 2 &&
                              (value->front() != '0' || value->size() == 1 || (*value)[1] == '.');
        if (*argument == kWaitFree && !hasValue) {
            *argument += "=" + std::to_string(kWaitFreePreset);
        }
    }
}

}  // namespace

bool TakeWords(std::vector<std::string> words, std::size_t count, bool hasParameters,
               Options& options) {
    if (hasParameters) {
        const auto first = std::find_if(words.begin(), words.end(), [](const std::string& word) {
            return word.find('=') != std::string::npos;
        });
        options.parameters.assign(first, words.end());
        words.erase(first, words.end());
        const auto isPair = [](const std::string& word) {
            const std::size_t equals = word.find('=');
            return equals != std::string::npos && equals > 0;
        };
        if (!std::all_of(options.parameters.begin(), options.parameters.end(), isPair)) {
            return false;
        }
    }
    if (words.size() == count + 1) {
        options.box = words.front();
        words.erase(words.begin());
    }
    options.arguments = std::move(words);
    return options.arguments.size() == count;
}

Parsed Parse(int argc, const char* const* argv) {
    Parsed parsed;
    const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    const auto optionsEnd = std::find(arguments.begin(), arguments.end(), "--");
    parsed.options.json = std::any_of(arguments.begin(), optionsEnd, [](const std::string& each) {
        return each == "--json" || each.starts_with("--json=");
    });
    const std::string first = arguments.empty() ? "" : arguments.front();
    const auto wrong = [&](const std::string& what, const std::string& command) {
        parsed.outcome = {ExitStatus::kUsage, what + " (zelctl " + command + "--help)"};
        return std::move(parsed);
    };
    const bool isCommand =
        std::any_of(std::begin(kCommands), std::end(kCommands),
                    [&first](const Command& command) { return command.name == first; });
    const bool isCompletion = first == kComplete;
    if (!isCommand && !first.starts_with('-')) {
        return wrong(arguments.empty() ? "tell it what to do" : "no command '" + first + "'", "");
    }
    // Each command has defaults of its own: only the chosen one's reading counts.
    std::vector<Reading> readings(std::size(kCommands));
    CLI::App app("Finds, reserves and uses the boxes on the network.", "zelctl");
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Print this help");
    app.set_version_flag("--version", std::string("zelctl ") + kVersion + " (" + kRevision + ")",
                         "Print the version");
    app.formatter(std::make_shared<HelpFormatter>("COMMAND [WORDS] [OPTIONS]"));
    app.footer(std::string(kBoxHelp) + kStatusHelp +
               "\n\nExamples:\n  zelctl find\n  zelctl reserve TAVO0012345 --owner me\n"
               "  zelctl command TAVO0012345 vehicle voltage\n  zelctl release TAVO0012345\n\n"
               "zelctl COMMAND --help tells more of a command.");
    try {
        for (std::size_t i = 0; i < std::size(kCommands); ++i) {
            AddCommand(app, kCommands[i], readings[i]);
        }
        if (isCompletion) {
            const std::vector<std::string> words(argv + 2, argv + argc);
            const auto* const command = std::find_if(
                std::begin(kCommands), std::end(kCommands),
                [&](const Command& each) { return !words.empty() && words.front() == each.name; });
            Completion::Print(app, command == std::end(kCommands) ? "" : command->words, words);
            return parsed;
        }
        std::vector<std::string> beforeEnd(arguments.begin(), optionsEnd);
        FillIn(beforeEnd);
        std::reverse(beforeEnd.begin(), beforeEnd.end());  // as the library wants them
        app.parse(std::move(beforeEnd));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            app.exit(error);
            return parsed;
        }
        return wrong(error.what(), isCommand ? first + " " : "");
    }
    for (std::size_t i = 0; i < std::size(kCommands); ++i) {
        const Command& command = kCommands[i];
        if (!app.got_subcommand(command.name)) {
            continue;
        }
        parsed.options = std::move(readings[i].options);
        parsed.options.timeout = ToMilliseconds(readings[i].timeout);
        parsed.options.wait = ToMilliseconds(readings[i].wait);
        parsed.options.interval = ToMilliseconds(readings[i].interval);
        constexpr double kDay = 24 * 60 * 60;
        parsed.options.forget =
            std::chrono::seconds(static_cast<std::int64_t>(readings[i].forgetDays * kDay));
        parsed.options.waitFree = ToMilliseconds(readings[i].waitFree);
        std::vector<std::string> words = app.get_subcommand(command.name)->remaining();
        const auto unknown = std::find_if(words.begin(), words.end(), LooksLikeOption);
        if (unknown != words.end()) {
            return wrong("there is no option '" + *unknown + "'", first + " ");
        }
        if (optionsEnd != arguments.end()) {
            words.insert(words.end(), std::next(optionsEnd), arguments.end());
        }
        if ((command.taken & kBox) == 0 && !words.empty()) {
            return wrong("'" + words.front() + "' was not expected", first + " ");
        }
        if (std::find(words.begin(), words.end(), "") != words.end()) {
            return wrong("an empty word names nothing", first + " ");
        }
        if (!TakeWords(std::move(words), command.wordCount, (command.taken & kParameters) != 0,
                       parsed.options)) {
            return wrong(std::string("usage: zelctl ") + command.name + " " + command.words,
                         first + " ");
        }
        parsed.run = command.run;
    }
    return parsed;
}

}  // namespace CommandLine
