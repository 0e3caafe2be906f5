#include "zone/DRRecovery.h"

#include <array>
#include <memory>
#include <mutex>

#include "util/Assert.h"
#include "zone/XORWindow.h"
#include "zone/XorEngine.h"

Trace drRecoveryTrace("ZM", "DRRecovery", "debug", false);

DRRecoveryMatrix::DRRecoveryMatrix(unsigned paddedWidth)
    : mWidth(paddedWidth), mRows(paddedWidth - 2), mRecoverable(paddedWidth * (paddedWidth - 2), false),
      mLists(paddedWidth * (paddedWidth - 2)) {
    ESA_ASSERT(paddedWidth >= 4 && paddedWidth <= kXorMaxSources + 1);
    const unsigned W = mWidth, R = mRows;
    for (unsigned b = 0; b + 1 < W; ++b) {
        for (unsigned r = 0; r < R; ++r) {
            const unsigned self = r * W + b;
            std::vector<unsigned>& list = mLists[self];
            list.assign(R, 0);
            bool recoverable = true;
            unsigned x = b, y = r;
            // Walk the diagonal through the rows; at row 0 the walk passes the
            // diagonal's number, x, which names its parity block (row x of the
            // diagonal column). The diagonal whose number is W - 2 has none.
            for (unsigned k = 0; k < R; ++k) {
                if (y == 0) {
                    const unsigned parity = x * W + (W - 1);
                    if (parity > R * W - 1) {
                        recoverable = false;
                        ESA_TRACE(drRecoveryTrace, "Block " << self << " is not recoverable using diagonal parity");
                    }
                    list[R - 1] = parity;
                }
                if (++y > R - 1) {
                    y = 0;
                    x = x == W - 2 ? 1 : x + 2;
                } else {
                    x = x + 1;
                }
                if (x > W - 2) x = 0;
                if (!(x == b && y == r)) list[k] = y * W + x;
            }
            mRecoverable[self] = recoverable;
        }
    }
}

const DRRecoveryMatrix& DRRecoveryMatrix::ForCode(const DRStripeCode& code) {
    static std::once_flag once;
    static std::array<std::unique_ptr<DRRecoveryMatrix>, kXorMaxSources + 2> matrices;
    std::call_once(once, [] {
        for (unsigned width : kDRStripeWidths) {
            DRStripeCode c;
            DRStripeCode::forWidth(width, c);
            matrices[c.paddedWidth()] = std::make_unique<DRRecoveryMatrix>(c.paddedWidth());
        }
    });
    ESA_ASSERT_OP(code.paddedWidth(), <, matrices.size());
    ESA_ASSERT_PTR(matrices[code.paddedWidth()].get(), !=, nullptr);
    return *matrices[code.paddedWidth()];
}

StatusCode DRRecoveryMatrix::recoverLine(const ExtentList* columns, const bool* columnPresent,
                                         uint32_t blockSize) const {
    const unsigned W = mWidth, R = mRows;
    unsigned missingColumns = 0;
    for (unsigned x = 0; x < W; ++x) {
        ESA_ASSERT_OP(columns[x].length(), ==, R * blockSize);
        if (!columnPresent[x]) ++missingColumns;
    }
    if (missingColumns > 2) {
        ESA_CONSOLE("RecoverDRStripeBlockSecondary: Too many read errors, recovery failed");
        return StatusCode::InternalError;
    }
    std::vector<ExtentList> blocks(W * R);
    std::vector<bool> present(W * R);
    for (unsigned y = 0; y < R; ++y)
        for (unsigned x = 0; x < W; ++x) {
            blocks[y * W + x] = columns[x].slice(y * blockSize, blockSize);
            present[y * W + x] = columnPresent[x];
        }

    std::array<ExtentList, kXorMaxSources> sources;
    for (;;) {
        bool missing = false, recovered = false;
        for (unsigned x = 0; x + 1 < W && !recovered; ++x) {
            for (unsigned y = 0; y < R && !recovered; ++y) {
                const unsigned target = y * W + x;
                if (present[target]) continue;
                missing = true;
                const char* how = nullptr;
                unsigned count = 0;
                bool rowComplete = true;
                for (unsigned c = 0; c + 1 < W; ++c)
                    if (c != x) rowComplete = rowComplete && present[y * W + c];
                if (rowComplete) {
                    for (unsigned c = 0; c + 1 < W; ++c)
                        if (c != x) sources[count++] = blocks[y * W + c];
                    how = "Recovery successful using Horizontal Parity, marking block as present";
                } else if (recoverableByDiagonal(x, y)) {
                    bool diagonalComplete = true;
                    for (unsigned b : diagonalList(x, y)) diagonalComplete = diagonalComplete && present[b];
                    if (diagonalComplete) {
                        for (unsigned b : diagonalList(x, y)) sources[count++] = blocks[b];
                        how = "Recovery successful using Diagonal Parity, marking block as present";
                    }
                }
                if (!how) continue;
                StatusCode status;
                XORWindow(blocks[target], sources.data(), count, status);
                if (!status.ok()) {
                    ESA_TRACE(drRecoveryTrace, "Failed XOR");
                    return status;
                }
                ESA_TRACE(drRecoveryTrace, how);
                present[target] = true;
                recovered = true;
            }
        }
        if (!missing) {
            ESA_TRACE(drRecoveryTrace, "Recovery of SuperStripe complete");
            return StatusCode::Success;
        }
        if (!recovered) {
            ESA_CONSOLE("RecoverDRStripeBlockSecondary: blocks missing, but not able to recover any - should never "
                        "get here!");
            return StatusCode::InternalError;
        }
    }
}

