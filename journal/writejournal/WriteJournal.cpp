#include "journal/writejournal/WriteJournal.h"


WriteJournal* WriteJournal::GetInstance() {
    static WriteJournal instance;
    return &instance;
}
