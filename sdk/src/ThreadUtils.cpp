#include "sdk/ThreadUtils.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace SDK {

unsigned long ThreadUtils::GetThreadId() {
    // The raw system call: the glibc wrapper hides behind _GNU_SOURCE, which POCO's
    // _XOPEN_SOURCE define does not guarantee.
    return static_cast<unsigned long>(::syscall(SYS_gettid));
}

}  // namespace SDK
