#include "support/byteorder.h"

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <limits>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
std::set<std::string> exercised;

// The external bytes of v, cut out of its bit pattern by shifts (not by the code under test).
template <typename T> void append_bytes(Bytes &out, T v, char rep) {
    using U = std::conditional_t<sizeof(T) == 1, std::uint8_t, std::conditional_t<sizeof(T) == 2, std::uint16_t,
              std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;
    for (std::size_t k = 0; k < sizeof(T); ++k)
        out.push_back(rep == 'a' ? reinterpret_cast<unsigned char *>(&v)[k]
                                 : std::uint8_t(std::bit_cast<U>(v) >> 8 * (rep == 'm' ? sizeof(T) - 1 - k : k)));
}

template <typename T> bool holds(double v) {
    using L = std::numeric_limits<T>;
    if (std::is_integral_v<T>) return v == std::trunc(v) && v >= double(L::lowest()) && v <= double(L::max());
    return std::fabs(v) <= double(L::max()) && double(static_cast<T>(v)) == v;
}

// Values both sides hold exactly go out in the expected bytes and come back unchanged.
template <typename E, typename H, typename In, typename Out> void round_trip(std::string name, In in_fn, Out out_fn) {
    SCOPED_TRACE(name);
    exercised.insert(name);
    std::vector<H> in, out;
    for (double v : {0.0, 1.0, -1.0, -128.0, 127.0, 255.0, -32768.0, 65535.0, 2147483647.0, -2147483648.0,
                     4294967295.0, 16777216.0, -2.25, 1e300})
        if (holds<E>(v) && holds<H>(v)) in.push_back(static_cast<H>(v));
    Bytes want, buf(in.size() * sizeof(E) + 1, 0xa5);
    for (H v : in) append_bytes(want, static_cast<E>(v), name[name[0] == 'u']);
    unsigned char *cursor = buf.data();
    EXPECT_EQ(out_fn(in.data(), &cursor, 0), 0);  // count 0 moves nothing
    EXPECT_EQ(cursor, buf.data());
    EXPECT_EQ(out_fn(in.data(), &cursor, int(in.size())), 0);
    ASSERT_EQ(cursor, buf.data() + want.size());
    EXPECT_EQ(Bytes(buf.begin(), buf.end() - 1), want);
    EXPECT_EQ(buf.back(), 0xa5) << "wrote past the last value";
    out.resize(in.size());
    cursor = buf.data();
    EXPECT_EQ(in_fn(&cursor, out.data(), int(out.size())), 0);
    EXPECT_EQ(cursor, buf.data() + want.size());
    EXPECT_EQ(out, in);
}

#define CHECK_S(R, E, H) round_trip<BYTEORDER_S_##E, BYTEORDER_S_##H>(#R #E "2h" #H, R##E##2h##H, h##H##2##R##E);
#define CHECK_U_0(R, E, H)
#define CHECK_U_1(R, E, H) round_trip<BYTEORDER_U_##E, BYTEORDER_U_##H>("u" #R #E "2h" #H, u##R##E##2h##H, uh##H##2##R##E);
#define BYTEORDER_PAIR(E, H, U) CHECK_S(a, E, H) CHECK_S(m, E, H) CHECK_S(v, E, H) \
    CHECK_U_##U(a, E, H) CHECK_U_##U(m, E, H) CHECK_U_##U(v, E, H)

TEST(Byteorder, EveryMemberRoundTripsInItsByteOrder) {
#include "support/byteorder.def"
    // The documented family written out for 'a' (reading direction); m and v repeat it.
    std::istringstream names("ab2hb uab2hb ab2hs uab2hs ab2hi uab2hi ab2hl uab2hl ab2hf uab2hf ab2hd uab2hd as2hs "
        "uas2hs as2hi uas2hi as2hl uas2hl as2hf uas2hf as2hd uas2hd ai2hi uai2hi ai2hl uai2hl ai2hf uai2hf ai2hd "
        "uai2hd al2hl ual2hl al2hd ual2hd af2hi uaf2hi af2hl uaf2hl af2hf af2hd ad2hl uad2hl ad2hd");
    std::set<std::string> documented;
    for (std::string n; names >> n;)
        for (char rep : {'a', 'm', 'v'}) documented.insert(std::string(n).replace(n.find('a'), 1, 1, rep));
    EXPECT_EQ(exercised, documented);
}

TEST(Byteorder, FixedPatternsAndOutOfRange) {
    unsigned char in[] = {0x12, 0x34}, buf[32], *c = in;
    std::uint16_t u16;
    std::uint32_t u32[2] = {0x01020304};
    EXPECT_EQ(ums2hs(&c, &u16, 1), 0);
    EXPECT_EQ(u16, 0x1234);
    EXPECT_EQ(c, in + 2);
    uvs2hs((c = in, &c), &u16, 1);
    EXPECT_EQ(u16, 0x3412);
    uhi2mi(u32, (c = buf, &c), 1);
    uhi2vi(u32, &c, 1);
    EXPECT_EQ(Bytes(buf, c), (Bytes{1, 2, 3, 4, 4, 3, 2, 1}));

    std::int32_t wide[] = {1, 40000, -40000, 2}, s32[5];
    EXPECT_EQ(hi2ms(wide, (c = buf, &c), 4), -1);  // saturates, and the rest still goes out
    EXPECT_EQ(Bytes(buf, c), (Bytes{0, 1, 0x7f, 0xff, 0x80, 0, 0, 2}));
    float fl[] = {-5.0f, 7.0f}, big[] = {1e10f, -1e10f, NAN, 3.9f, -3.9f}, narrowed[3];
    hf2mf(fl, (c = buf, &c), 2);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0xc0, 0xa0, 0, 0}));
    EXPECT_EQ(umf2hi((c = buf, &c), u32, 2), -1);  // a negative into unsigned
    EXPECT_EQ(std::vector<std::uint32_t>(u32, u32 + 2), (std::vector<std::uint32_t>{0, 7}));
    EXPECT_EQ(hf2vi(big, (c = buf, &c), 5), -1);  // too large for an int, NaN, truncation
    EXPECT_EQ(vi2hi((c = buf, &c), s32, 5), 0);
    EXPECT_EQ(std::vector<std::int32_t>(s32, s32 + 5), (std::vector<std::int32_t>{INT32_MAX, INT32_MIN, 0, 3, -3}));
    double huge[] = {1e300, -1e300, INFINITY};
    EXPECT_EQ(hd2mf(huge, (c = buf, &c), 3), -1);
    EXPECT_EQ(mf2hf((c = buf, &c), narrowed, 3), 0);
    EXPECT_EQ(std::vector<float>(narrowed, narrowed + 3), (std::vector<float>{FLT_MAX, -FLT_MAX, INFINITY}));
}

}  // namespace
