#include "distance.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/imageio/imageio.h"
#include "datalayer/algorithms/regions/zudetail.h"

namespace {

struct Options
{
    std::string mask;
    std::string metric;
    std::string out;
    int threshold = 128;
};

/// Grey value of an RGB pixel: the rounded luma 0.299 R + 0.587 G + 0.114 B.
int Grey(const std::uint8_t* rgb)
{
    return (299 * rgb[0] + 587 * rgb[1] + 114 * rgb[2] + 500) / 1000;
}

int RunDistance(const Options& options)
{
    ImageIO::RgbImage image;
    std::string error;
    if (!ImageIO::ReadImage(options.mask, image, &error)) {
        std::fprintf(stderr, "vorn distance: %s: %s\n", options.mask.c_str(), error.c_str());
        return 2;
    }
    if (image.width > 65535 || image.height > 65535) {
        std::fprintf(stderr,
                     "vorn distance: %s: %d x %d pixels; the transform takes at most 65535 per side\n",
                     options.mask.c_str(), image.width, image.height);
        return 2;
    }
    const std::size_t count = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
    std::vector<unsigned char> features(count);
    std::size_t featureCount = 0;
    for (std::size_t i = 0; i < count; ++i) {
        features[i] = Grey(&image.rgb[3 * i]) >= options.threshold ? 1 : 0;
        featureCount += features[i];
    }
    if (featureCount == 0) {
        std::fprintf(stderr, "vorn distance: %s: no pixel at or above the threshold %d\n",
                     options.mask.c_str(), options.threshold);
        return 1;
    }
    const int width = image.width;
    std::vector<unsigned short> distance(count);
    std::vector<unsigned int> scratch(count);
    unsigned short maximum = 0;
    DataLayer::zudetail::ComputeDistanceTransform(
        [&features, width](int x, int y) {
            return features[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + x] != 0;
        },
        static_cast<unsigned short>(image.width), static_cast<unsigned short>(image.height),
        options.metric[0], &maximum, distance.data(), scratch.data());
    std::printf("%s: %d x %d pixels, %zu feature pixels, metric %c, maximum distance %u\n",
                options.mask.c_str(), image.width, image.height, featureCount, options.metric[0],
                static_cast<unsigned>(maximum));
    if (!options.out.empty()) {
        if (!ImageIO::WriteGrey16Png(options.out, distance.data(), image.width, image.height, image.width,
                                     &error)) {
            std::fprintf(stderr, "vorn distance: %s: %s\n", options.out.c_str(), error.c_str());
            return 2;
        }
        std::printf("written %s\n", options.out.c_str());
    }
    return 0;
}

} // namespace

VornCommand AddDistanceCommand(CLI::App& app)
{
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "distance",
        "Distance of every pixel to the nearest feature pixel (grey value at or above the threshold)");
    sub->add_option("mask", options->mask,
                    "Picture whose bright pixels are the features (PNG, JPEG, BMP, TIFF)")
        ->required();
    sub->add_option("--metric", options->metric, "E (Euclidean, rounded), M (Manhattan) or C (chessboard)")
        ->required()
        ->check(CLI::IsMember({"E", "M", "C"}));
    sub->add_option("--out", options->out, "Write the distances as a 16-bit grey PNG");
    sub->add_option("--threshold", options->threshold,
                    "Grey value (luma, 0..255) from which a pixel is a feature")
        ->check(CLI::Range(0, 255))
        ->capture_default_str();
    return {sub, [options] { return RunDistance(*options); }};
}
