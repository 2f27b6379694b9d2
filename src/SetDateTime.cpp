#include "SetDateTime.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <tuple>
#include <utility>

#include "Shell.h"
#include "SupplicantFile.h"
#include "WlanEnterprise.h"
#include "WlanSecurity.h"
#include "ZelLog.h"

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr std::int64_t kNoDate = -1;
constexpr int kFirstYear = 1900;

/// The path that stands in the supplicant's file under that name. False when there is none that can
/// be used.
bool ReadSupplicantPath(const std::string& name, std::string& path) {
    std::ifstream file(WlanEnterprise::kSupplicantFile);
    if (!file) {
        ZEL_ERROR("Can't open %s", WlanEnterprise::kSupplicantFile);
        return false;
    }
    path = SupplicantFile::Value(file, name);
    return SupplicantFile::IsPlainPath(path);
}

void LogDate(const std::tm& date) {
    ZEL_DEBUG("year: %d; month: %d; day: %d; hour: %d; minute: %d; second: %d",
              date.tm_year + kFirstYear, date.tm_mon + 1, date.tm_mday, date.tm_hour, date.tm_min,
              date.tm_sec);
}

/// What comes behind the last second that 32 bits can count (2038-01-19 03:14:07) is moved there,
/// but for the one second that follows it.
void Clamp(std::tm& date) {
    constexpr auto kFirstMoved = std::tuple(138, 0, 19, 3, 14, 9);
    if (std::tie(date.tm_year, date.tm_mon, date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec) >=
        kFirstMoved) {
        std::tie(date.tm_year, date.tm_mon, date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec) =
            std::tuple(138, 0, 19, 3, 14, 7);
    }
}

}  // namespace

SetDateTime::SetDateTime(const ZelConfig& config)
    : SetDateTime(config, [](const timeval& time) { return settimeofday(&time, nullptr); }) {}

SetDateTime::SetDateTime(const ZelConfig& config, SetClock setClock)
    : config_(config), setClock_(std::move(setClock)) {}

int SetDateTime::Set() const {
    if (!WlanSecurity::IsEnterprise(WlanSecurity::Configured(config_))) {
        ZEL_INFO("No enterprise set, don't set time");
        return 0;
    }
    const std::int64_t ca = ReadEndDate("ca_cert");
    const std::int64_t client = ReadEndDate("client_cert");
    if (ca == kNoDate && client == kNoDate) {
        return -1;
    }
    const std::int64_t end = ca == kNoDate ? client : client == kNoDate ? ca : std::min(ca, client);
    timeval time{};
    time.tv_sec = static_cast<time_t>(end - kSecondsPerDay);
    ZEL_INFO("Timestamp to set: %d", static_cast<int>(time.tv_sec));
    if (setClock_(time) != 0) {
        ZEL_ERROR("settimeofday failed %s", std::strerror(errno));
        return -1;
    }
    return 0;
}

std::int64_t SetDateTime::ReadEndDate(const std::string& key) {
    ZEL_DEBUG("Reading timestamp from %s", key.c_str());
    std::string path;
    if (!ReadSupplicantPath(key, path)) {
        ZEL_ERROR("Can't get %s from wpa.conf", key.c_str());
        return kNoDate;
    }
    std::string date;
    static_cast<void>(Shell::RunSystemWithResult(
        date,
        "/app/velka/bin/openssl  x509 -in %s -noout -enddate 2> /dev/null | "
        "sed 's/.*=\\(.*\\) [A-Z]*$/\\1/'",
        path.c_str()));  // the date tells
    ZEL_DEBUG("Enddate from %s: %s", path.c_str(), date.c_str());
    std::tm end{};
    if (strptime(date.c_str(), "%b %d %T %Y", &end) == nullptr) {
        ZEL_ERROR("Handle strptime error");
        return kNoDate;
    }
    LogDate(end);
    Clamp(end);
    LogDate(end);
    end.tm_isdst = -1;
    const std::time_t seconds = std::mktime(&end);
    if (seconds == static_cast<std::time_t>(-1)) {
        ZEL_ERROR("Handle mktime error");
        return kNoDate;
    }
    ZEL_DEBUG("Timestamp: %d", static_cast<int>(seconds));
    return seconds;
}
