#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace FuzzSupport {

// Silences the agent's loggers: the targets judge results, and formatting log lines for millions
// of inputs would only slow them down. `createLoggers` fetches the loggers a target's code caches
// (a logger made later would start at the configured level again).
void QuietLogs(void (*createLoggers)() = nullptr);

// Ends the run with a message naming the wrong result; libFuzzer keeps the input that caused it.
[[noreturn]] void Fail(const std::string& what);

// A file in a private (0700) folder under /dev/shm (sticky, so the agent's file checks accept it; in
// memory, as one is written per input), removed at exit. Returns its path.
std::string MakeInputFile(const std::string& target, const std::string& name);
// Replaces the content of `path` with `text`.
void WriteInputFile(const std::string& path, const std::string& text);

inline std::string Text(const uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// A field of a wire structure, in the byte order it has there (the input may be unaligned).
template <typename T>
T Load(const unsigned char* p) {
    T value;
    std::memcpy(&value, p, sizeof(value));
    return value;
}

// The same address ranges (anything with a start and an end) in the same order.
template <typename Range>
bool SameRanges(const std::vector<Range>& a, const std::vector<Range>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Range& x, const Range& y) { return x.start == y.start && x.end == y.end; });
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
