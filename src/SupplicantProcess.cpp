#include "SupplicantProcess.h"

#include <cstring>

#include "Shell.h"
#include "SupplicantLog.h"
#include "WpaCliInterface.h"
#include "ZelLog.h"

namespace SupplicantProcess {
namespace {

constexpr char kControlDirectory[] = "/tmp/supplicant/ctrl";
constexpr char kPidFile[] = "/var/run/wpa_supplicant.pid";

}  // namespace

bool Start(const std::string& interface, const std::string& driver, const std::string& file) {
    std::string output;
    return Shell::RunWithin(
               {}, output,
               "/app/velka/wlan/sta/wpa_supplicant -i %s -D %s -c %s -B -C %s -tddf %s -P %s",
               interface.c_str(), driver.c_str(), file.c_str(), kControlDirectory,
               SupplicantLog::kFile, kPidFile) >= Shell::Fate::kEnded;
}

bool IsAssociated(const std::string& interface) {
    WpaCliInterface supplicant;
    if (supplicant.Open(std::string(kControlDirectory) + "/" + interface) != 0) {
        return false;
    }
    std::string reply;
    const int failed = supplicant.Request("STATUS", reply);
    supplicant.Close();
    if (failed != 0) {
        return false;
    }
    ZEL_DEBUG("wpa_cli: %s", reply.c_str());
    return strcasestr(reply.c_str(), "wpa_state=COMPLETED") != nullptr;
}

void End() {
    Shell::KillByPidFile(kPidFile);
}

}  // namespace SupplicantProcess
