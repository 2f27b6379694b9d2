#include "Reboot.h"

#include "ChildProcess.h"

int Reboot::DoReboot() {
    return ChildProcess::Start("/sbin/reboot") ? 0 : -1;
}
