#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace FuzzSupport {

// Silences the agent's loggers: the targets judge results, and formatting log lines for millions
// of inputs would only slow them down. `createLoggers` fetches the loggers a target's code caches
// (a logger made later would start at the configured level again).
void QuietLogs(void (*createLoggers)() = nullptr);

// Ends the run with a message naming the wrong result; libFuzzer keeps the input that caused it.
[[noreturn]] void Fail(const std::string& what);

inline std::string Text(const uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

}  // namespace FuzzSupport

// Checks one oracle: a wrong result aborts with the condition and its place.
#define FUZZ_CHECK(condition, detail)                                                  \
    do {                                                                               \
        if (!(condition)) {                                                            \
            ::FuzzSupport::Fail(std::string(__FILE__ ":") + std::to_string(__LINE__) + \
                                ": " #condition " (" + (detail) + ")");                \
        }                                                                              \
    } while (0)
