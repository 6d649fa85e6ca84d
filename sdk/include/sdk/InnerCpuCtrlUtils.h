#pragma once

namespace SDK {

// The agent's CPU governor. When the agent config sets a CPU limit (percent of one core), busy
// threads report their CPU use here and are slowed down so that each stays under that share.
//
// Calling pattern (per call site, with a process-wide "last" variable):
//   if (IsEnabled()) {
//       now = TimeUtils::GetCurrentSystemTickUsed();  used = |now - last|;
//       if (used > GetSuggestedRunTick()) { AdjustThreadCpu(__FILE__, line, module, now, used); last = now; }
//   }
class InnerCpuCtrlUtils {
public:
    // 0 (or any value outside 1..99) turns the governor off; 100 means one whole core, i.e. off.
    static void SetCpuLimitPercent(int percent);
    static int GetCpuLimitPercent();

    // True when a limit is in force.
    static bool IsEnabled();

    // CPU milliseconds a thread may run before it should call AdjustThreadCpu.
    static unsigned long GetSuggestedRunTick();

    // Slows the calling thread: `used` CPU milliseconds were consumed (reading `now` of
    // GetCurrentSystemTickUsed). Sleeps long enough that, since this thread's previous adjustment,
    // CPU time over wall time stays at or under the limit. `file`, `line` and `module` name the call
    // site for the debug log line that reports a pause. Does nothing when the governor is off.
    static void AdjustThreadCpu(const char* file, int line, const char* module, unsigned long now,
                                unsigned long used);
};

}  // namespace SDK
