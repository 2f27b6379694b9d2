// Any bytes as the attributes that answer a search for boxes: nothing that steers a terminal is
// shown.

#include <nlohmann/json.hpp>

#include "Box.h"
#include "BoxChanges.h"
#include "BoxName.h"
#include "BoxTable.h"
#include "Fuzzing.h"
#include "Report.h"
#include "SafeText.h"

using Fuzzing::Require;

namespace {

void CheckBox(const Box& box) {
    const std::string json =
        Report::Of(box).dump(-1, ' ', true, Report::Json::error_handler_t::replace);
    Require(!Fuzzing::HasControls(json), "JSON is safe to show");
    Require(Report::Json::accept(json), "JSON can be read");
    const BoxTable::Line line = BoxTable::MakeLine(box);
    const std::string table = BoxTable::Render({line, line}, false);
    Require(!Fuzzing::HasControls(table, "\n"), "a table holds no control characters");
    Require(std::count(table.begin(), table.end(), '\n') == 3, "a box is a line of the table");
    std::string colored = BoxTable::Render({line}, true);
    // The escapes are the table's own: to the end of the colour, or of the heading, that is, "m".
    for (std::size_t at = 0; (at = colored.find("\033[", at)) != std::string::npos;) {
        const std::size_t end = colored.find_first_not_of("0123456789;", at + 2);
        Require(end != std::string::npos && colored[end] == 'm', "colours are the only escapes");
        colored.erase(at, end + 1 - at);
    }
    Require(!Fuzzing::HasControls(colored, "\n"), "a coloured table holds only colours");

    BoxAddress address;
    const Outcome outcome = BoxName::ChooseOnly({box, box}, address);
    Require(!Fuzzing::HasControls(outcome.text), "a choice is safe to show");
    BoxChanges changes;
    std::vector<BoxChanges::Change> news;
    for (const auto& boxes : {std::vector<Box>{}, {box}, {Box{box.address, {}}}, {}, {}}) {
        changes.Next(boxes, news);
    }
    for (const BoxChanges::Change& change : news) {
        for (const std::string& text : change.texts) {
            Require(!Fuzzing::HasControls(text), "a change is safe to show");
        }
    }
    static_cast<void>(box.HasSerial("12345"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CheckBox(Box::Read("192.168.68.42", std::string(Fuzzing::ToText(data, size))));
    return 0;
}
