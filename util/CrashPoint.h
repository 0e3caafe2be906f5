#pragma once
// Named crash points: a power cut at an exact place in the code. When the
// point named by ESA_CRASH_AT ("name" or "name:N" for the N-th pass), or by the
// console command `crashPoint`, is passed, the process ends at once with
// Board::kCrashPointExitStatus: nothing is flushed, exactly as when power fails
// (battery-backed regions and flushed sectors survive, the rest does not).
#include <atomic>
#include <string>

void CrashPoint(const char* name);
// True while a point is armed: one load, for paths that pass many points
// (every ordered store of the journal) and call CrashPoint only then.
extern std::atomic<bool> gCrashPointArmed;
inline bool crashPointArmed() { return gCrashPointArmed.load(std::memory_order_relaxed); }
void armCrashPoint(const std::string& name, unsigned pass);
void disarmCrashPoint();
