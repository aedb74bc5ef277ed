#include "support/byteorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>

static std::set<std::string> exercised;

// Values both sides hold exactly go out in the host's bytes, reversed where the member's order is not the host's,
// and come back unchanged; nothing is written past them.
template <typename T> static bool holds(double v) {
    using L = std::numeric_limits<T>;
    return v >= double(L::lowest()) && v <= double(L::max()) && double(T(v)) == v;
}
template <typename E, typename H, typename In, typename Out>
static void round_trip(std::string in_name, std::string out_name, In in_fn, Out out_fn) {
    exercised.insert({in_name, out_name});
    std::vector<H> in, out;
    for (double v : {0.0, 1.0, -1.0, -128.0, 127.0, 255.0, -32768.0, 32767.0, 65535.0, 2147483647.0,
                     -2147483648.0, 4294967295.0, 16777216.0, -2.25, double(FLT_MAX), 1e300})
        if (holds<E>(v) && holds<H>(v)) in.push_back(H(v));
    std::vector<unsigned char> want, buf(in.size() * sizeof(E) + 1, 0xa5);
    const char reversed = std::endian::native == std::endian::little ? 'm' : 'v';
    for (H v : in) {
        auto bytes = std::bit_cast<std::array<unsigned char, sizeof(E)>>(E(v));
        if (in_name[in_name[0] == 'u'] == reversed) std::reverse(bytes.begin(), bytes.end());
        want.insert(want.end(), bytes.begin(), bytes.end());
    }
    want.push_back(0xa5);
    unsigned char *cursor = buf.data();
    int rc = out_fn(in.data(), &cursor, int(in.size()));
    EXPECT_EQ(std::tuple(rc, long(cursor - buf.data()), buf), std::tuple(0, long(want.size() - 1), want)) << out_name;
    rc = (out.resize(in.size()), in_fn(&(cursor = buf.data()), out.data(), int(out.size())));
    EXPECT_EQ(std::tuple(rc, long(cursor - buf.data()), out), std::tuple(0, long(want.size() - 1), in)) << in_name;
}

// One member and its writing twin; P is empty, or u for the unsigned ones.
#define CHECK(P, S, R, E, H) \
    round_trip<BYTEORDER_##S##_##E, BYTEORDER_##S##_##H>(#P #R #E "2h" #H, #P "h" #H "2" #R #E, P##R##E##2h##H, \
                                                         P##h##H##2##R##E);
#define CHECK_U_0(R, E, H)
#define CHECK_U_1(R, E, H) CHECK(u, U, R, E, H)
#define CHECK_REP(R, E, H, U) CHECK(, S, R, E, H) CHECK_U_##U(R, E, H)
#define BYTEORDER_PAIR(E, H, U) CHECK_REP(a, E, H, U) CHECK_REP(m, E, H, U) CHECK_REP(v, E, H, U)

TEST(Byteorder, EveryDocumentedMemberRoundTripsInItsByteOrder) {
#include "support/byteorder.def"
    // The documented family: these members, then the same with m and again with v in place of a.
    std::istringstream in(
        "ab2hb hb2ab uab2hb uhb2ab  ab2hs hs2ab uab2hs uhs2ab  ab2hi hi2ab uab2hi uhi2ab  ab2hl hl2ab uab2hl uhl2ab "
        "ab2hf hf2ab uab2hf uhf2ab  ab2hd hd2ab uab2hd uhd2ab  as2hs hs2as uas2hs uhs2as  as2hi hi2as uas2hi uhi2as "
        "as2hl hl2as uas2hl uhl2as  as2hf hf2as uas2hf uhf2as  as2hd hd2as uas2hd uhd2as  ai2hi hi2ai uai2hi uhi2ai "
        "ai2hl hl2ai uai2hl uhl2ai  ai2hf hf2ai uai2hf uhf2ai  ai2hd hd2ai uai2hd uhd2ai  al2hl hl2al ual2hl uhl2al "
        "al2hd hd2al ual2hd uhd2al  af2hi hi2af uaf2hi uhi2af  af2hl hl2af uaf2hl uhl2af  af2hf hf2af  af2hd hd2af "
        "ad2hl hl2ad uad2hl uhl2ad  ad2hd hd2ad");
    std::set<std::string> documented;
    for (std::string name; in >> name;)  // each name holds one representation letter
        for (char r : {'a', 'm', 'v'}) documented.insert((name[name.find_first_of("amv")] = r, name));
    EXPECT_EQ(exercised, documented);
}

TEST(Byteorder, OutOfRangeSaturatesAndFailsAfterConvertingTheRest) {
    std::int32_t i32[] = {32768, -32769}, read = 0;
    std::uint32_t u32[] = {65535};
    float f32[] = {-5.0f, 1e10f};
    double f64[] = {2147483648.0, -2147483649.0, NAN, 3.9, -3.9, FLT_MAX, 1e300, -1e300, INFINITY};
    struct Row { const char *behaviour; std::function<int(unsigned char **)> put; int rc; const char *hex; };
    const Row rows[] = {
        {"beyond them saturate", [&](auto c) { return hd2mi(f64, c, 2); }, -1, "7fffffff80000000"},
        {"NaN is 0, not fitting", [&](auto c) { return hd2mi(f64 + 2, c, 1); }, -1, "00000000"},
        {"truncated toward zero", [&](auto c) { return hd2mi(f64 + 3, c, 2); }, 0, "00000003fffffffd"},
        {"beyond them saturate", [&](auto c) { return hi2ms(i32, c, 2); }, -1, "7fff8000"},
        {"negative into unsigned is 0", [&](auto c) { return uhf2mi(f32, c, 1); }, -1, "00000000"},
        {"saturated; infinity passes", [&](auto c) { return hd2mf(f64 + 6, c, 3); }, -1, "7f7fffffff7fffff7f800000"},
        {"a negative count moves nothing", [&](auto c) { return hi2mi(i32, c, -1) + umi2hi(c, u32, -1); }, 0, ""},
        {"reads saturate", [&](auto c) { return hf2mf(f32 + 1, c, 1) + mf2hi(&(*c -= 4), &read, 1); }, -1, "501502f9"}};
    for (const Row &r : rows) {
        unsigned char buf[16], *c = buf;
        EXPECT_EQ(r.put(&c), r.rc) << r.behaviour;
        ASSERT_TRUE(c >= buf && c <= buf + 16) << r.behaviour;
        char hex[33] = "";
        for (unsigned char *p = buf; p < c; p++) sprintf(hex + 2 * (p - buf), "%02x", *p);
        EXPECT_STREQ(hex, r.hex) << r.behaviour;
    }
    EXPECT_EQ(read, 2147483647);  // the reads row's 1e10
}
