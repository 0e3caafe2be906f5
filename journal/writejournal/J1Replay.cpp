#include "journal/writejournal/J1Replay.h"

J1Replay* J1Replay::GetInstance() {
    static J1Replay instance;
    return &instance;
}
