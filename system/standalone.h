#pragma once
// The process entry: switches, the decision to clear the disks, the
// terminate handler, and the hand-over to the system manager. The boot thread
// that enters here runs all of initialisation and the first pack load, then
// idles at a low priority.
#include <ostream>

int esaStandaloneMain(int argc, char** argv);
[[noreturn]] void handleNewBootStrap(bool clearDisk, bool debugInterface, bool redirectOutput, bool noOutput,
                                     bool formatOnStart, bool clearButton);
int GetStableDiskClearButtonStatus();
[[noreturn]] void cplusplusterm();
int rebootCommandHandler(int argc, char** argv, std::ostream& out);
// The debug viewer of `-d`: the console on standard input.
void DebugViewerMain();
