#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

/// How many answers go to one address: the sender of a question may be forged, and the box must not
/// be what somebody else is flooded with. For one thread.
class SlpAnswerLimit {
public:
    using Clock = std::chrono::steady_clock;

    /// Answers a second to one address, in the long run.
    static constexpr int kRate = 500;
    /// Answers at once to an address that had none for a while.
    static constexpr int kBurst = 1000;
    /// Addresses that are kept apart. When there are more, the one that has used the least of its
    /// burst is forgotten: forged addresses do not free the one that is held back.
    static constexpr std::size_t kAddresses = 256;
    /// Time between two reports.
    static constexpr std::chrono::seconds kReportPause{1};

    struct Report {
        std::uint64_t dropped = 0;  ///< answers since the report before
        in_addr last{};             ///< to whom the last of them would have gone
    };

    /// Whether one more answer may go to `address`; it then counts.
    bool Admit(in_addr address, Clock::time_point now);

    /// What was not admitted and is not reported yet. Nothing when that is none, or too soon.
    std::optional<Report> TakeReport(Clock::time_point now);

private:
    /// One answer more is a kRate-th of a second more until the whole burst is there again.
    struct Account {
        in_addr_t address = 0;
        Clock::time_point restored{};
    };

    Account& AccountOf(in_addr_t address);

    std::array<Account, kAddresses> accounts_{};
    Report report_{};
    std::optional<Clock::time_point> reported_;
};
