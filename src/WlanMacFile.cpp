#include "WlanMacFile.h"

#include <array>
#include <cstdio>

#include "DurableFile.h"
#include "SourceFile.h"
#include "ZelLog.h"

namespace WlanMacFile {
namespace {

constexpr char kNoAddress[] = "00:00:00:00:00:00";

bool HoldsAddress() {
    std::string line;
    if (!SourceFile(kPath).ReadFirstLine(line)) {
        return false;
    }
    std::array<unsigned, 6> b{};
    // NOLINTNEXTLINE(cert-err34-c): two digits cannot overflow
    if (std::sscanf(line.c_str(), "%02x:%02x:%02x:%02x:%02x:%02x", &b[0], &b[1], &b[2], &b[3],
                    &b[4], &b[5]) != static_cast<int>(b.size())) {
        return false;
    }
    ZEL_DEBUG("%x:%x:%x:%x:%x:%x", b[0], b[1], b[2], b[3], b[4], b[5]);
    return (b[0] | b[1] | b[2] | b[3] | b[4] | b[5]) != 0;
}

}  // namespace

void Ensure(const FindAdapter& findAdapter) {
    if (HoldsAddress()) {
        return;
    }
    ZEL_DEBUG("No wlan.mac file found, create it");
    const std::optional<std::string> found = findAdapter();
    if (!found) {
        ZEL_ERROR("wlanDevice is NULL");
    }
    const std::string address = found && !found->empty() ? *found : kNoAddress;
    if (!DurableFile::Replace(kPath, address, DurableFile::kPublic)) {
        ZEL_ERROR("Can't write %s", kPath);
    }
}

}  // namespace WlanMacFile
