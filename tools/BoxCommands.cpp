#include "BoxCommands.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "AnyCase.h"
#include "BoxChanges.h"
#include "BoxFinder.h"
#include "BoxTable.h"
#include "Interruption.h"
#include "Report.h"
#include "Sightings.h"

namespace BoxCommands {
namespace {

using Clock = std::chrono::steady_clock;

/// RFC 3339: with the distance from UTC, in which strftime has no colon.
std::string Timestamp() {
    constexpr std::size_t kMinutes = 2;
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::array<char, 32> buffer{};
    std::strftime(buffer.data(), buffer.size(), "%Y-%m-%dT%H:%M:%S%z", &local);
    std::string text = buffer.data();
    return text.insert(text.size() - kMinutes, ":");
}

std::string TimeOfDay() {
    constexpr std::string_view kDate = "YYYY-MM-DDT";
    constexpr std::string_view kTime = "HH:MM:SS";
    return Timestamp().substr(kDate.size(), kTime.size());
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

    /// Lines that fit on it, the last one empty.
    static std::size_t Rows() {
        winsize size{};
        const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
        return isKnown ? std::max(size.ws_row - 1U, 1U) : std::string::npos;
    }

    /// Cuts what does not fit on the screen.
    static void Show(const std::string& text) {
        std::size_t rowsLeft = Rows();
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

void PrintChanges(const std::vector<BoxChanges::Change>& changes, bool asJson) {
    for (const BoxChanges::Change& change : changes) {
        if (asJson) {
            Report::Print(Report::Of(change));
            continue;
        }
        for (const std::string& text : change.texts) {
            std::printf("%s %s\n", Timestamp().c_str(), text.c_str());
        }
    }
    std::fflush(stdout);
}

/// What a screen of that many rows shows. Boxes that do not fit are counted; what has changed then
/// comes first.
std::string Frame(std::vector<BoxTable::Line> lines, std::size_t boxCount, std::size_t rows) {
    constexpr std::size_t kAround = 4;  // heads of screen and table, and the count
    const std::size_t room = rows - std::min(rows, kAround);
    std::string count;
    if (lines.size() > room) {
        std::stable_partition(lines.begin(), lines.end(), std::mem_fn(&BoxTable::Line::HasChanged));
        count = "and " + std::to_string(lines.size() - room) + " more; what changes comes first\n";
    }
    return TimeOfDay() + "  boxes: " + std::to_string(boxCount) + "; Ctrl-C ends\n\n" +
           BoxTable::Render(lines, BoxTable::ShowsColors(), room) + count;
}

}  // namespace

bool IsWanted(const Box& box, const Options& options) {
    const auto is = [](const std::string& wanted, const std::string& value) {
        return wanted.empty() || AnyCase::Equal(wanted, value);
    };
    return (is(options.color, box.Color()) || is(options.color, box.Attribute("Color"))) &&
           (options.serial.empty() || box.HasSerial(options.serial)) &&
           is(options.state, box.State()) && is(options.owner, box.Attribute("Owner"));
}

Outcome Find(const Options& options) {
    const auto isEnough = [&options](const Box& box) {
        return !options.serial.empty() && box.HasSerial(options.serial);
    };
    std::vector<Box> boxes = BoxFinder::Find(options.wait, isEnough);
    const std::vector<BoxTable::Line> lines =
        BoxTable::MakeLines(boxes, [&options](const Box& box) { return IsWanted(box, options); });
    Sightings::Note(boxes);
    const bool isAnyWanted = IsWanted(Box(), options);
    std::erase_if(boxes, [&options](const Box& box) { return !IsWanted(box, options); });
    if (options.json) {
        Report::Json list = Report::Json::array();
        for (const Box& box : boxes) {
            list.push_back(Report::Of(box));
        }
        Report::Print(list);
    } else if (!boxes.empty()) {
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
    const bool isTerminal = BoxTable::IsScreen() && !options.json;
    const std::optional<Screen> screen =
        isTerminal ? std::optional<Screen>(std::in_place) : std::nullopt;
    BoxChanges changes;
    constexpr std::chrono::minutes kNoteInterval{1};
    Clock::time_point nextNote;
    Clock::time_point next = Clock::now();
    for (;;) {
        next += options.interval;
        const std::vector<Box> boxes = BoxFinder::Find(std::min(options.wait, options.interval), {},
                                                       interruption.Descriptor(), false);
        if (interruption.WithinTime(std::chrono::milliseconds(0))) {
            return {};  // the search may be incomplete
        }
        std::vector<BoxChanges::Change> news;
        const std::vector<BoxTable::Line> lines = changes.Next(boxes, news);
        if (!news.empty() || Clock::now() >= nextNote) {
            Sightings::Note(boxes);
            nextNote = Clock::now() + kNoteInterval;
        }
        if (isTerminal) {
            Screen::Show(Frame(lines, boxes.size(), Screen::Rows()));
        } else {
            PrintChanges(news, options.json);
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
