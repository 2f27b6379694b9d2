#include "Completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <map>
#include <sstream>
#include <string_view>

#include "BoxFinder.h"
#include "BoxTable.h"
#include "ColorTable.h"

namespace Completion {
namespace {

constexpr std::chrono::milliseconds kWait{300};

/// What is offered, and what is said of it.
using Offers = std::map<std::string, std::string>;

/// In place of names of files, which a shell knows better; no word is like it.
constexpr char kFiles[] = "\tfiles";

/// Whether a shell takes it as one word and does nothing with it: boxes choose their names.
bool IsPlain(const std::string& word) {
    return !word.empty() && word.front() != '-' &&
           word.find_first_not_of(
               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
               "._-") == std::string::npos;
}

/// Boxes by serial number, where it names one, or else by address, and by what `current` begins to
/// spell.
void OfferBoxes(const std::string& current, bool serialsOnly, Offers& offers) {
    for (const BoxTable::Line& line : BoxTable::MakeLines(
             BoxFinder::Find(kWait, {}, -1, false), [](const Box& /*box*/) { return true; })) {
        const auto& [address, serial, name, color, state, owner, voltage, network] = line.row;
        const bool isSerial = IsPlain(serial) && (line.sameSerial == 1 || serialsOnly);
        std::string text = color;
        for (const std::string& part : {state, owner}) {
            text += (text.empty() || part.empty() ? "" : " ") + part;
        }
        if (isSerial) {
            offers.emplace(serial, text);
        }
        if (!serialsOnly && (!isSerial || !current.empty())) {
            offers.emplace(address, text);
        }
        if (!serialsOnly && !current.empty() && IsPlain(name)) {
            offers.emplace(name, text);
        }
    }
}

/// Values of an option or a word that goes by this name, or is one of several: "free|reserved".
void OfferValues(const std::string& kind, const std::string& current, Offers& offers) {
    if (kind == "[BOX]" || kind == "SERIAL") {
        OfferBoxes(current, kind == "SERIAL", offers);
    } else if (kind == "COLOR") {
        for (const ColorTable::Color& color : ColorTable::kColors) {
            offers.emplace(color.name, color.value);
        }
    } else if (kind == "MODE") {
        OfferValues("dhcp|linklocal|configured", current, offers);
    } else if (kind == "HOST") {
        offers.emplace("any", "");
    } else if (kind == "FILE") {
        offers.emplace(kFiles, "");
    } else if (kind.find('|') != std::string::npos) {
        std::istringstream values(kind);
        for (std::string value; std::getline(values, value, '|');) {
            offers.emplace(value, "");
        }
    }
}

std::string KindOf(const CLI::Option& option) {
    return option.get_option_text().empty() ? option.get_type_name() : option.get_option_text();
}

const CLI::Option* FindOption(const CLI::App& app, const std::string& word) {
    return word.starts_with('-') ? app.get_option_no_throw(word) : nullptr;
}

bool HasValue(const CLI::Option* option) {
    return option != nullptr && option->get_items_expected_max() > 0;
}

void OfferOptions(const CLI::App& app, const std::vector<std::string>& given, Offers& offers) {
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            if (std::find(given.begin(), given.end(), "--" + name) == given.end()) {
                offers.emplace("--" + name, option->get_description());
            }
        }
    }
}

/// The words that are not options nor their values.
std::vector<std::string> Plain(const CLI::App& app, const std::vector<std::string>& given) {
    std::vector<std::string> plain;
    for (std::size_t i = 0; i < given.size(); ++i) {
        if (HasValue(FindOption(app, given[i]))) {
            ++i;
        } else if (!given[i].starts_with('-')) {
            plain.push_back(given[i]);
        }
    }
    return plain;
}

/// What stands behind the words that are there already; the box may have been left out.
void OfferWords(const CLI::App& app, const std::string& usage,
                const std::vector<std::string>& given, const std::string& current, Offers& offers) {
    std::istringstream stream(usage);
    std::vector<std::string> kinds{std::istream_iterator<std::string>(stream), {}};
    const std::vector<std::string> plain = Plain(app, given);
    Offers second;
    if (kinds.size() > 1 && !plain.empty()) {
        OfferValues(kinds[1], "", second);
    }
    if (!plain.empty() && second.contains(plain.front())) {
        kinds.erase(kinds.begin());
    }
    for (std::size_t i = plain.size(); i < std::min(kinds.size(), plain.size() + 2); ++i) {
        OfferValues(kinds[i], current, offers);
    }
}

void Show(const Offers& offers, const std::string& prefix, const std::string& current) {
    for (const auto& [word, text] : offers) {
        if (word == kFiles) {
            std::puts(kFiles);
        } else if (word.starts_with(current)) {
            std::printf("%s%s%s%s\n", prefix.c_str(), word.c_str(), text.empty() ? "" : "\t",
                        text.c_str());
        }
    }
}

}  // namespace

void Print(const CLI::App& app, const std::string& usage, const std::vector<std::string>& words) {
    Offers offers;
    const std::string current = words.empty() ? "" : words.back();
    if (words.size() < 2) {
        for (const CLI::App* command : app.get_subcommands({})) {
            offers.emplace(command->get_name(), command->get_description());
        }
        if (current.starts_with('-')) {
            OfferOptions(app, {}, offers);
        }
        Show(offers, "", current);
        return;
    }
    const std::vector<const CLI::App*> named = app.get_subcommands(
        [&words](const CLI::App* each) { return each->get_name() == words.front(); });
    if (named.empty()) {
        return;
    }
    const CLI::App* const command = named.front();
    const std::vector<std::string> given(words.begin() + 1, words.end() - 1);
    const std::size_t equals = current.find('=');
    if (current.starts_with("--") && equals != std::string::npos) {
        const std::string value = current.substr(equals + 1);
        const CLI::Option* const option = FindOption(*command, current.substr(0, equals));
        if (HasValue(option)) {
            OfferValues(KindOf(*option), value, offers);
        }
        Show(offers, current.substr(0, equals + 1), value);
        return;
    }
    const CLI::Option* const before = given.empty() ? nullptr : FindOption(*command, given.back());
    if (HasValue(before)) {
        OfferValues(KindOf(*before), current, offers);
    } else if (current.starts_with('-')) {
        OfferOptions(*command, given, offers);
    } else {
        OfferWords(*command, usage, given, current, offers);
        if (offers.empty()) {
            OfferOptions(*command, given, offers);
        }
    }
    Show(offers, "", current);
}

}  // namespace Completion
