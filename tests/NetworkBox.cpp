#include "NetworkBox.h"

#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

extern "C" int ioctl(int descriptor, unsigned long code, ...) noexcept {
    va_list arguments;
    va_start(arguments, code);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (answerRequest) {
        if (const Answer error = answerRequest(code, *static_cast<ifreq*>(argument))) {
            errno = *error;
            return *error == 0 ? 0 : -1;
        }
    }
    return static_cast<int>(syscall(SYS_ioctl, descriptor, code, argument));
}

// NOLINTBEGIN(readability-identifier-naming)
extern "C" unsigned sleep(unsigned seconds) {
    onPause(std::chrono::seconds(seconds));
    return 0;
}

extern "C" int usleep(useconds_t microseconds) {
    onPause(std::chrono::microseconds(microseconds));
    return 0;
}
// NOLINTEND(readability-identifier-naming)
