#include "cat/catlookuptable/CATLookupTable.h"


CATLookupTable* CATLookupTable::GetInstance() {
    static CATLookupTable instance;
    return &instance;
}
