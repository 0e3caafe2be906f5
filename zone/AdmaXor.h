#pragma once
// admaXor and chainedXor: the board's two XOR operations, as the parity engine
// calls them. On the appliance they reach the XOR hardware through two system
// calls; here the same two operations run on the processor (XorEngine), with
// the same arguments and contract: a negative board result is a failure, which
// becomes InternalError with everything the operation was given printed.
//
// The hardware had to be serialised by the XOR lock. The processor engine
// keeps no shared state, so no lock is taken here: write threads XOR in
// parallel, each on its own core.
#include <cstdint>

#include "util/StatusCode.h"
#include "zone/XorEngine.h"

// Elements in one chained request.
constexpr unsigned kXorChainElements = 32;

using XorSourceRow = uint8_t* [kXorMaxSources];

// dest = XOR of sourceCount contiguous sources, length bytes. dest may be one
// of the sources.
void admaXor(unsigned long sourceCount, uint8_t* const* sources, uint8_t* dest, unsigned long length,
             StatusCode& status);

// elements XORs in one request: element i is sourceCounts[i] sources taken from
// sourceRows[i], into dests[i], lengths[i] bytes.
void chainedXor(unsigned long elements, const unsigned long* sourceCounts, const XorSourceRow* sourceRows,
                uint8_t* const* dests, const unsigned long* lengths, StatusCode& status);

// Makes board XOR requests fail as the hardware would, so that callers'
// failure handling can be exercised: after passFirst more good requests, the
// next count fail. A count of 0 ends the injection.
void injectXorFailures(unsigned count, unsigned passFirst = 0);
