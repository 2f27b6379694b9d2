#pragma once

#include <chrono>
#include <memory>

#include "HttpConnection.h"

/// The threads of connections: one for each, which afterwards serves the next one if that comes
/// within a moment. A fault ends a thread and its connection. They may outlive their server.
namespace ConnectionWorkers {

/// How long a thread without a connection waits for one.
inline constexpr std::chrono::milliseconds kIdleTime{100};

/// Has a connection served. Returns false, and closes it, when no thread can be made; throws
/// std::bad_alloc, and closes it, where that much memory lacks.
[[nodiscard]] bool Serve(std::unique_ptr<HttpConnection> connection);

}  // namespace ConnectionWorkers
