#pragma once

#include <string>
#include <vector>

/// What the vehicle Ethernet diagnosis has found out about the vehicle, from "/tmp/kvadvin".
///
/// The file holds one name=value pair a line; blanks around the value do not count, lines with
/// other names are skipped, and of a name that occurs again the last line counts:
///
///     KVAD=<vehicle identification, empty while no vehicle answers>
///     GW_DIAG_ADR=<diagnosis address of the vehicle's gateway>
///     DIAG_ADR=<diagnosis address of a control unit>       (one line for each)
struct KvadVin {
    static constexpr char kPath[] = "/tmp/kvadvin";

    std::string vin;
    std::string gateway;
    std::vector<std::string> controlUnits;

    /// Reads the file. Returns false when there is none.
    [[nodiscard]] bool Read();

    /// The control units' addresses as "[a,b,c]".
    std::string ControlUnitList() const;
};
