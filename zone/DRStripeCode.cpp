#include "zone/DRStripeCode.h"

bool DRStripeCode::forWidth(unsigned width, DRStripeCode& code) {
    switch (width) {
    case 4: code = {4, 2, 0}; return true;   // S = 3
    case 5: code = {5, 3, 1}; return true;   // S = 5
    case 6: code = {6, 4, 0}; return true;   // S = 5
    case 8: code = {8, 6, 0}; return true;   // S = 7
    case 10: code = {10, 8, 2}; return true; // S = 11
    default: return false;
    }
}
