#include "Privileges.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace HostAgent {

namespace {

struct Capability {
    int number;
    NeededCapability needed;
};

// What capture, socket diagnostics and the socket-owner walk need (the unit's bounding set).
const Capability kNeeded[] = {
    {CAP_NET_RAW, {"CAP_NET_RAW", "packet capture will fail and no scan is detected"}},
    {CAP_SYS_PTRACE, {"CAP_SYS_PTRACE", "sockets of other users' programs cannot be tied to their programs"}},
    {CAP_DAC_READ_SEARCH,
     {"CAP_DAC_READ_SEARCH", "other users' /proc entries cannot be read for the socket cache"}},
};

}  // namespace

std::vector<NeededCapability> MissingCapabilities() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    header.pid = 0;  // this process
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    std::vector<NeededCapability> missing;
    if (syscall(SYS_capget, &header, data) != 0) {
        return missing;
    }
    for (const Capability& cap : kNeeded) {
        if ((data[CAP_TO_INDEX(cap.number)].effective & CAP_TO_MASK(cap.number)) == 0) {
            missing.push_back(cap.needed);
        }
    }
    return missing;
}

}  // namespace HostAgent
