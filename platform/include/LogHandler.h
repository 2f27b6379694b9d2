#pragma once

#include <array>
#include <atomic>
#include <bitset>
#include <cstdarg>
#include <string>
#include <string_view>
#include <vector>

#include "LogClient.h"
#include "LogEvent.h"
#include "LogLevelManager.h"

/// Named node of the tree that log lines travel: from the handler they are logged under to every
/// client handler and every client below it. Handlers are made on first use and live until the
/// process ends. Thread-safe.
class LogHandler {
public:
    /// The handler of that name, made now if there is none.
    static LogHandler& GetLogHandler(const std::string& name);

    /// Lines of this handler also go to `client`. Returns false, changing nothing, when that would
    /// close a circle. Adding the same handler twice has no further effect.
    bool AddClient(LogHandler& client);
    /// Lines of this handler are written by `client`, which must be removed before it is destroyed.
    void AddClient(LogClient& client);
    void RemoveClient(LogClient& client);

    /// Lets lines of `level` through this handler (the default) or stops them here, whether they
    /// were logged under this handler or come from another one.
    void SetLogLevel(int level, bool enabled);

    /// True when a line of `level` logged here would reach at least one client. Costs one load.
    bool IsListening(int level) const {
        return level >= 0 && level <= LogLevelManager::kMaxLevel &&
               listening_[static_cast<std::size_t>(level)].load(std::memory_order_relaxed);
    }

    /// Logs one printf-style line; `sourceFile` must be a string literal. Nothing is formatted when
    /// nobody listens. A line is formatted before any lock is taken; one for which there is no
    /// memory is lost.
    void Log(int level, const char* sourceFile, int sourceLine, const char* format, ...) noexcept
        __attribute__((format(printf, 5, 6)));

    LogHandler(const LogHandler&) = delete;
    LogHandler& operator=(const LogHandler&) = delete;

private:
    using Levels = std::bitset<LogLevelManager::kMaxLevel + 1>;
    /// A client that lines of this handler come to, and of which levels.
    struct Route {
        LogClient* client = nullptr;
        Levels levels;
    };

    LogHandler() = default;
    ~LogHandler() = default;

    bool Reaches(const LogHandler& other) const;
    void AddRoutes(Levels levels, std::vector<Route>& routes) const;
    static void RefreshRoutes();
    void Format(int level, const char* sourceFile, int sourceLine, const char* format,
                va_list arguments) const __attribute__((format(printf, 5, 0)));
    void Write(int level, const char* sourceFile, int sourceLine, std::string_view message) const;

    struct Registry;

    std::vector<LogHandler*> handlers_;
    std::vector<LogClient*> clients_;
    Levels enabled_ = Levels().set();
    std::vector<Route> routes_;
    std::array<std::atomic<bool>, LogLevelManager::kMaxLevel + 1> listening_{};
};
