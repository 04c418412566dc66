#pragma once
// Test helpers for the pixel regions: seeded random masks and brute-force references that share no
// code with the library (flood fills, plain 3 x 3 dilation, nearest-feature search).
#include <cstdint>
#include <random>
#include <vector>

namespace vorn2test {

/// A width x height byte mask, row-major, with `value` at pixels drawn with probability `density`.
std::vector<unsigned char> RandomMask(std::mt19937_64& engine, int width, int height, double density,
                                      unsigned char value = 1);

/// Pixels of the 8-connected component of the mask's set bytes (== value) that holds (x, y), as a
/// 0/1 mask.
std::vector<unsigned char> Component8(const std::vector<unsigned char>& mask, int width, int height, int x,
                                      int y, unsigned char value);

/// The component with its holes filled: every pixel that cannot be reached from beyond the mask's
/// border through 4-connected pixels outside the component.
std::vector<unsigned char> FillHoles(const std::vector<unsigned char>& component, int width, int height);

/// One pass of the 3 x 3 dilation of a 0/1 mask, clipped to the mask.
std::vector<unsigned char> Dilate3x3(const std::vector<unsigned char>& mask, int width, int height);

/// Distance of every pixel to the nearest feature, by exhaustive search, under 'E' (rounded as the
/// transform rounds, in single precision), 'M' or 'C'; without features, width + height + y.
std::vector<unsigned short> BruteForceDistance(const std::vector<unsigned char>& features, int width,
                                               int height, char metric);

} // namespace vorn2test
