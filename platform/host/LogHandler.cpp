#include "LogHandler.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string_view>

namespace {

// Bytes of a message that is put together without taking memory.
constexpr std::size_t kUsualMessage = 512;

}  // namespace

/// All handlers, and the lock over the tree that they form.
struct LogHandler::Registry {
    std::shared_mutex mutex;
    std::map<std::string, LogHandler*> handlers;

    // Logging goes on while the process ends: handlers are never destroyed.
    static Registry& Instance() {
        static auto& registry = *new Registry;
        return registry;
    }
};

LogHandler& LogHandler::GetLogHandler(const std::string& name) {
    Registry& registry = Registry::Instance();
    const std::unique_lock lock(registry.mutex);
    LogHandler*& handler = registry.handlers[name];
    if (handler == nullptr) {
        handler = new LogHandler();
    }
    return *handler;
}

bool LogHandler::AddClient(LogHandler& client) {
    const std::unique_lock lock(Registry::Instance().mutex);
    if (client.Reaches(*this)) {
        return false;
    }
    if (std::find(handlers_.begin(), handlers_.end(), &client) == handlers_.end()) {
        handlers_.push_back(&client);
        RefreshRoutes();
    }
    return true;
}

void LogHandler::AddClient(LogClient& client) {
    const std::unique_lock lock(Registry::Instance().mutex);
    clients_.push_back(&client);
    RefreshRoutes();
}

void LogHandler::RemoveClient(LogClient& client) {
    const std::unique_lock lock(Registry::Instance().mutex);
    clients_.erase(std::remove(clients_.begin(), clients_.end(), &client), clients_.end());
    RefreshRoutes();
}

void LogHandler::SetLogLevel(int level, bool enabled) {
    if (level < 0 || level > LogLevelManager::kMaxLevel) {
        return;
    }
    const std::unique_lock lock(Registry::Instance().mutex);
    enabled_[static_cast<std::size_t>(level)] = enabled;
    RefreshRoutes();
}

bool LogHandler::Reaches(const LogHandler& other) const {
    return this == &other ||
           std::any_of(handlers_.begin(), handlers_.end(),
                       [&other](const LogHandler* client) { return client->Reaches(other); });
}

void LogHandler::AddRoutes(Levels levels, std::vector<Route>& routes) const {
    levels &= enabled_;
    for (LogClient* client : clients_) {
        // A client that can be reached by two ways writes the line once.
        const auto found = std::find_if(routes.begin(), routes.end(), [client](const Route& route) {
            return route.client == client;
        });
        if (found == routes.end()) {
            routes.push_back({client, levels});
        } else {
            found->levels |= levels;
        }
    }
    for (const LogHandler* handler : handlers_) {
        handler->AddRoutes(levels, routes);
    }
}

void LogHandler::RefreshRoutes() {
    for (const auto& [name, handler] : Registry::Instance().handlers) {
        handler->routes_.clear();
        handler->AddRoutes(Levels().set(), handler->routes_);
        Levels listening;
        for (const Route& route : handler->routes_) {
            listening |= route.levels;
        }
        for (std::size_t level = 0; level < listening.size(); ++level) {
            handler->listening_[level].store(listening[level], std::memory_order_relaxed);
        }
    }
}

void LogHandler::Log(int level, const char* sourceFile, int sourceLine, const char* format,
                     ...) noexcept {
    if (!IsListening(level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    try {
        Format(level, sourceFile, sourceLine, format, arguments);
    } catch (const std::exception&) {
        // There is no memory: the line is lost.
    }
    va_end(arguments);
}

/// What reads the arguments, and needs most of the stack, is done before anything is locked: a
/// thread that faults does so here.
void LogHandler::Format(int level, const char* sourceFile, int sourceLine, const char* format,
                        va_list arguments) const {
    va_list again;
    va_copy(again, arguments);
    char usual[kUsualMessage];
    const int length = std::vsnprintf(usual, sizeof usual, format, arguments);
    const auto size = static_cast<std::size_t>(std::max(length, 0));
    if (size < sizeof usual) {
        va_end(again);
        Write(level, sourceFile, sourceLine, {usual, size});
        return;
    }
    std::string message(size, '\0');
    std::vsnprintf(message.data(), size + 1, format, again);
    va_end(again);
    Write(level, sourceFile, sourceLine, message);
}

void LogHandler::Write(int level, const char* sourceFile, int sourceLine,
                       std::string_view message) const {
    const LogEvent event(level, sourceFile, sourceLine, message);
    const std::shared_lock lock(Registry::Instance().mutex);
    for (const Route& route : routes_) {
        if (route.levels[static_cast<std::size_t>(level)]) {
            route.client->Append(event);
        }
    }
}
