#include "LogHandler.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <utility>

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

LogHandler::LogHandler(std::string name) : name_(std::move(name)) {}

LogHandler& LogHandler::GetLogHandler(const std::string& name) {
    Registry& registry = Registry::Instance();
    const std::unique_lock lock(registry.mutex);
    LogHandler*& handler = registry.handlers[name];
    if (handler == nullptr) {
        handler = new LogHandler(name);
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
        RefreshListening();
    }
    return true;
}

void LogHandler::AddClient(LogClient& client) {
    const std::unique_lock lock(Registry::Instance().mutex);
    clients_.push_back(&client);
    RefreshListening();
}

void LogHandler::RemoveClient(LogClient& client) {
    const std::unique_lock lock(Registry::Instance().mutex);
    clients_.erase(std::remove(clients_.begin(), clients_.end(), &client), clients_.end());
    RefreshListening();
}

void LogHandler::SetLogLevel(int level, bool enabled) {
    if (level < 0 || level > LogLevelManager::kMaxLevel) {
        return;
    }
    const std::unique_lock lock(Registry::Instance().mutex);
    disabled_[static_cast<std::size_t>(level)] = !enabled;
    RefreshListening();
}

bool LogHandler::Reaches(const LogHandler& other) const {
    return this == &other ||
           std::any_of(handlers_.begin(), handlers_.end(),
                       [&other](const LogHandler* client) { return client->Reaches(other); });
}

bool LogHandler::ComputeListening(std::size_t level) const {
    return !disabled_[level] &&
           (!clients_.empty() ||
            std::any_of(handlers_.begin(), handlers_.end(), [level](const LogHandler* client) {
                return client->ComputeListening(level);
            }));
}

void LogHandler::RefreshListening() {
    for (const auto& [name, handler] : Registry::Instance().handlers) {
        for (std::size_t level = 0; level < handler->listening_.size(); ++level) {
            handler->listening_[level].store(handler->ComputeListening(level),
                                             std::memory_order_relaxed);
        }
    }
}

void LogHandler::CollectClients(int level, std::vector<LogClient*>& clients) const {
    if (!IsListening(level)) {
        return;
    }
    for (LogClient* client : clients_) {
        if (std::find(clients.begin(), clients.end(), client) == clients.end()) {
            clients.push_back(client);
        }
    }
    for (const LogHandler* handler : handlers_) {
        handler->CollectClients(level, clients);
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
        Write(level, sourceFile, sourceLine, format, arguments);
    } catch (const std::exception&) {
        // There is no memory: the line is lost.
    }
    va_end(arguments);
}

void LogHandler::Write(int level, const char* sourceFile, int sourceLine, const char* format,
                       va_list arguments) const {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string message(static_cast<std::size_t>(std::max(length, 0)), '\0');
    std::vsnprintf(message.data(), message.size() + 1, format, arguments);
    const LogEvent event(level, sourceFile, sourceLine, std::move(message));

    // A client that can be reached by two ways writes the line once.
    std::vector<LogClient*> clients;
    const std::shared_lock lock(Registry::Instance().mutex);
    CollectClients(level, clients);
    for (LogClient* client : clients) {
        client->Append(event);
    }
}
