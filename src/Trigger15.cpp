#include "Trigger15.h"

#include <fcntl.h>

#include "MeasureDevice.h"

void Trigger15::Open() {
    descriptor_.Reset(open(kDevice, O_RDWR | O_CLOEXEC));
}

bool Trigger15::Query(bool& triggered) const {
    return MeasureDevice::QueryTrigger15(descriptor_.Get(), triggered) == 0;
}

bool Trigger15::Reset() const {
    return MeasureDevice::ResetTrigger15(descriptor_.Get()) == 0;
}
