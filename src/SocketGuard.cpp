#include "SocketGuard.h"

#include <unistd.h>

SocketGuard::~SocketGuard() {
    Reset();
}

void SocketGuard::Reset(int descriptor) {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
    descriptor_ = descriptor;
}

int SocketGuard::Release() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor;
}
