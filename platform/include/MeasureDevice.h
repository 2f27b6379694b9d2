#pragma once

/// Requests to the measurement device through its open descriptor ("/dev/measure/0").
namespace MeasureDevice {

/// Whether an edge on terminal 15 was seen since the last reset. Returns 0 and sets `triggered`, or
/// -1 when the device does not answer.
[[nodiscard]] int QueryTrigger15(int descriptor, bool& triggered);

/// Forgets the edge. Returns 0, or -1 when the device does not answer.
[[nodiscard]] int ResetTrigger15(int descriptor);

}  // namespace MeasureDevice
