#pragma once
// The parity engine: XOR over windows (seen as ExtentLists), the horizontal
// and diagonal parity of the dual-parity code, and the block order that turns
// a diagonal into a plain many-source XOR.
//
// The diagonal layout lies on every DRStripe disk and must never change. With
// E[c][r] the block at column c, row r of a superstripe line (c = 0..n-1 the
// sources, zero columns first; c = n the horizontal parity; S = n + 1):
//   horizontal: E[n][r] = XOR of E[c][r] over c = 0..n-1
//   diagonal:   D[j] = XOR of E[(t + j) mod S][t] over t = 0..n-1, for j = 0..n-1
// so block (c, r) lies on diagonal (c - r) mod S, and diagonal S - 1 has no
// parity block. D[j] is row j of the diagonal column.
//
// Every function works in place on the callers' memory, copies no source and
// returns its StatusCode through `status`; a board XOR failure is InternalError.
#include <cstddef>
#include <cstdint>

#include "util/StatusCode.h"
#include "zone/ExtentList.h"
#include "zone/XorEngine.h"

// Plain processor XOR of whole 32-bit words: length is in bytes, rounded down
// to a whole word.
void XORBlock(const uint32_t* a, const uint32_t* b, uint32_t* dest, uint32_t length);
void XORBlock(const uint32_t* a, const uint32_t* b, const uint32_t* c, uint32_t* dest, uint32_t length);

// Names the memory that always holds zeros (the zero windows that stand for
// the zero columns of a dual-parity code): a source stretch inside it changes
// nothing, so the many-source XOR leaves it out. Set once at start-up, before
// any XOR, and never written while set; null clears it.
void setZeroSourceMemory(const uint8_t* data, size_t length);

// dest = XOR of the count source windows, over dest's length. The windows are
// walked in step whatever their extents; chains of up to 32 stretches go to the
// board in one request.
void XORWindow(const ExtentList& dest, const ExtentList* sources, unsigned count, StatusCode& status);
// dest ^= source, through the board with dest as one of the two sources.
void XORWindow(const ExtentList& dest, const ExtentList& source, StatusCode& status);
// Processor forms: dest = a ^ b (^ c), or with accumulate dest ^= a ^ b (^ c).
void XORWindow(const ExtentList& a, const ExtentList& b, const ExtentList& dest, bool accumulate,
               StatusCode& status);
void XORWindow(const ExtentList& a, const ExtentList& b, const ExtentList& c, const ExtentList& dest,
               bool accumulate, StatusCode& status);

// Both parities of n source windows (zero columns included, first), whole
// superstripe lines of n rows of blockSize bytes each. horizontal and diagonal
// are as long as one source.
void XOR2DWindow(const ExtentList& horizontal, const ExtentList& diagonal, const ExtentList* sources, unsigned n,
                 uint32_t blockSize, StatusCode& status);
// The diagonal parity alone, of S column windows whose last is the horizontal parity.
void XORDiagonalWindow(const ExtentList& diagonal, const ExtentList* columns, unsigned S, uint32_t blockSize,
                       StatusCode& status);

// Appends to the S - 1 targets, by reference, the blocks of the S columns in
// the order that makes position i of every target belong to diagonal i: per
// superstripe line, target t gets E[(t + i) mod S][t] for i = 0..S-2.
void buildXOR2DWindows(uint32_t blockSize, const ExtentList* columns, ExtentList* targets, unsigned S);

// The block order of buildXOR2DWindows, for any window type. For `lines`
// blocks of every column (a whole number of superstripe lines), line by line,
// calls block(target, column) for each block in the order it is appended to
// that target, and block(kSkippedBlock, column) for the one block of the line
// that no target takes; every column gives exactly one block per line.
constexpr unsigned kSkippedBlock = ~0u;
template <class Block>
void walkXOR2DBlocks(unsigned S, uint32_t lines, Block&& block) {
    const unsigned M = S - 1;  // targets, one per diagonal with a parity block
    unsigned t = 0;
    for (uint32_t line = 0; line < lines; ++line) {
        const unsigned skip = (t + S - 1) % S;  // S - 1 at every superstripe line's start
        for (unsigned k = 0; k < S; ++k) {
            const unsigned s = (t + k) % S;
            block(s == skip ? kSkippedBlock : t, s);
        }
        t = (t + 1) % M;
    }
}
