#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

/// Waiting for, reading from and writing to descriptors that somebody owns (SocketGuard). Signals
/// interrupt none of it.
namespace Descriptors {

using Clock = std::chrono::steady_clock;

/// Until then, rounded up, so that who has waited in vain finds that the time has come; 0 when it
/// has, and at most what poll() can wait.
[[nodiscard]] int MillisecondsUntil(Clock::time_point time);

/// Waits until one of `events` (POLLIN, POLLOUT ...), or a failure, shows on the descriptor. False
/// when none has by `deadline`.
[[nodiscard]] bool WaitUntil(int descriptor, short events, Clock::time_point deadline);

/// Whether one of `events`, or a failure, shows on the descriptor now.
[[nodiscard]] bool IsReady(int descriptor, short events);

/// Writes the whole text to a file; false, with errno, when some of it cannot be written.
[[nodiscard]] bool WriteAll(int descriptor, std::string_view text);

/// Reads away what a peer sends until it closes its end, `limit` bytes have come or the time has,
/// also when there is always something to be read.
void ReadAway(int socket, std::size_t limit, Clock::time_point deadline);

}  // namespace Descriptors
