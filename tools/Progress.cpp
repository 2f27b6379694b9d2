#include "Progress.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <thread>

#include "Interruption.h"
#include "SafeText.h"
#include "SocketGuard.h"

namespace {

using Clock = std::chrono::steady_clock;

bool IsTerminal() {
    const char* const terminal = std::getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && terminal != nullptr &&
           std::string_view(terminal) != "dumb";
}

/// Of the terminal; a longer line would not be overwritten by the next.
std::size_t Columns() {
    constexpr std::size_t kUsual = 80;
    winsize size{};
    const bool isKnown = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return (isKnown ? size.ws_col : kUsual) - 1;
}

}  // namespace

/// Draws in a thread of its own: whoever waits is at work elsewhere.
class Progress::Spinner {
public:
    Spinner() : ended_(eventfd(0, EFD_CLOEXEC)), thread_([this] { Turn(); }) {}
    ~Spinner() {
        static_cast<void>(eventfd_write(ended_.Get(), 1));
        thread_.join();
        interruption_.Deliver();
    }
    Spinner(const Spinner&) = delete;
    Spinner& operator=(const Spinner&) = delete;

    void Say(const std::string& text) {
        const std::lock_guard lock(mutex_);
        text_ = text;
        since_ = Clock::now();
    }

private:
    void Turn() {
        constexpr int kFrameTime = 125;  // milliseconds
        for (std::size_t frame = 0;; ++frame) {
            Draw(frame);
            std::array<pollfd, 2> polled{
                {{ended_.Get(), POLLIN, 0}, {interruption_.Descriptor(), POLLIN, 0}}};
            if (poll(polled.data(), polled.size(), kFrameTime) <= 0) {
                continue;
            }
            std::fputs("\r\033[K", stderr);
            if (polled[0].revents != 0) {
                return;
            }
            interruption_.Deliver();
        }
    }

    void Draw(std::size_t frame) {
        constexpr std::string_view kFrames = "|/-\\";
        const std::lock_guard lock(mutex_);
        if (text_.empty()) {
            return;
        }
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - since_).count();
        const std::string time = " (" + std::to_string(seconds) + " s)";
        const std::size_t columns = Columns();
        const std::size_t around = time.size() + 2;
        const std::string text =
            SafeText::Shorten(text_, columns > around ? columns - around : std::size_t{1});
        std::fprintf(stderr, "\r%c %s%s\033[K", kFrames[frame % kFrames.size()], text.c_str(),
                     time.c_str());
    }

    Interruption interruption_;  // before the thread, which inherits that it is held back
    SocketGuard ended_;
    std::mutex mutex_;
    std::string text_;
    Clock::time_point since_;
    std::thread thread_;
};

Progress::Progress(bool isQuiet)
    : isQuiet_(isQuiet),
      spinner_(!isQuiet && IsTerminal() ? std::make_unique<Spinner>() : nullptr) {}

Progress::~Progress() = default;

void Progress::Say(const std::string& text) {
    if (isQuiet_ || text == said_) {
        return;
    }
    said_ = text;
    const std::string line = SafeText::Line(text);
    if (spinner_) {
        spinner_->Say(line);
    } else {
        std::fputs(("zelctl: " + line + "...\n").c_str(), stderr);
    }
}
