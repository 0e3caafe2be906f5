#pragma once
// DRRecoveryMatrix: the rebuilding of lost blocks of a DRStripe superstripe
// line from its horizontal and diagonal parity.
//
// The code has W - 1 columns of sources and horizontal parity, numbered 0 to
// W - 2 (zero columns first), R = W - 2 rows, and column W - 1 holding the
// diagonal parity. Block (x, y) is column x, row y, block number y * W + x.
// For every block the matrix holds the list of the other blocks of its
// diagonal, ending with that diagonal's parity block, and whether it can be
// rebuilt from its diagonal at all (the diagonal without parity cannot).
// Built once per width; read-only afterwards, so any thread may use it.
#include <cstdint>
#include <vector>

#include "util/StatusCode.h"
#include "util/Trace.h"
#include "zone/DRStripeCode.h"
#include "zone/ExtentList.h"

class DRRecoveryMatrix {
public:
    explicit DRRecoveryMatrix(unsigned paddedWidth);
    // The matrix of a DRStripe code, built on first use.
    static const DRRecoveryMatrix& ForCode(const DRStripeCode& code);

    unsigned width() const { return mWidth; }
    unsigned rows() const { return mRows; }
    bool recoverableByDiagonal(unsigned x, unsigned y) const { return mRecoverable[y * mWidth + x]; }
    // Block numbers of the other blocks of (x, y)'s diagonal, then its parity
    // block: R entries. Meaningful only where recoverableByDiagonal.
    const std::vector<unsigned>& diagonalList(unsigned x, unsigned y) const { return mLists[y * mWidth + x]; }

    // Rebuilds in place the blocks of one superstripe line that lie in missing
    // columns. columns: the W column windows, R blocks of blockSize each, the
    // diagonal column last; columnPresent: which hold good data (zero columns
    // count as present). At most two columns may be missing. The diagonal
    // column itself is never rebuilt here. InternalError when the line cannot
    // be rebuilt.
    StatusCode recoverLine(const ExtentList* columns, const bool* columnPresent, uint32_t blockSize) const;

private:
    unsigned mWidth;  // W
    unsigned mRows;   // R = W - 2
    std::vector<bool> mRecoverable;
    std::vector<std::vector<unsigned>> mLists;
};

// Rebuilds every missing column of whole superstripe lines of a DRStripe
// code: columns are the code's W column windows (zero columns, data,
// horizontal parity, diagonal parity), each a whole number of column blocks
// long. The diagonal column, if missing, is computed again from the others.
StatusCode rebuildDRStripeColumns(const DRStripeCode& code, const ExtentList* columns, const bool* columnPresent);

extern Trace drRecoveryTrace;

// The self-test of the recovery: fills `lines` superstripe lines of the code
// with pseudo-random data from seed, makes both parities, then for every
// single column and every pair of columns of the Zone (data, horizontal,
// diagonal) loses them, rebuilds them and compares byte for byte. Returns the
// number of combinations that did not come back identical; combinations gets
// how many were tried.
unsigned testDRRecoveryCombinations(const DRStripeCode& code, uint32_t lines, uint32_t seed, unsigned& combinations);
