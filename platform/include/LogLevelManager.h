#pragma once

#include <string>

/// Registry of log levels. A level is a number with a name; every log line carries one.
/// Thread-safe.
class LogLevelManager {
public:
    /// Highest level number that can be registered.
    static constexpr int kMaxLevel = 511;

    /// Registers `level` (0..kMaxLevel) under `name`; a later registration of the same number
    /// replaces the name. Returns false when the number is out of range.
    static bool RegisterLevel(int level, const std::string& name);

    /// Name of `level`, or its decimal number when it was never registered.
    static std::string GetLevelName(int level);
};