StatusCode rebuildDRStripeColumns(const DRStripeCode& code, const ExtentList* columns, const bool* columnPresent) {
    const DRRecoveryMatrix& matrix = DRRecoveryMatrix::ForCode(code);
    const unsigned W = code.paddedWidth();
    const uint32_t colBlock = code.columnBlockSize();
    ESA_ASSERT_OP(columns[0].length() % colBlock, ==, 0);
    const uint32_t lines = columns[0].length() / colBlock;
    std::array<ExtentList, kXorMaxSources + 1> lineColumns;
    for (uint32_t line = 0; line < lines; ++line) {
        for (unsigned x = 0; x < W; ++x) lineColumns[x] = columns[x].slice(line * colBlock, colBlock);
        StatusCode status = matrix.recoverLine(lineColumns.data(), columnPresent, DRStripeCode::kBlockSize);
        if (!status.ok()) return status;
    }
    if (columnPresent[W - 1]) return StatusCode::Success;
    StatusCode status;
    XORDiagonalWindow(columns[W - 1], columns, W - 1, DRStripeCode::kBlockSize, status);
    return status;
}

namespace {

// The columns of a DRStripe code held in memory: zero columns share one buffer of zeros.
struct DRStripeBuffers {
    DRStripeBuffers(const DRStripeCode& code, uint32_t lines)
        : zeros(lines * code.columnBlockSize(), 0), stored(code.width, std::vector<uint8_t>(zeros.size())) {
        for (unsigned z = 0; z < code.zeroColumns; ++z) columns.emplace_back(zeros.data(), uint32_t(zeros.size()));
        for (auto& column : stored) columns.emplace_back(column.data(), uint32_t(column.size()));
    }
    std::vector<uint8_t> zeros;
    std::vector<std::vector<uint8_t>> stored;  // data columns, horizontal, diagonal
    std::vector<ExtentList> columns;           // the code's W columns
};

}  // namespace

unsigned testDRRecoveryCombinations(const DRStripeCode& code, uint32_t lines, uint32_t seed, unsigned& combinations) {
    const unsigned W = code.paddedWidth(), z = code.zeroColumns, stored = code.width;
    DRStripeBuffers original(code, lines);
    uint32_t state = seed ? seed : 1;
    for (unsigned c = 0; c < code.dataColumns; ++c)
        for (uint8_t& byte : original.stored[c]) {
            state ^= state << 13, state ^= state >> 17, state ^= state << 5;
            byte = uint8_t(state);
        }
    StatusCode status;
    XOR2DWindow(original.columns[W - 2], original.columns[W - 1], original.columns.data(), code.sources(),
                DRStripeCode::kBlockSize, status);
    if (!status.ok()) return combinations = 1;

    unsigned failures = 0;
    combinations = 0;
    DRStripeBuffers work(code, lines);
    for (unsigned first = 0; first < stored; ++first) {
        for (unsigned second = first; second < stored; ++second) {
            ++combinations;
            std::vector<bool> lost(W, false);
            lost[z + first] = lost[z + second] = true;
            bool present[kXorMaxSources + 1];
            for (unsigned x = 0; x < W; ++x) present[x] = !lost[x];
            for (unsigned c = 0; c < stored; ++c) {
                work.stored[c] = original.stored[c];
                if (lost[z + c]) std::fill(work.stored[c].begin(), work.stored[c].end(), uint8_t(0xA5));
            }
            status = rebuildDRStripeColumns(code, work.columns.data(), present);
            bool same = status.ok();
            for (unsigned c = 0; c < stored && same; ++c) same = work.stored[c] == original.stored[c];
            if (!same) ++failures;
        }
    }
    return failures;
}
