#include "sdk/InnerCpuCtrlUtils.h"

#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace SDK {

namespace {

// ---- Tunables of the CPU governor ----------------------------------------------------------
// CPU a thread may burn between checks: long enough that two clock reads and a division are
// noise, short enough that each pause stays a fraction of a second at any sensible limit.
constexpr unsigned long kSuggestedRunTickMs = 50;
// Longest single pause: a throttled thread still notices cancellation within a second. Below
// a limit of about 5 % this cap, not the limit, bounds the thread's share.
constexpr long kMaxPauseMs = 1000;
// Shorter pauses are skipped: below the scheduler's granularity they cost more than they save.
constexpr long kMinPauseMs = 1;
// Limits at or above this are one whole core, i.e. no limit.
constexpr int kWholeCorePercent = 100;

std::atomic<int> g_limitPercent{0};

// What the calling thread looked like at its previous adjustment.
struct ThreadWindow {
    bool started = false;
    unsigned long cpuMs = 0;  // the thread's CPU reading then
    std::chrono::steady_clock::time_point wall;
};

thread_local ThreadWindow t_window;

void LogPause(const char* file, int line, const char* module, unsigned long cpuMs, long elapsedMs,
              long pauseMs, int limit) {
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetRootLogger();
    if (logger == nullptr || !logger->is(Poco::Message::PRIO_DEBUG)) {
        return;
    }
    try {
        const std::string text = "[CpuCtrl] module " + std::string(module ? module : "") + " at " +
                                 PathUtils::GetFileNameFromPath(file ? file : "") + ":" +
                                 std::to_string(line) + " used " + std::to_string(cpuMs) + " ms CPU in " +
                                 std::to_string(elapsedMs) + " ms, pause " + std::to_string(pauseMs) +
                                 " ms (limit " + std::to_string(limit) + "%)";
        logger->log(Poco::Message(logger->name(), text, Poco::Message::PRIO_DEBUG,
                                  PathUtils::GetFileNameFromPath(__FILE__), __LINE__));
    } catch (const std::exception&) {
        // A log line never stops the governed thread.
    }
}

}  // namespace

void InnerCpuCtrlUtils::SetCpuLimitPercent(int percent) {
    g_limitPercent.store(percent >= 1 && percent < kWholeCorePercent ? percent : 0);
}

int InnerCpuCtrlUtils::GetCpuLimitPercent() {
    return g_limitPercent.load();
}

bool InnerCpuCtrlUtils::IsEnabled() {
    return g_limitPercent.load() != 0;
}

unsigned long InnerCpuCtrlUtils::GetSuggestedRunTick() {
    return kSuggestedRunTickMs;
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* module, unsigned long now,
                                        unsigned long used) {
    const int limit = g_limitPercent.load();
    if (limit == 0) {
        return;
    }
    const auto wallNow = std::chrono::steady_clock::now();
    ThreadWindow& window = t_window;

    // CPU and wall time since this thread's previous adjustment. The thread's own readings are
    // preferred over `used`: a thread with several call sites (each with its own "last" reading)
    // would otherwise count the same CPU time once per site. On the first adjustment there is no
    // window yet; the thread is taken to have run flat out during `used`.
    unsigned long cpuMs = used;
    long elapsedMs = static_cast<long>(used);
    if (window.started && now >= window.cpuMs) {
        cpuMs = now - window.cpuMs;
        elapsedMs = static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(wallNow - window.wall).count());
    }

    // cpu / (elapsed + pause) <= limit / 100, rounded up to whole milliseconds.
    const long neededMs = static_cast<long>((cpuMs * 100UL + static_cast<unsigned long>(limit) - 1) /
                                            static_cast<unsigned long>(limit));
    long pauseMs = neededMs - elapsedMs;
    if (pauseMs > kMaxPauseMs) {
        pauseMs = kMaxPauseMs;
    }
    if (pauseMs >= kMinPauseMs) {
        LogPause(file, line, module, cpuMs, elapsedMs, pauseMs, limit);
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    }
    window.started = true;
    window.cpuMs = now;
    window.wall = std::chrono::steady_clock::now();
}

}  // namespace SDK
