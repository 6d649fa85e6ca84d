#include "Privileges.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace HostAgent {

CaptureCapability CheckCaptureCapability() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    header.pid = 0;  // this process
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return CaptureCapability::Unknown;
    }
    bool present = (data[CAP_TO_INDEX(CAP_NET_RAW)].effective & CAP_TO_MASK(CAP_NET_RAW)) != 0;
    return present ? CaptureCapability::Present : CaptureCapability::Missing;
}

}  // namespace HostAgent
