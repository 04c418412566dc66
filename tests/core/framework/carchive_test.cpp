#include <bit>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>

#include "core/framework/carchive.h"

namespace {

std::string bytes(std::initializer_list<unsigned char> list)
{
    return std::string(list.begin(), list.end());
}

std::stringstream binaryStream(const std::string& content = {})
{
    return std::stringstream(content, std::ios::in | std::ios::out | std::ios::binary);
}

} // namespace

TEST(CArchive, MixedRecordHasTheExactLittleEndianLayout)
{
    std::stringstream stream = binaryStream();
    CArchive ar(stream, CArchive::store);
    ar << 1 << 2.5 << true << static_cast<short>(-2) << static_cast<unsigned char>(0xAB) << 1.0f
       << 0x0102030405060708LL << 'A' << static_cast<std::int32_t>(0xDEADBEEFu)
       << static_cast<std::int64_t>(-2) << false << static_cast<std::uint16_t>(0x1234);
    const std::string expected = bytes({
        0x01, 0x00, 0x00, 0x00,                         // int 1
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x40, // double 2.5 = 0x4004000000000000
        0x01,                                           // bool true
        0xFE, 0xFF,                                     // short -2
        0xAB,                                           // unsigned char
        0x00, 0x00, 0x80, 0x3F,                         // float 1.0 = 0x3F800000
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, // long long
        0x41,                                           // char 'A'
        0xEF, 0xBE, 0xAD, 0xDE,                         // std::int32_t 0xDEADBEEF
        0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, // std::int64_t -2 (a long here)
        0x00,                                           // bool false
        0x34, 0x12,                                     // std::uint16_t
    });
    EXPECT_EQ(stream.str(), expected);
}

