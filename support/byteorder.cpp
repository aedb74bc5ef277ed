#include "support/byteorder.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

namespace {

enum class Rep { a, m, v };

template <std::size_t N> struct UnsignedOfSize;
template <> struct UnsignedOfSize<1> { using type = std::uint8_t; };
template <> struct UnsignedOfSize<2> { using type = std::uint16_t; };
template <> struct UnsignedOfSize<4> { using type = std::uint32_t; };
template <> struct UnsignedOfSize<8> { using type = std::uint64_t; };
// The unsigned integer that carries the bits of a T.
template <typename T> using Bits = typename UnsignedOfSize<sizeof(T)>::type;

// Reverses the bytes of an unsigned integer.
template <typename U> constexpr U swap_bytes(U x) {
    if constexpr (sizeof(U) == 1) return x;
    else if constexpr (sizeof(U) == 2) return __builtin_bswap16(x);
    else if constexpr (sizeof(U) == 4) return __builtin_bswap32(x);
    else return __builtin_bswap64(x);
}

// Whether representation R stores bytes in the reverse of the host's order.
template <Rep R> constexpr bool reversed() {
    if constexpr (R == Rep::m) return std::endian::native == std::endian::little;
    else if constexpr (R == Rep::v) return std::endian::native == std::endian::big;
    else return false;
}

// Reads one T stored in representation R; p needs no alignment.
template <Rep R, typename T> T load(const unsigned char *p) {
    Bits<T> bits;
    std::memcpy(&bits, p, sizeof bits);
    if constexpr (reversed<R>()) bits = swap_bytes(bits);
    return std::bit_cast<T>(bits);
}

// Writes one T in representation R; p needs no alignment.
template <Rep R, typename T> void store(T value, unsigned char *p) {
    Bits<T> bits = std::bit_cast<Bits<T>>(value);
    if constexpr (reversed<R>()) bits = swap_bytes(bits);
    std::memcpy(p, &bits, sizeof bits);
}

// Floating point to integer: truncated toward zero, saturated at the
// limits, NaN to 0; fits is cleared when the value was out of range.
template <typename To, typename From> To float_to_int(From value, bool &fits) {
    using limits = std::numeric_limits<To>;
    // Both bounds are powers of two (or 0), so they are exact as doubles.
    constexpr double lowest = static_cast<double>(limits::min());
    constexpr double beyond = static_cast<double>(limits::max() / 2 + 1) * 2.0;
    double t = std::trunc(static_cast<double>(value));
    if (std::isnan(t)) {
        fits = false;
        return 0;
    }
    if (t < lowest || t >= beyond) {
        fits = false;
        return t < lowest ? limits::min() : limits::max();
    }
    return static_cast<To>(t);
}

// Integer to integer, saturated at the limits of To.
template <typename To, typename From> To int_to_int(From value, bool &fits) {
    if (std::in_range<To>(value)) return static_cast<To>(value);
    fits = false;
    if constexpr (std::is_signed_v<From>)
        if (value < 0) return std::numeric_limits<To>::min();
    return std::numeric_limits<To>::max();
}

// Double to float: finite values beyond the float range saturate;
// infinities and NaN carry over.
template <typename To, typename From> To float_to_float(From value, bool &fits) {
    constexpr From top = static_cast<From>(std::numeric_limits<To>::max());
    if (sizeof(To) >= sizeof(From) || !std::isfinite(value) || std::fabs(value) <= top)
        return static_cast<To>(value);
    fits = false;
    return value < 0 ? -std::numeric_limits<To>::max() : std::numeric_limits<To>::max();
}

// One value from From to To; fits is cleared when it did not fit.
template <typename To, typename From> To convert(From value, bool &fits) {
    if constexpr (std::is_same_v<To, From>) return value;
    else if constexpr (std::is_integral_v<To> && std::is_integral_v<From>) return int_to_int<To>(value, fits);
    else if constexpr (std::is_integral_v<To>) return float_to_int<To>(value, fits);
    else if constexpr (std::is_integral_v<From>) return static_cast<To>(value);
    else return float_to_float<To>(value, fits);
}

// External (representation R, type Ext) to host values.
template <Rep R, typename Ext, typename Host>
int ext2host(unsigned char **cursor, Host *values, int n) {
    bool fits = true;
    // A local cursor: stores through unsigned char may alias *cursor, so
    // updating it in place would force a reload per value.
    const unsigned char *p = *cursor;
    for (int k = 0; k < n; ++k, p += sizeof(Ext)) values[k] = convert<Host>(load<R, Ext>(p), fits);
    if (n > 0) *cursor += static_cast<std::size_t>(n) * sizeof(Ext);
    return fits ? 0 : -1;
}

// Host values to external (representation R, type Ext).
template <Rep R, typename Ext, typename Host>
int host2ext(const Host *values, unsigned char **cursor, int n) {
    bool fits = true;
    unsigned char *p = *cursor;
    for (int k = 0; k < n; ++k, p += sizeof(Ext)) store<R>(convert<Ext>(values[k], fits), p);
    if (n > 0) *cursor = p;
    return fits ? 0 : -1;
}

}  // namespace

// Each line of byteorder.def defines its members for a, m and v; the
// external type follows the signedness of the member, as the host type does.
#define BYTEORDER_SIGNED(R, E, H)                                                     \
    int R##E##2h##H(unsigned char **cursor, BYTEORDER_S_##H *values, int n) {         \
        return ext2host<Rep::R, BYTEORDER_S_##E>(cursor, values, n);                  \
    }                                                                                 \
    int h##H##2##R##E(const BYTEORDER_S_##H *values, unsigned char **cursor, int n) { \
        return host2ext<Rep::R, BYTEORDER_S_##E>(values, cursor, n);                  \
    }
#define BYTEORDER_UNSIGNED_0(R, E, H)
#define BYTEORDER_UNSIGNED_1(R, E, H)                                                  \
    int u##R##E##2h##H(unsigned char **cursor, BYTEORDER_U_##H *values, int n) {       \
        return ext2host<Rep::R, BYTEORDER_U_##E>(cursor, values, n);                   \
    }                                                                                  \
    int uh##H##2##R##E(const BYTEORDER_U_##H *values, unsigned char **cursor, int n) { \
        return host2ext<Rep::R, BYTEORDER_U_##E>(values, cursor, n);                   \
    }
#define BYTEORDER_MEMBERS(R, E, H, U) \
    BYTEORDER_SIGNED(R, E, H)         \
    BYTEORDER_UNSIGNED_##U(R, E, H)
#define BYTEORDER_PAIR(E, H, U)   \
    BYTEORDER_MEMBERS(a, E, H, U) \
    BYTEORDER_MEMBERS(m, E, H, U) \
    BYTEORDER_MEMBERS(v, E, H, U)
#include "support/byteorder.def"
