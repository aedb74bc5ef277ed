#include "support/byteorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <set>
#include <sstream>

namespace {

using Bytes = std::vector<unsigned char>;
std::set<std::string> exercised;

// True when v converts to T and back unchanged.
template <typename T> bool holds(double v) {
    using L = std::numeric_limits<T>;
    return v >= double(L::lowest()) && v <= double(L::max()) && double(static_cast<T>(v)) == v;
}

// Values both sides hold exactly go out in the expected bytes and come back unchanged.
template <typename E, typename H, typename In, typename Out>
void round_trip(std::string name, In in_fn, Out out_fn) {
    SCOPED_TRACE(name);
    exercised.insert(name);
    std::vector<H> in, out;
    for (double v : {0.0, 1.0, -1.0, -128.0, 127.0, 255.0, -32768.0, 65535.0, 2147483647.0,
                     -2147483648.0, 4294967295.0, 16777216.0, -2.25, 1e300})
        if (holds<E>(v) && holds<H>(v)) in.push_back(static_cast<H>(v));
    // The expected bytes are the host's, reversed where the member's order is not the host's.
    const char reversed = std::endian::native == std::endian::little ? 'm' : 'v';
    Bytes want, buf(in.size() * sizeof(E) + 1, 0xa5);
    for (H v : in) {
        auto bytes = std::bit_cast<std::array<unsigned char, sizeof(E)>>(static_cast<E>(v));
        if (name[name[0] == 'u'] == reversed) std::reverse(bytes.begin(), bytes.end());
        want.insert(want.end(), bytes.begin(), bytes.end());
    }
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

// One member and its writing twin; P is empty, or u for the unsigned ones.
#define CHECK(P, S, R, E, H)                                                               \
    round_trip<BYTEORDER_##S##_##E, BYTEORDER_##S##_##H>(#P #R #E "2h" #H, P##R##E##2h##H, \
                                                         P##h##H##2##R##E);
#define CHECK_U_0(R, E, H)
#define CHECK_U_1(R, E, H) CHECK(u, U, R, E, H)
#define CHECK_REP(R, E, H, U) CHECK(, S, R, E, H) CHECK_U_##U(R, E, H)
#define BYTEORDER_PAIR(E, H, U) CHECK_REP(a, E, H, U) CHECK_REP(m, E, H, U) CHECK_REP(v, E, H, U)

TEST(Byteorder, EveryMemberRoundTripsInItsByteOrder) {
#include "support/byteorder.def"
    // The documented family: these external/host size pairs in a, m and v, and a 'u' twin of
    // each member with an integer side.
    std::istringstream in("bb bs bi bl bf bd ss si sl sf sd ii il if id ll ld fi fl ff fd dl dd");
    std::set<std::string> documented;
    for (std::string p; in >> p;)
        for (std::string u : {"", "u"})
            for (char r : {'a', 'm', 'v'})
                if (u.empty() || p.find_first_of("bsil") != std::string::npos)
                    documented.insert(u + r + p[0] + "2h" + p[1]);
    EXPECT_EQ(exercised, documented);
}

TEST(Byteorder, FixedPatternsAndOutOfRange) {
    unsigned char buf[32] = {0x12, 0x34}, *c;
    auto at = [&c](unsigned char *p) { return &(c = p); };  // the cursor, set to p
    std::uint16_t u16[2];
    EXPECT_EQ(ums2hs(at(buf), &u16[0], 1) + uvs2hs(at(buf), &u16[1], 1), 0);
    EXPECT_EQ(std::vector<int>(u16, u16 + 2), (std::vector<int>{0x1234, 0x3412}));
    // Values that do not fit are saturated, the result is -1, and the rest still goes through.
    std::int32_t wide[] = {1, 40000, -40000, 2};
    EXPECT_EQ(hi2ms(wide, at(buf), 4), -1);  // a signed 16-bit 40000
    EXPECT_EQ(Bytes(buf, c), (Bytes{0, 1, 0x7f, 0xff, 0x80, 0, 0, 2}));
    unsigned char floats[] = {0xc0, 0xa0, 0, 0, 0x40, 0xe0, 0, 0};  // -5.0f, 7.0f
    std::uint32_t u32[2];
    EXPECT_EQ(umf2hi(at(floats), u32, 2), -1);  // a negative into unsigned
    EXPECT_EQ(std::vector<std::uint32_t>(u32, u32 + 2), (std::vector<std::uint32_t>{0, 7}));
    float big[] = {1e10f, -1e10f, NAN, 3.9f, -3.9f};  // too large for an int, NaN, truncation
    EXPECT_EQ(hf2vi(big, at(buf), 5), -1);
    EXPECT_EQ(Bytes(buf, c), (Bytes{0xff, 0xff, 0xff, 0x7f, 0, 0, 0, 0x80, 0, 0, 0, 0, 3, 0, 0, 0,
                                    0xfd, 0xff, 0xff, 0xff}));
    double huge[] = {1e300, -1e300, INFINITY};  // beyond float: +/-FLT_MAX; infinity passes
    EXPECT_EQ(hd2mf(huge, at(buf), 3), -1);
    EXPECT_EQ(Bytes(buf, c),
              (Bytes{0x7f, 0x7f, 0xff, 0xff, 0xff, 0x7f, 0xff, 0xff, 0x7f, 0x80, 0, 0}));
}

}  // namespace
