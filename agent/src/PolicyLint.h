#pragma once

#include <string>
#include <vector>

namespace HostAgent {

// Settings of a port-scan policy that the module accepts but that make detection ineffective or
// surprising. Each finding is one line: "warning: <file>: <what happens>; <how to fix it>".
// `localAddressCount` is the host's IPv4 address count without loopback (the capture filter tests
// each of them). Text that is not a JSON object, or a policy without "content"."port_scan_task",
// gives no finding: the module reports its own syntax errors.
std::vector<std::string> LintPolicy(const std::string& file, const std::string& text, int localAddressCount);

// The host's IPv4 addresses, loopback aside, as the module counts them; 0 when they cannot be read.
int CountLocalIpv4Addresses();

}  // namespace HostAgent
