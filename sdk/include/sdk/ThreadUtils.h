#pragma once

namespace SDK {

class ThreadUtils {
public:
    // The kernel thread id (gettid) of the calling thread.
    static unsigned long GetThreadId();
};

}  // namespace SDK
