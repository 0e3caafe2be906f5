#include "disk/DiskSGL.h"

DiskSGL* DiskSGL::Allocate() { return new DiskSGL; }
void DiskSGL::Free(DiskSGL* list) { delete list; }
