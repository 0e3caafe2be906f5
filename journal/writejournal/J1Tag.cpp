#include "journal/writejournal/J1Tag.h"

#include "disk/DiskPackManager.h"


J1Tag* J1Tag::GetInstance() {
    static J1Tag instance;
    return &instance;
}

StatusCode J1Tag::FlushDisks() { return DiskPackManager::GetInstance()->flushDisks(); }
