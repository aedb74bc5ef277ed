// Conversions between external byte buffers and host arrays.
//
// Every member is named <source>2<destination>, optionally behind 'u', each
// code being a representation letter and a size letter:
//   representation  m  big-endian, most significant byte first (wire order)
//                   v  little-endian, least significant byte first
//                   a  the host's own order (a plain copy)
//                   h  a host value in an array
//   size            b 8, s 16, i 32, l 64 bit integer; f float, d double
// Floating point on the external side is the IEEE-754 bit pattern of the
// value: m stores it most significant byte first, v least significant byte
// first, a as the host holds it.
// 'u' makes the integers unsigned (std::uintN_t, zero-extended when widened,
// checked against the unsigned range); without it they are signed
// (std::intN_t, sign-extended, checked against the signed range). Floating
// values are float or double either way.
//
// The external side is always a cursor (the address of a byte pointer),
// advanced by the external size of each value; it needs no alignment. The
// argument order follows the name: source, destination, count. A count of 0
// (or less) moves nothing and returns 0.
//
// Result: 0, or -1 when at least one value did not fit the destination; all
// values are converted and the cursor advanced all the same. A value that
// does not fit becomes the nearest value the destination holds (saturated:
// 300 -> 127 for a signed byte, -5 -> 0 for an unsigned one, 1e10 -> INT32_MAX,
// a finite double beyond the float range -> +/-FLT_MAX). Floating point to
// integer truncates toward zero; NaN becomes 0 and counts as not fitting.
// Integer to floating point rounds to nearest and always fits; infinities
// and NaN pass between float and double unchanged.
#pragma once

#include <cstdint>

// The host-side element types, by size letter.
#define BYTEORDER_S_b std::int8_t
#define BYTEORDER_S_s std::int16_t
#define BYTEORDER_S_i std::int32_t
#define BYTEORDER_S_l std::int64_t
#define BYTEORDER_S_f float
#define BYTEORDER_S_d double
#define BYTEORDER_U_b std::uint8_t
#define BYTEORDER_U_s std::uint16_t
#define BYTEORDER_U_i std::uint32_t
#define BYTEORDER_U_l std::uint64_t
#define BYTEORDER_U_f float
#define BYTEORDER_U_d double

// The members the relay calls: big-endian 16 and 32 bit unsigned fields.
// Reads n 16-bit values from the cursor, most significant byte first.
int ums2hs(unsigned char **cursor, std::uint16_t *values, int n);
// Writes n 16-bit values at the cursor, most significant byte first.
int uhs2ms(const std::uint16_t *values, unsigned char **cursor, int n);
// Reads n 32-bit values from the cursor, most significant byte first.
int umi2hi(unsigned char **cursor, std::uint32_t *values, int n);
// Writes n 32-bit values at the cursor, most significant byte first.
int uhi2mi(const std::uint32_t *values, unsigned char **cursor, int n);

// The whole family, one block of declarations per line of byteorder.def
// and representation.
#define BYTEORDER_SIGNED(R, E, H)                                               \
    int R##E##2h##H(unsigned char **cursor, BYTEORDER_S_##H *values, int n);    \
    int h##H##2##R##E(const BYTEORDER_S_##H *values, unsigned char **cursor, int n);
#define BYTEORDER_UNSIGNED_0(R, E, H)
#define BYTEORDER_UNSIGNED_1(R, E, H)                                           \
    int u##R##E##2h##H(unsigned char **cursor, BYTEORDER_U_##H *values, int n); \
    int uh##H##2##R##E(const BYTEORDER_U_##H *values, unsigned char **cursor, int n);
#define BYTEORDER_MEMBERS(R, E, H, U) \
    BYTEORDER_SIGNED(R, E, H)         \
    BYTEORDER_UNSIGNED_##U(R, E, H)
#define BYTEORDER_PAIR(E, H, U)     \
    BYTEORDER_MEMBERS(a, E, H, U)   \
    BYTEORDER_MEMBERS(m, E, H, U)   \
    BYTEORDER_MEMBERS(v, E, H, U)
#include "support/byteorder.def"
#undef BYTEORDER_PAIR
#undef BYTEORDER_MEMBERS
#undef BYTEORDER_UNSIGNED_1
#undef BYTEORDER_UNSIGNED_0
#undef BYTEORDER_SIGNED
