#include "MeasureDevice.h"

#include <unistd.h>

// On the host the device is a file that holds "1" once an edge was seen, else "0".

namespace MeasureDevice {

int QueryTrigger15(int descriptor, bool& triggered) {
    char state = 0;
    if (pread(descriptor, &state, 1, 0) != 1 || (state != '0' && state != '1')) {
        return -1;
    }
    triggered = state == '1';
    return 0;
}

int ResetTrigger15(int descriptor) {
    return pwrite(descriptor, "0", 1, 0) == 1 ? 0 : -1;
}

}  // namespace MeasureDevice
