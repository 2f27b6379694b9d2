// Loaded before the C library of a program under user-mode emulation: does what the emulator does
// not pass on to the kernel, so that the program need not know where it runs. Not part of the
// agent.
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

// The tools that the program starts are this machine's.
__attribute__((constructor)) static void HideFromTools() {
    unsetenv("LD_PRELOAD");
}

// Of the card's requests only "is there a link?", which the interface's flags tell as well.
extern "C" int ioctl(int descriptor, unsigned long code, ...) noexcept {
    va_list arguments;
    va_start(arguments, code);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (code != SIOCETHTOOL) {
        return static_cast<int>(syscall(SYS_ioctl, descriptor, code, argument));
    }
    ifreq request = *static_cast<ifreq*>(argument);
    auto* link = reinterpret_cast<ethtool_value*>(request.ifr_data);
    if (link->cmd != ETHTOOL_GLINK) {
        errno = EOPNOTSUPP;
        return -1;
    }
    if (syscall(SYS_ioctl, descriptor, SIOCGIFFLAGS, &request) != 0) {
        return -1;
    }
    link->data = (request.ifr_flags & IFF_RUNNING) != 0;
    return 0;
}

// The C library's needs the kernel's own description of a signal frame, which is not there. Every
// frame begins with the address of its caller's, after which stands where the callee returns to.
extern "C" int backtrace(void** addresses, int size) noexcept {
    int count = 0;
    auto* frame = static_cast<void**>(__builtin_frame_address(0));
    while (count < size && (frame = static_cast<void**>(*frame)) != nullptr) {
        // Where nothing was called nothing is stored.
        if (frame[1] != nullptr) {
            addresses[count++] = frame[1];
        }
    }
    return count;
}
