#include "journal/writejournal/J1Tag.h"


J1Tag* J1Tag::GetInstance() {
    static J1Tag instance;
    return &instance;
}
