#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "core/framework/carchive.h"
#include "datalayer/algorithms/calibration/ccalibrationpointfeaturedetect.h"
#include "datalayer/algorithms/calibration/ccalibrationpointintersection.h"
#include "datalayer/algorithms/calibration/timage.h"

using DataLayer::CCalibrationPointFeatureDetect;
using DataLayer::CCalibrationPointIntersection;
using DataLayer::TImage;

namespace {

std::stringstream binaryStream(const std::string& content = {})
{
    return std::stringstream(content, std::ios::in | std::ios::out | std::ios::binary);
}

template <typename Record> std::string store(Record& record)
{
    std::stringstream stream = binaryStream();
    CArchive archive(stream, CArchive::store);
    record.Serialize(archive);
    return stream.str();
}

template <typename Record> Record load(const std::string& bytes)
{
    std::stringstream stream = binaryStream(bytes);
    CArchive archive(stream, CArchive::load);
    Record record;
    record.Serialize(archive);
    return record;
}

template <typename T> T at(const std::string& bytes, std::size_t offset)
{
    T value{};
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

CCalibrationPointFeatureDetect distinctFeature()
{
    CCalibrationPointFeatureDetect f;
    f.posX = 1.0;
    f.posY = 2.0;
    f.centerOffsetX = 3.0;
    f.centerOffsetY = 4.0;
    f.centerOffset = 5.0;
    f.sigmaColumns = 6.0;
    f.sigmaRows = 7.0;
    f.sigmaTotal = 8.0;
    f.gridX = -9;
    f.gridY = 10;
    f.radius = 11.0;
    f.rating = 12.0;
    return f;
}

} // namespace

TEST(CCalibrationPointFeatureDetect, DefaultHasZerosAndTheLowestFloatAsRadius)
{
    CCalibrationPointFeatureDetect f;
    EXPECT_EQ(std::bit_cast<std::uint64_t>(f.radius), 0xC7EFFFFFE0000000ull);
    const std::string bytes = store(f);
    ASSERT_EQ(bytes.size(), 88u);
    EXPECT_EQ(at<std::uint64_t>(bytes, 0), 0xC7EFFFFFE0000000ull);
    EXPECT_EQ(bytes.substr(8), std::string(80, '\0'));
}

TEST(CCalibrationPointFeatureDetect, ArchiveLayoutPutsRadiusAndRatingFirstAndGridLast)
{
    CCalibrationPointFeatureDetect f = distinctFeature();
    const std::string bytes = store(f);
    ASSERT_EQ(bytes.size(), 88u);
    const double expected[10] = {11, 12, 1, 2, 3, 4, 5, 6, 7, 8};
    for (int k = 0; k < 10; ++k)
        EXPECT_EQ(at<double>(bytes, 8 * static_cast<std::size_t>(k)), expected[k]) << "offset " << 8 * k;
    EXPECT_EQ(at<std::int32_t>(bytes, 80), -9);
    EXPECT_EQ(at<std::int32_t>(bytes, 84), 10);

    const CCalibrationPointFeatureDetect back = load<CCalibrationPointFeatureDetect>(bytes);
    EXPECT_EQ(store(const_cast<CCalibrationPointFeatureDetect&>(back)), bytes);
    EXPECT_EQ(back.posX, 1.0);
    EXPECT_EQ(back.sigmaTotal, 8.0);
    EXPECT_EQ(back.gridX, -9);
    EXPECT_EQ(back.rating, 12.0);

    EXPECT_THROW(load<CCalibrationPointFeatureDetect>(bytes.substr(0, 87)), CArchiveException);
}

TEST(CCalibrationPointFeatureDetect, CopyTakesEveryField)
{
    const CCalibrationPointFeatureDetect f = distinctFeature();
    CCalibrationPointFeatureDetect copy(f);
    CCalibrationPointFeatureDetect assigned;
    assigned = f;
    CCalibrationPointFeatureDetect original = f;
    EXPECT_EQ(store(copy), store(original));
    EXPECT_EQ(store(assigned), store(original));
}

TEST(CCalibrationPointFeatureDetect, QsortWithTheComparisonGivesAscendingRating)
{
    std::vector<CCalibrationPointFeatureDetect> records(7);
    const double ratings[7] = {5.0, -1.0, 3.0, 3.0, 100.0, 0.0, 2.5};
    for (int k = 0; k < 7; ++k) {
        records[static_cast<std::size_t>(k)].rating = ratings[k];
        records[static_cast<std::size_t>(k)].gridX = k;
    }
    std::qsort(records.data(), records.size(), sizeof(CCalibrationPointFeatureDetect),
               CCalibrationPointFeatureDetect::FeatureCmp_temporary);
    const double sorted[7] = {-1.0, 0.0, 2.5, 3.0, 3.0, 5.0, 100.0};
    for (int k = 0; k < 7; ++k)
        EXPECT_EQ(records[static_cast<std::size_t>(k)].rating, sorted[k]);

    CCalibrationPointFeatureDetect a;
    CCalibrationPointFeatureDetect b;
    a.rating = 1.0;
    b.rating = 1.0;
    EXPECT_EQ(CCalibrationPointFeatureDetect::FeatureCmp_temporary(&a, &b), 0);
    b.rating = 2.0;
    EXPECT_EQ(CCalibrationPointFeatureDetect::FeatureCmp_temporary(&a, &b), -1);
    EXPECT_EQ(CCalibrationPointFeatureDetect::FeatureCmp_temporary(&b, &a), 1);
}

TEST(CCalibrationPointFeatureDetect, ScaledCopyAndDifferenceSetOnlyPositionAndGrid)
{
    CCalibrationPointFeatureDetect a = distinctFeature();
    a.gridX = 3;
    a.gridY = -3;
    const CCalibrationPointFeatureDetect twice = DataLayer::detail::ScaledFeature(a, 2.0);
    EXPECT_EQ(twice.posX, 2.0);
    EXPECT_EQ(twice.posY, 4.0);
    EXPECT_EQ(twice.gridX, 6);
    EXPECT_EQ(twice.gridY, -6);
    EXPECT_EQ(twice.rating, 0.0);
    EXPECT_EQ(twice.radius, CCalibrationPointFeatureDetect().radius);
    const CCalibrationPointFeatureDetect half = DataLayer::detail::ScaledFeature(a, 0.5);
    EXPECT_EQ(half.gridX, 1); // truncation toward zero
    EXPECT_EQ(half.gridY, -1);

    CCalibrationPointFeatureDetect b;
    b.posX = 0.25;
    b.posY = 4.0;
    b.gridX = 5;
    b.gridY = -7;
    const CCalibrationPointFeatureDetect d = DataLayer::detail::FeatureDifference(a, b);
    EXPECT_EQ(d.posX, 0.75);
    EXPECT_EQ(d.posY, -2.0);
    EXPECT_EQ(d.gridX, -2);
    EXPECT_EQ(d.gridY, 4);
    EXPECT_EQ(d.centerOffset, 0.0);
    EXPECT_EQ(d.sigmaTotal, 0.0);
}

TEST(CCalibrationPointIntersection, ArchiveHoldsTheBaseThenSevenValuesThenTheIndex)
{
    CCalibrationPointIntersection p;
    const std::string defaults = store(p);
    ASSERT_EQ(defaults.size(), 81u);
    EXPECT_EQ(defaults.substr(0, 5), std::string("\x01\xFF\xFF\xFF\xFF", 5));
    EXPECT_EQ(defaults.substr(5, 72), std::string(72, '\0'));
    EXPECT_EQ(at<std::int32_t>(defaults, 77), -1);

    int marker = 0;
    p.flag = false;
    p.number = 42;
    p.firstValue = 0.5;
    p.secondValue = 0.75;
    for (int k = 0; k < 7; ++k)
        p.values[k] = 10.0 + k;
    p.index = 99;
    p.transientReference = &marker;
    const std::string bytes = store(p);
    ASSERT_EQ(bytes.size(), 81u);
    EXPECT_EQ(at<double>(bytes, 5), 0.75);
    EXPECT_EQ(at<double>(bytes, 13), 0.5);
    for (int k = 0; k < 7; ++k)
        EXPECT_EQ(at<double>(bytes, 21 + 8 * static_cast<std::size_t>(k)), 10.0 + k);
    EXPECT_EQ(at<std::int32_t>(bytes, 77), 99);

    std::stringstream in = binaryStream(bytes);
    CArchive archive(in, CArchive::load);
    CCalibrationPointIntersection back;
    back.transientReference = &marker;
    back.Serialize(archive);
    EXPECT_EQ(back.transientReference, nullptr);
    EXPECT_FALSE(back.flag);
    EXPECT_EQ(back.number, 42);
    EXPECT_EQ(back.firstValue, 0.5);
    EXPECT_EQ(back.secondValue, 0.75);
    EXPECT_EQ(back.values[6], 16.0);
    EXPECT_EQ(back.index, 99);

    CCalibrationPointIntersection copy(p);
    CCalibrationPointIntersection assigned;
    assigned = p;
    EXPECT_EQ(copy.transientReference, &marker);
    EXPECT_EQ(assigned.transientReference, &marker);
    EXPECT_EQ(store(copy), bytes);
    EXPECT_EQ(store(assigned), bytes);

    EXPECT_THROW(load<CCalibrationPointIntersection>(bytes.substr(0, 80)), CArchiveException);
}

TEST(TImage, EmptySizedCopiedAndMovedImages)
{
    TImage<unsigned int> empty;
    EXPECT_EQ(empty.width, 0u);
    EXPECT_EQ(empty.height, 0u);
    EXPECT_EQ(empty.data, nullptr);
    TImage<unsigned int> zeroWide(0, 5);
    EXPECT_EQ(zeroWide.data, nullptr);
    EXPECT_EQ(zeroWide.height, 0u);

    TImage<unsigned char> image(3, 2);
    ASSERT_NE(image.data, nullptr);
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(image.data[k], 0);
    image.data[1 * 3 + 2] = 7; // (x 2, y 1)

    TImage<unsigned char> copy(image);
    copy.data[0] = 9;
    EXPECT_EQ(image.data[0], 0); // deep
    EXPECT_EQ(copy.data[5], 7);

    const unsigned char* block = image.data;
    TImage<unsigned char> moved(std::move(image));
    EXPECT_EQ(moved.data, block);
    EXPECT_EQ(image.data, nullptr);
    EXPECT_EQ(image.width, 0u);
    TImage<unsigned char> assigned;
    assigned = std::move(moved);
    EXPECT_EQ(assigned.data, block);
    EXPECT_EQ(assigned.width, 3u);
    EXPECT_EQ(assigned.height, 2u);
    assigned = copy;
    EXPECT_EQ(assigned.data[0], 9);
    EXPECT_NE(assigned.data, copy.data);
}
