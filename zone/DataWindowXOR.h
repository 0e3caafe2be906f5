#pragma once
// The parity engine over DataWindows: the forms that the Zone read and write
// paths and DataWindow's XOR, XOR2D and XORDiagonal call. Each takes the
// windows' contiguous extents and runs the ExtentList engine (XORWindow.h);
// diagonals are built by adding references to the columns' stores, never by
// copying bytes.
//
// Built only once the data buffers (util/DataWindow.h) are in the tree.
#if __has_include("util/DataWindow.h")
#define ESA_HAVE_DATAWINDOW 1
#include <cstdint>

#include "util/DataWindow.h"
#include "util/StatusCode.h"
#include "zone/ExtentList.h"

// The extents of a window, in window order.
ExtentList extentsOf(const DataWindow& window);

void XORWindow(const DataWindow& dest, const DataWindow* sources, unsigned count, StatusCode& status);
void XORWindow(const DataWindow& dest, const DataWindow& source, StatusCode& status);
void XORWindow(const DataWindow& a, const DataWindow& b, const DataWindow& dest, bool accumulate,
               StatusCode& status);
void XORWindow(const DataWindow& a, const DataWindow& b, const DataWindow& c, const DataWindow& dest,
               bool accumulate, StatusCode& status);
void XOR2DWindow(const DataWindow& horizontal, const DataWindow& diagonal, const DataWindow* sources, unsigned n,
                 uint32_t blockSize, StatusCode& status);
void XORDiagonalWindow(const DataWindow& diagonal, const DataWindow* columns, unsigned S, uint32_t blockSize,
                       StatusCode& status);
// Appends to the S - 1 targets references to the columns' blocks in diagonal
// order (see buildXOR2DWindows in XORWindow.h).
void buildXOR2DWindows(uint32_t blockSize, const DataWindow* columns, DataWindow* targets, unsigned S);
#endif
