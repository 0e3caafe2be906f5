#pragma once
// DRStripeCode: the shape of the dual-parity code of a DRStripe Zone of a given
// width. Rows and diagonals run over S columns, S prime: the zero columns
// (never stored, they stand first), the d data columns and the horizontal
// parity; the diagonal parity is one more column. A superstripe line is R rows
// of one 4096-byte block per column. This shape lies on every DRStripe disk and
// never changes.
#include <cstdint>

struct DRStripeCode {
    static constexpr uint32_t kBlockSize = 0x1000;

    unsigned width;        // w: Regions across the Zone, data and both parities
    unsigned dataColumns;  // d = w - 2
    unsigned zeroColumns;  // columns of zeros in front of the data

    unsigned sources() const { return zeroColumns + dataColumns; }  // n
    unsigned columns() const { return sources() + 1; }              // S = n + 1, prime
    unsigned rows() const { return sources(); }                     // R = n
    unsigned paddedWidth() const { return columns() + 1; }          // W: the code's columns with zeros and diagonal
    // Zone data in one superstripe line, and one column's share of it.
    uint32_t superStripeLineSize() const { return dataColumns * rows() * kBlockSize; }
    uint32_t columnBlockSize() const { return rows() * kBlockSize; }

    // The code of a DRStripe width (4, 5, 6, 8 or 10); false for any other width.
    static bool forWidth(unsigned width, DRStripeCode& code);
};

// The DRStripe widths, narrowest first.
constexpr unsigned kDRStripeWidths[] = {4, 5, 6, 8, 10};
