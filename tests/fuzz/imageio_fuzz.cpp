// libFuzzer target: DecodeImage on arbitrary bytes must return, never crash, and leave a
// consistent image.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/imageio/imageio.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    ImageIO::RgbImage image;
    std::string error;
    const bool ok = ImageIO::DecodeImage(data, size, image, &error);
    if (ok !=
        (image.rgb.size() == std::size_t(image.width) * std::size_t(image.height) * 3 && image.width > 0))
        std::abort();
    if (!ok && (error.empty() || !image.rgb.empty()))
        std::abort();
    return 0;
}
