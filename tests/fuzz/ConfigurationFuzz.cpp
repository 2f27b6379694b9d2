// Any bytes as the configuration file: what was read is saved, and read again as it was.

#include "Fuzzing.h"
#include "ZelConfig.h"

using Fuzzing::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // White space in front of the first line alone belongs to a key, which loses it as soon as
    // another one stands before it.
    std::string_view text = Fuzzing::ToText(data, size);
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    Fuzzing::WriteFile(ZelConfig::kConfigurationFile, text);
    ZelConfig config;
    Require(config.Load(), "a file that is there is read");
    Require(config.Save(), "what was read is saved");
    ZelConfig again;
    Require(again.Load(), "what was saved is read");

    std::ifstream file(ZelConfig::kConfigurationFile, std::ios::binary);
    std::string lastKey;
    bool isFirst = true;
    for (std::string line; std::getline(file, line); isFirst = false) {
        const std::size_t cut = line.find('=');
        Require(cut != std::string::npos, "every line is a setting");
        const std::string key = line.substr(0, cut);
        Require(isFirst || key > lastKey, "every setting is one line");
        lastKey = key;
        std::string value;
        Require(config.Get(key, value) && value == line.substr(cut + 1),
                "a line holds what was read");
        Require(again.Get(key, value) && value == line.substr(cut + 1),
                "a line is read as it was saved");
        Require(text.find(line) != std::string_view::npos, "a setting is a line of the file");
    }
    return 0;
}
