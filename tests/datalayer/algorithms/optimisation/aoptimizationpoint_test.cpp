#include <cstring>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "core/framework/carchive.h"
#include "datalayer/algorithms/optimisation/aoptimizationpoint.h"

using DataLayer::AOptimizationPoint;

namespace {

std::stringstream binaryStream(const std::string& content = {})
{
    return std::stringstream(content, std::ios::in | std::ios::out | std::ios::binary);
}

std::string store(AOptimizationPoint& point)
{
    std::stringstream stream = binaryStream();
    CArchive archive(stream, CArchive::store);
    point.Serialize(archive);
    return stream.str();
}

} // namespace

TEST(AOptimizationPoint, DefaultRecordWritesFlagMinusOneAndSixteenZeroBytes)
{
    AOptimizationPoint point;
    const std::string bytes = store(point);
    const std::string expected = std::string("\x01\xFF\xFF\xFF\xFF", 5) + std::string(16, '\0');
    EXPECT_EQ(bytes, expected);
}

TEST(AOptimizationPoint, SecondValueIsWrittenBeforeFirstValue)
{
    AOptimizationPoint point;
    point.flag = false;
    point.number = 0x01020304;
    point.firstValue = 1.5;
    point.secondValue = -2.25;
    const std::string bytes = store(point);
    ASSERT_EQ(bytes.size(), 21u);
    EXPECT_EQ(bytes[0], '\0');
    EXPECT_EQ(std::string(bytes, 1, 4), std::string("\x04\x03\x02\x01", 4));
    double atFive = 0.0;
    double atThirteen = 0.0;
    std::memcpy(&atFive, bytes.data() + 5, 8);
    std::memcpy(&atThirteen, bytes.data() + 13, 8);
    EXPECT_EQ(atFive, -2.25);
    EXPECT_EQ(atThirteen, 1.5);

    std::stringstream in = binaryStream(bytes);
    CArchive archive(in, CArchive::load);
    AOptimizationPoint back;
    back.Serialize(archive);
    EXPECT_FALSE(back.flag);
    EXPECT_EQ(back.number, 0x01020304);
    EXPECT_EQ(back.firstValue, 1.5);
    EXPECT_EQ(back.secondValue, -2.25);
}

TEST(AOptimizationPoint, AnyNonZeroFlagByteReadsTrueAndAShortArchiveThrows)
{
    std::string bytes = std::string(21, '\0');
    bytes[0] = '\x7F';
    std::stringstream in = binaryStream(bytes);
    CArchive archive(in, CArchive::load);
    AOptimizationPoint point;
    point.flag = false;
    point.Serialize(archive);
    EXPECT_TRUE(point.flag);
    EXPECT_EQ(point.number, 0);

    std::stringstream shortStream = binaryStream(std::string(20, '\0'));
    CArchive shortArchive(shortStream, CArchive::load);
    EXPECT_THROW(point.Serialize(shortArchive), CArchiveException);
}

TEST(AOptimizationPoint, CopyAndAssignmentTakeAllFourFields)
{
    AOptimizationPoint a;
    a.flag = false;
    a.number = 7;
    a.firstValue = 3.0;
    a.secondValue = 4.0;
    AOptimizationPoint b(a);
    AOptimizationPoint c;
    c = a;
    for (const AOptimizationPoint* p : {&b, &c}) {
        EXPECT_FALSE(p->flag);
        EXPECT_EQ(p->number, 7);
        EXPECT_EQ(p->firstValue, 3.0);
        EXPECT_EQ(p->secondValue, 4.0);
    }
}
