#include "BoxCommands.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <optional>

#include "BoxChanges.h"
#include "BoxFinder.h"
#include "BoxTable.h"
#include "Interruption.h"

namespace BoxCommands {
namespace {

using Clock = std::chrono::steady_clock;

std::string TimeOfDay() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
    return text.data();
}

/// The part of the screen that is redrawn: without cursor and line wrap, until it goes out of
/// scope.
class Screen {
public:
    Screen() {
        std::fputs("\033[2J\033[H\033[?25l\033[?7lLooking for boxes; Ctrl-C ends\n", stdout);
        std::fflush(stdout);
    }
    ~Screen() {
        std::fputs("\033[?25h\033[?7h\n", stdout);
        std::fflush(stdout);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// Cuts what does not fit on the screen.
    static void Show(const std::string& text) {
        winsize size{};
        const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1;
        std::size_t rowsLeft = isKnown ? size.ws_row - 1U : text.size();
        std::string frame = "\033[H";
        for (std::size_t begin = 0; begin < text.size() && rowsLeft > 0; --rowsLeft) {
            const std::size_t end = text.find('\n', begin);
            frame += text.substr(begin, end - begin) + "\033[K\n";
            begin = end + 1;
        }
        std::fputs((frame + "\033[J").c_str(), stdout);
        std::fflush(stdout);
    }
};

void PrintChanges(const BoxChanges::Texts& texts) {
    for (const std::string& text : texts) {
        std::printf("%s %s\n", TimeOfDay().c_str(), text.c_str());
    }
    std::fflush(stdout);
}

}  // namespace

bool IsWanted(const Box& box, const Options& options) {
    return (options.color.empty() || box.Color() == options.color ||
            box.Attribute("Color") == options.color) &&
           (options.serial.empty() || box.HasSerial(options.serial)) &&
           (options.state.empty() || box.State() == options.state) &&
           (options.owner.empty() || box.Attribute("Owner") == options.owner);
}

Outcome Find(const Options& options) {
    // A serial number is one box's.
    const auto isEnough = [&options](const Box& box) {
        return !options.serial.empty() && box.HasSerial(options.serial);
    };
    std::vector<Box> boxes = BoxFinder::Find(options.wait, isEnough);
    const bool isAnyWanted = IsWanted(Box(), options);
    std::erase_if(boxes, [&options](const Box& box) { return !IsWanted(box, options); });
    if (options.json) {
        std::string list;
        for (const Box& box : boxes) {
            list += (list.empty() ? "" : ",\n ") + box.ToJson();
        }
        std::printf("[%s]\n", list.c_str());
    } else if (!boxes.empty()) {
        std::vector<BoxTable::Line> lines;
        std::transform(boxes.begin(), boxes.end(), std::back_inserter(lines), BoxTable::MakeLine);
        std::fputs(BoxTable::Render(lines, BoxTable::ShowsColors()).c_str(), stdout);
    }
    if (!boxes.empty()) {
        return {};
    }
    return {ExitStatus::kUnreachable, std::string(isAnyWanted ? "no box" : "no such box") +
                                          " answers on this network; wait longer (--wait)" +
                                          (isAnyWanted ? "" : ", or ask for less")};
}

Outcome Watch(const Options& options) {
    const Interruption interruption;
    const bool isTerminal = isatty(STDOUT_FILENO) == 1;
    const std::optional<Screen> screen =
        isTerminal ? std::optional<Screen>(std::in_place) : std::nullopt;
    BoxChanges changes;
    Clock::time_point next = Clock::now();
    for (;;) {
        next += options.interval;
        const std::vector<Box> boxes = BoxFinder::Find(std::min(options.wait, options.interval), {},
                                                       interruption.Descriptor());
        if (interruption.WithinTime(std::chrono::milliseconds(0))) {
            return {};  // the search may be incomplete
        }
        BoxChanges::Texts texts;
        const std::vector<BoxTable::Line> lines = changes.Next(boxes, texts);
        if (isTerminal) {
            Screen::Show(TimeOfDay() + "  boxes: " + std::to_string(boxes.size()) +
                         "; Ctrl-C ends\n\n" + BoxTable::Render(lines, BoxTable::ShowsColors()));
        } else {
            PrintChanges(texts);
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
        if (std::ferror(stdout) != 0 ||
            interruption.WithinTime(std::max(left, std::chrono::milliseconds(0)))) {
            return {};
        }
    }
}

}  // namespace BoxCommands
