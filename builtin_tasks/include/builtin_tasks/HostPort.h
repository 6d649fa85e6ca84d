#pragma once

#include <string>

namespace Engine {

// Reads "host:port" or "[IPv6 address]:port": `host` is what stands before the last colon (without
// the brackets, never empty), `port` a decimal number 1..65535. False, leaving both untouched, when
// `text` is not of that form. The agent's config check and the syslog sinks read addresses with it.
bool ParseHostPort(const std::string& text, std::string& host, unsigned short& port);

}  // namespace Engine
