#include "LogClient.h"

#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <ostream>
#include <streambuf>
#include <utility>

#include "Console.h"

namespace {

// No more than this is kept for a next line.
constexpr std::size_t kKeptSize = 1024;

class TextBuffer : public std::streambuf {
public:
    std::string text;

private:
    int_type overflow(int_type c) override {
        text.push_back(traits_type::to_char_type(c));
        return c;
    }
    std::streamsize xsputn(const char* piece, std::streamsize size) override {
        text.append(piece, static_cast<std::size_t>(size));
        return size;
    }
};

/// What a layout writes to.
struct Line {
    TextBuffer buffer;
    std::ostream out{&buffer};

    void Reset() {
        if (buffer.text.capacity() > kKeptSize) {
            buffer.text = std::string();
        }
        buffer.text.clear();
        out.clear();
        out.flags(std::ios_base::skipws | std::ios_base::dec);
        out.width(0);
    }
};

/// A line of one's own. To make a stream costs more than a line, so a few are kept for the next
/// one. Not one for each thread: what is destroyed at a thread's end takes memory at its first use,
/// and where that lacks the C library ends the process.
class LineInUse {
public:
    LineInUse() {
        for (std::size_t i = 0; i < kept.size() && !line_; ++i) {
            line_.reset(kept[i].exchange(nullptr));
        }
        if (!line_) {
            line_ = std::make_unique<Line>();
        }
    }
    ~LineInUse() {
        line_->Reset();
        for (std::size_t i = 0; i < kept.size() && line_; ++i) {
            line_.reset(kept[i].exchange(line_.release()));
        }
    }
    LineInUse(const LineInUse&) = delete;
    LineInUse& operator=(const LineInUse&) = delete;
    Line& operator*() const { return *line_; }

private:
    // Those left at the end of the process stay: logging goes on then.
    static std::array<std::atomic<Line*>, 4> kept;
    std::unique_ptr<Line> line_;
};

std::array<std::atomic<Line*>, 4> LineInUse::kept;

}  // namespace

LogClient::LogClient() : layout_(std::make_unique<LogLayout>()) {}

void LogClient::SetLayout(std::unique_ptr<LogLayout> layout) {
    layout_ = std::move(layout);
}

void LogClient::Append(const LogEvent& event) {
    const LineInUse inUse;
    Line& line = *inUse;
    layout_->Format(line.out, event);
    if (!line.out) {
        throw std::bad_alloc();  // a stream that gets no memory only notes it down
    }
    Write(line.buffer.text);
}

void LogClientConsole::Write(const std::string& line) {
    Console::Print(line);
}
