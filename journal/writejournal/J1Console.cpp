// The host write journal's console command: its state, a drain and a flush.
#include <cstring>

#include "journal/writejournal/J1Replay.h"
#include "journal/writejournal/J1Tag.h"
#include "journal/writejournal/WriteJournal.h"
#include "util/ConsoleCommand.h"

namespace {
int j1Command(int argc, char** argv, std::ostream& out) {
    const char* what = argc > 1 ? argv[1] : "dump";
    if (std::strcmp(what, "dump") == 0) {
        WriteJournal::GetInstance()->Dump(out);
    } else if (std::strcmp(what, "empty") == 0) {
        StatusCode s = J1Tag::GetInstance()->WaitForJ1Empty();
        out << "J1 drained, flush " << s << "\n";
    } else if (std::strcmp(what, "flush") == 0) {
        StatusCode s = J1Replay::GetInstance()->flushIfNeeded(true);
        out << "J1 flushed: " << s << "\n";
    } else if (std::strcmp(what, "clean") == 0) {
        out << (J1Replay::GetInstance()->isClean(false) ? "J1 is clean\n" : "J1 is DIRTY\n");
    } else {
        out << "usage: j1 [dump | empty | flush | clean]\n";
        return -1;
    }
    return 0;
}
ConsoleCommand gJ1("j1", "Host write journal: dump its state, drain it (empty), flush the disks, or say if it is clean",
                   j1Command);
}  // namespace
