// libFuzzer target: the TSPLIB reader on arbitrary text must either throw its own error or return
// an instance whose coordinates are finite and whose distance matrix is square and symmetric.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tools/vorn/tsplib/tsplibfile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    tsplib::Instance instance;
    try {
        instance = tsplib::Read(in);
    } catch (const tsplib::TsplibError&) {
        return 0;
    }
    const int n = instance.Size();
    if (n < 1 || n > tsplib::kMaxDimension || instance.y.size() != instance.x.size())
        std::abort();
    for (int i = 0; i < n; ++i)
        if (!std::isfinite(instance.x[i]) || !std::isfinite(instance.y[i]))
            std::abort();
    if (n <= 64) {
        const TMatrix<double> d = tsplib::Distances(instance, false);
        if (d.Rows() != n || d.Cols() != n)
            std::abort();
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                if (d(i, j) != d(j, i))
                    std::abort();
    }
    return 0;
}
