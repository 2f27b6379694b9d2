#include "LogClient.h"

#include <new>
#include <sstream>
#include <utility>

#include "Console.h"

LogClient::LogClient() : layout_(std::make_unique<LogLayout>()) {}

void LogClient::SetLayout(std::unique_ptr<LogLayout> layout) {
    layout_ = std::move(layout);
}

void LogClient::Append(const LogEvent& event) {
    std::ostringstream line;
    layout_->Format(line, event);
    if (!line) {
        throw std::bad_alloc();  // a stream that gets no memory only notes it down
    }
    Write(line.str());
}

void LogClientConsole::Write(const std::string& line) {
    Console::Print(line);
}
