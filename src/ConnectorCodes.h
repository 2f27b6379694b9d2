#pragma once

/// What the connector service answers in the element `error`, in decimal: `<error>17</error>`.
enum class ConnectorCode : int {
    kSuccess = 0,
    kWrongHandle = 7,
    kNotReserved = 9,
    kReserveRefused = 10,
    kNotCarriedOut = 17,  ///< the trigger could not be reset, or the mode not be switched
    kNotConfirmed = 19,   ///< the mode was switched, but no link or address came in time
    kWrongDevice = 20,
    kOverTemperature = 21
};
