#pragma once
// MD5 (RFC 1321), for the CHAP exchange of iSCSI login and nothing else:
// CHAP's response is MD5 over identifier, secret and challenge.
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

std::array<uint8_t, 16> md5(const uint8_t* data, size_t length);
inline std::array<uint8_t, 16> md5(const std::vector<uint8_t>& v) { return md5(v.data(), v.size()); }
