// Picture files: decoding and encoding a 5-megapixel 8-bit grey photograph of a calibration target
// (2592 x 1944, rendered with blur and noise) in the four formats, this library's ImageIO against
// OpenCV's imgcodecs on the same bytes. Decoding yields RGB on both sides (OpenCV: IMREAD_COLOR);
// encoding uses the same settings on both sides (PNG level 6, JPEG quality 95, TIFF LZW). OpenCV is
// limited to one thread. The encoded bytes are made outside the timed loops.
#include <benchmark/benchmark.h>
#include <cstdint>
#include <vector>

#include "core/imageio/imageio.h"
#include "targetrenderer.h"

#ifdef VORN2_HAVE_PEERS
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#endif

namespace {

using ImageIO::Format;

const TargetRender::RenderedTarget& photograph()
{
    static const TargetRender::RenderedTarget target = [] {
        TargetRender::TargetSettings s;
        s.width = 2592;
        s.height = 1944;
        s.columns = 20;
        s.rows = 20;
        s.spacing = 80;
        s.diameter = 24;
        s.tiltX = 15;
        s.tiltY = -10;
        s.blurSigma = 1;
        s.noiseSigma = 2;
        s.weakestContrast = 0.6;
        return TargetRender::RenderTarget(s);
    }();
    return target;
}

const std::vector<std::uint8_t>& encoded(Format format)
{
    static std::vector<std::uint8_t> files[4];
    std::vector<std::uint8_t>& bytes = files[static_cast<int>(format)];
    if (bytes.empty()) {
        const auto& p = photograph();
        ImageIO::EncodeGrey8(format, p.grey8.data(), p.width, p.height, p.width, bytes);
    }
    return bytes;
}

Format formatOf(const benchmark::State& state)
{
    return static_cast<Format>(state.range(0));
}

void BM_ImageIO_Decode(benchmark::State& state)
{
    const std::vector<std::uint8_t>& bytes = encoded(formatOf(state));
    ImageIO::RgbImage image;
    for (auto _ : state) {
        if (!ImageIO::DecodeImage(bytes.data(), bytes.size(), image))
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(image.rgb.data());
    }
    state.counters["bytes"] = double(bytes.size());
}

void BM_ImageIO_EncodeGrey8(benchmark::State& state)
{
    const auto& p = photograph();
    std::vector<std::uint8_t> bytes;
    for (auto _ : state) {
        if (!ImageIO::EncodeGrey8(formatOf(state), p.grey8.data(), p.width, p.height, p.width, bytes))
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(bytes.data());
    }
    state.counters["bytes"] = double(bytes.size());
}

#ifdef VORN2_HAVE_PEERS
const int kOpenCVThreads = [] {
    cv::setNumThreads(1);
    return 1;
}();

const char* extensionOf(Format format)
{
    switch (format) {
    case Format::Png:
        return ".png";
    case Format::Jpeg:
        return ".jpg";
    case Format::Bmp:
        return ".bmp";
    case Format::Tiff:
        return ".tiff";
    }
    return "";
}

void BM_ImageIO_OpenCVDecode(benchmark::State& state)
{
    const std::vector<std::uint8_t>& bytes = encoded(formatOf(state));
    const cv::Mat buffer(1, static_cast<int>(bytes.size()), CV_8UC1, const_cast<std::uint8_t*>(bytes.data()));
    cv::Mat image;
    for (auto _ : state) {
        image = cv::imdecode(buffer, cv::IMREAD_COLOR);
        if (image.empty())
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(image.data);
    }
}

void BM_ImageIO_OpenCVEncodeGrey8(benchmark::State& state)
{
    const auto& p = photograph();
    const cv::Mat image(p.height, p.width, CV_8UC1, const_cast<std::uint8_t*>(p.grey8.data()));
    const std::vector<int> params = {cv::IMWRITE_PNG_COMPRESSION,  6, cv::IMWRITE_JPEG_QUALITY, 95,
                                     cv::IMWRITE_TIFF_COMPRESSION, 5};
    std::vector<std::uint8_t> bytes;
    for (auto _ : state) {
        if (!cv::imencode(extensionOf(formatOf(state)), image, bytes, params))
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(bytes.data());
    }
    state.counters["bytes"] = double(bytes.size());
}
#endif

void formats(benchmark::internal::Benchmark* b)
{
    b->ArgName("format"); // 0 PNG, 1 JPEG, 2 BMP, 3 TIFF
    for (int f = 0; f < 4; ++f)
        b->Arg(f);
    b->Unit(benchmark::kMillisecond);
}

} // namespace

BENCHMARK(BM_ImageIO_Decode)->Apply(formats);
BENCHMARK(BM_ImageIO_EncodeGrey8)->Apply(formats);
#ifdef VORN2_HAVE_PEERS
BENCHMARK(BM_ImageIO_OpenCVDecode)->Apply(formats);
BENCHMARK(BM_ImageIO_OpenCVEncodeGrey8)->Apply(formats);
#endif
