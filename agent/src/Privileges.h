#pragma once

namespace HostAgent {

// Whether the process may open packet-capture sockets.
enum class CaptureCapability { Present, Missing, Unknown };

// Looks for CAP_NET_RAW in the process's effective capability set.
CaptureCapability CheckCaptureCapability();

}  // namespace HostAgent
