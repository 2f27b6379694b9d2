// Any bytes as what the vehicle Ethernet diagnosis has found out.

#include "Fuzzing.h"
#include "KvadVin.h"

using Fuzzing::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = Fuzzing::ToText(data, size);
    Fuzzing::WriteFile(KvadVin::kPath, text);
    KvadVin found;
    Require(found.Read(), "a file that is there is read");
    std::vector<std::string> values = found.controlUnits;
    values.insert(values.end(), {found.vin, found.gateway});
    std::size_t sum = 0;
    for (const std::string& value : values) {
        Require(!Fuzzing::HasControls(value), "no value holds control characters");
        Require(!value.starts_with(' ') && !value.ends_with(' '), "no value has blanks around it");
        sum += value.size();
    }
    Require(sum <= text.size(), "values are parts of the file");
    const std::string list = found.ControlUnitList();
    Require(list.starts_with('[') && list.ends_with(']') && list.size() <= text.size() + 2,
            "the list holds the values");
    KvadVin again = found;
    Require(again.Read() && again.ControlUnitList() == list, "nothing stays of a former reading");
    return 0;
}
