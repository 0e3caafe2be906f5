#pragma once
// GetCRC: the checksum of every on-disk record. Reflected CRC-32 with the
// polynomial 0xEDB88320, initial value 0 and no final inversion, so that,
// unlike the usual CRC-32, a run of zero bytes checks to 0 ("123456789" gives
// 0x2DFD2D88). InitCRC builds the 256-entry table; GetCRC builds it on first
// use if nobody did.
#include <cstddef>
#include <cstdint>

void InitCRC();
uint32_t GetCRC(const void* buffer, size_t length);
