#pragma once
// The board's own power cut, at a moment the board chooses rather than the
// process: `esa-board cut DIR` sends SIGPWR to the esa running on the board
// (its pid is in DIR/esa.pid). The handler freezes every drive's medium at
// that instant (no sector write starts after it: a writer that meets the cut
// waits for the end), notes the cut in board.log, and ends the process with
// SIGKILL, exactly as kill -9 would: battery-backed regions and what reached
// the drives' media stay, the rest is gone.
#include <sys/types.h>

#include <filesystem>

// Writes DIR/esa.pid and installs the SIGPWR handler (the esa process only).
void installBoardPowerCut();
// True from the instant of a board power cut on.
bool boardPowerIsCut();
// A medium writer that meets the cut stops here until the process ends.
[[noreturn]] void waitForPowerToGo();
// The pid of the esa running on the board in `dir`, or -1 when none does
// (no pid file, or its process is gone or is not esa).
pid_t boardEsaPid(const std::filesystem::path& dir);
