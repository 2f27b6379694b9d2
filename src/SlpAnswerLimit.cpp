#include "SlpAnswerLimit.h"

#include <algorithm>
#include <utility>

bool SlpAnswerLimit::Admit(in_addr address, Clock::time_point now) {
    constexpr std::chrono::nanoseconds kCost =
        std::chrono::nanoseconds(std::chrono::seconds(1)) / kRate;
    Account& account = AccountOf(address.s_addr);
    const Clock::time_point restored = std::max(account.restored, now) + kCost;
    if (restored - now > kBurst * kCost) {
        ++report_.dropped;
        report_.last = address;
        return false;
    }
    account.restored = restored;
    return true;
}

std::optional<SlpAnswerLimit::Report> SlpAnswerLimit::TakeReport(Clock::time_point now) {
    if (report_.dropped == 0 || (reported_ && now - *reported_ < kReportPause)) {
        return std::nullopt;
    }
    reported_ = now;
    return std::exchange(report_, {});
}

SlpAnswerLimit::Account& SlpAnswerLimit::AccountOf(in_addr_t address) {
    auto* account =
        std::find_if(accounts_.begin(), accounts_.end(),
                     [address](const Account& each) { return each.address == address; });
    if (account == accounts_.end()) {
        account = std::min_element(accounts_.begin(), accounts_.end(),
                                   [](const Account& left, const Account& right) {
                                       return left.restored < right.restored;
                                   });
        *account = {address, {}};
    }
    return *account;
}