TEST(CArchive, EveryTypeRoundTripsBitForBit)
{
    const double quietNaN = std::bit_cast<double>(0x7FF8000000000123ULL); // with a payload
    const float floatNaN = std::bit_cast<float>(0xFFC00042u);
    std::stringstream stream = binaryStream();
    {
        CArchive ar(stream, CArchive::store);
        ar << true << false << 'z' << static_cast<signed char>(-128) << static_cast<unsigned char>(255)
           << std::numeric_limits<short>::min() << std::numeric_limits<unsigned short>::max()
           << std::numeric_limits<int>::min() << std::numeric_limits<unsigned int>::max()
           << std::numeric_limits<long>::min() << std::numeric_limits<unsigned long>::max()
           << std::numeric_limits<long long>::min() << std::numeric_limits<unsigned long long>::max()
           << quietNaN << std::numeric_limits<double>::infinity() << -std::numeric_limits<double>::infinity()
           << -0.0 << std::numeric_limits<double>::denorm_min() << floatNaN
           << -std::numeric_limits<float>::infinity() << 0.1f;
        ar.Flush();
    }
    CArchive ar(stream, CArchive::load);
    bool t = false, f = true;
    char c = 0;
    signed char sc = 0;
    unsigned char uc = 0;
    short s = 0;
    unsigned short us = 0;
    int i = 0;
    unsigned int ui = 0;
    long l = 0;
    unsigned long ul = 0;
    long long ll = 0;
    unsigned long long ull = 0;
    double nan = 0, inf = 0, minusInf = 0, minusZero = 0, denorm = 0;
    float fnan = 0, fminusInf = 0, tenth = 0;
    ar >> t >> f >> c >> sc >> uc >> s >> us >> i >> ui >> l >> ul >> ll >> ull >> nan >> inf >> minusInf >>
        minusZero >> denorm >> fnan >> fminusInf >> tenth;
    EXPECT_TRUE(t);
    EXPECT_FALSE(f);
    EXPECT_EQ(c, 'z');
    EXPECT_EQ(sc, -128);
    EXPECT_EQ(uc, 255);
    EXPECT_EQ(s, std::numeric_limits<short>::min());
    EXPECT_EQ(us, std::numeric_limits<unsigned short>::max());
    EXPECT_EQ(i, std::numeric_limits<int>::min());
    EXPECT_EQ(ui, std::numeric_limits<unsigned int>::max());
    EXPECT_EQ(l, std::numeric_limits<long>::min());
    EXPECT_EQ(ul, std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(ll, std::numeric_limits<long long>::min());
    EXPECT_EQ(ull, std::numeric_limits<unsigned long long>::max());
    EXPECT_EQ(std::bit_cast<std::uint64_t>(nan), 0x7FF8000000000123ULL);
    EXPECT_EQ(inf, std::numeric_limits<double>::infinity());
    EXPECT_EQ(minusInf, -std::numeric_limits<double>::infinity());
    EXPECT_EQ(std::bit_cast<std::uint64_t>(minusZero), 0x8000000000000000ULL);
    EXPECT_EQ(denorm, std::numeric_limits<double>::denorm_min());
    EXPECT_EQ(std::bit_cast<std::uint32_t>(fnan), 0xFFC00042u);
    EXPECT_EQ(fminusInf, -std::numeric_limits<float>::infinity());
    EXPECT_EQ(tenth, 0.1f);
    unsigned char extra = 0;
    EXPECT_THROW(ar >> extra, CArchiveException);
}

TEST(CArchive, AnyNonZeroByteReadsAsTrue)
{
    std::stringstream stream = binaryStream(bytes({0x02, 0x00, 0xFF}));
    CArchive ar(stream, CArchive::load);
    bool a = false, b = true, c = false;
    ar >> a >> b >> c;
    EXPECT_TRUE(a);
    EXPECT_FALSE(b);
    EXPECT_TRUE(c);
}

TEST(CArchive, ReadPastTheEndThrowsAndLeavesValueAndPositionAsBefore)
{
    std::stringstream stream = binaryStream(bytes({0x34, 0x12, 0x7F}));
    CArchive ar(stream, CArchive::load);
    int value = -7;
    try {
        ar >> value;
        FAIL() << "reading 4 bytes from 3 did not throw";
    } catch (const CArchiveException& e) {
        EXPECT_STREQ(e.what(), "archive: read past the end of the stream");
    }
    EXPECT_EQ(value, -7);
    // The three bytes are still there for smaller values.
    short s = 0;
    unsigned char b = 0;
    ar >> s >> b;
    EXPECT_EQ(s, 0x1234);
    EXPECT_EQ(b, 0x7F);
    double d = 1.5;
    EXPECT_THROW(ar >> d, CArchiveException);
    EXPECT_EQ(d, 1.5);
}

TEST(CArchive, RawBlocksRoundTripAndAShortBlockThrows)
{
    std::stringstream stream = binaryStream();
    const char text[] = "raw block";
    {
        CArchive ar(stream, CArchive::store);
        ar.Write(text, sizeof text);
        ar.Write(nullptr, 0);
    }
    CArchive ar(stream, CArchive::load);
    char back[sizeof text] = {};
    ar.Read(back, sizeof back);
    EXPECT_STREQ(back, text);
    ar.Read(nullptr, 0);
    char more[1];
    EXPECT_THROW(ar.Read(more, 1), CArchiveException);
}

TEST(CArchive, WrongDirectionThrowsTheArchiveException)
{
    std::stringstream stream = binaryStream(bytes({1, 2, 3, 4}));
    CArchive loading(stream, CArchive::load);
    EXPECT_TRUE(loading.IsLoading());
    EXPECT_FALSE(loading.IsStoring());
    try {
        loading << 5;
        FAIL() << "storing into a loading archive did not throw";
    } catch (const CArchiveException& e) {
        EXPECT_STREQ(e.what(), "archive: storing into an archive opened for loading");
    }
    EXPECT_THROW(loading.Write("x", 1), CArchiveException);
    int first = 0;
    loading >> first; // the failed store consumed nothing
    EXPECT_EQ(first, 0x04030201);

    std::stringstream out = binaryStream();
    CArchive storing(out, CArchive::store);
    EXPECT_TRUE(storing.IsStoring());
    double d = 0;
    try {
        storing >> d;
        FAIL() << "loading from a storing archive did not throw";
    } catch (const CArchiveException& e) {
        EXPECT_STREQ(e.what(), "archive: loading from an archive opened for storing");
    }
    char c;
    EXPECT_THROW(storing.Read(&c, 1), CArchiveException);
    EXPECT_EQ(out.str(), "");
}

TEST(CArchive, StreamWithoutBufferFailsBothWays)
{
    std::iostream broken(nullptr);
    CArchive storing(broken, CArchive::store);
    try {
        storing << 1.0;
        FAIL() << "a failed write did not throw";
    } catch (const CArchiveException& e) {
        EXPECT_STREQ(e.what(), "archive: write to the stream failed");
    }
    CArchive loading(broken, CArchive::load);
    int i = 3;
    EXPECT_THROW(loading >> i, CArchiveException);
    EXPECT_EQ(i, 3);
}

TEST(CArchive, NullBufferOrBadModeIsAnInvalidArgument)
{
    std::stringstream stream = binaryStream("abc");
    CArchive storing(stream, CArchive::store);
    EXPECT_THROW(storing.Write(nullptr, 1), std::invalid_argument);
    CArchive loading(stream, CArchive::load);
    EXPECT_THROW(loading.Read(nullptr, 2), std::invalid_argument);
    EXPECT_THROW((CArchive{stream, static_cast<CArchive::Mode>(7)}), std::invalid_argument);
}
