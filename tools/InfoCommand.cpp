#include "InfoCommand.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "SafeText.h"
#include "Session.h"

namespace InfoCommand {
namespace {

using Report::Json;

// What the device information holds several of.
constexpr char kListed[] = "Channel";

/// The state in words, as zelctl find has it, and addresses dotted. Of a name the last part counts.
std::string Readable(std::string_view name, const std::string& value) {
    name.remove_prefix(name.rfind('.') + 1);
    if (name == "state") {
        return Box{"", {{"State", value}}}.State();
    }
    constexpr std::string_view kAddresses[] = {"ip", "ip4Address", "gateway", "netmask"};
    const bool isAddress =
        std::find(std::begin(kAddresses), std::end(kAddresses), name) != std::end(kAddresses);
    return isAddress ? Report::Dotted(value) : value;
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// All values below `parent`, their names behind those of what holds them; within limits, so that
/// no stranger's answer becomes longer by that than it is.
void Flatten(const xmlNode* parent, const std::string& prefix, Pairs& pairs, int depth = 0) {
    constexpr std::size_t kMaxName = 40;
    constexpr std::size_t kMaxPairs = 1000;
    constexpr int kMaxDepth = 8;
    int count = 0;
    for (xmlNode* child : XmlText::Children(parent)) {
        if (pairs.size() >= kMaxPairs) {
            return;
        }
        const std::string name = SafeText::Shorten(XmlText::LocalName(child), kMaxName);
        if (xmlFirstElementChild(child) == nullptr || depth == kMaxDepth) {
            pairs.emplace_back(prefix + name, XmlText::Content(child));
        } else {
            const std::string number = std::to_string(count++);
            Flatten(child, prefix + (name == kListed ? number : name) + ".", pairs, depth + 1);
        }
    }
}

void PrintText(const Pairs& pairs) {
    std::size_t width = 0;
    for (const auto& pair : pairs) {
        width = std::max(width, SafeText::Width(SafeText::Line(pair.first)));
    }
    for (const auto& [name, value] : pairs) {
        std::string line = SafeText::Line(name);
        line += std::string(width - SafeText::Width(line) + 2, ' ') +
                SafeText::Line(Readable(name, value));
        line.erase(line.find_last_not_of(' ') + 1);
        std::puts(line.c_str());
    }
}

void PrintJson(const Session& session, const Pairs& pairs) {
    Json report = Report::OfInformation(session.Address().host, session.Values());
    report["attributes"] = Json::object();
    for (const auto& [name, value] : pairs) {
        report["attributes"][name] = value;
    }
    Report::Print(report);
}

}  // namespace

Outcome Run(const Options& options) {
    Session session;
    if (Outcome outcome = session.Begin(options); outcome.Failed()) {
        return outcome;
    }
    Pairs pairs;
    Flatten(session.Values(), "", pairs);
    options.json ? PrintJson(session, pairs) : PrintText(pairs);
    return {};
}

}  // namespace InfoCommand
