#pragma once
// DataLayer::zudetail::ComputeDistanceTransform: for every pixel of a width x height rectangle, the
// distance to the nearest feature pixel under the Euclidean ('E', rounded to the nearest integer),
// Manhattan ('M') or chessboard ('C') metric, in time linear in the number of pixels (the separable
// lower-envelope transform of Meijster, Roerdink and Hesselink). Pixels are addressed y * width + x.
//
// Ownership: stateless. Borrows `result` and `scratch` when the caller passes them; otherwise it
// allocates them, and the caller owns a result allocated here and frees it with delete[]. Any thread
// may call it; isFeature runs on the caller's thread.
//
// Decisions where the behaviour was open:
// - A width or height of 0 calls isFeature never, writes nothing and reports a maximum of 0; with a
//   null `result` the returned pointer is then a new, empty array (still freed with delete[]).
// - 'E' is computed in 32-bit arithmetic while width^2 + (width + 2 height)^2 stays below 2^31, and
//   in 64 bits beyond, where 32 bits could overflow; the values stay exact before the 16-bit cut.
// - If isFeature throws (an empty std::function throws std::bad_function_call), the arrays allocated
//   here are freed and the exception propagates; a caller's `result` may then be partly written.

#include <functional>

namespace DataLayer::zudetail {

/// Distance of every pixel to the nearest pixel where isFeature(x, y) holds. isFeature is called
/// once per pixel, column by column (x ascending, y ascending within a column). A pixel without any
/// feature in its column gets width + height + (distance to the nearest feature through the rows).
/// Output values are the low 16 bits of the distance; *maxDistance (if not null) receives the
/// largest output value. `result` and `scratch` (width * height values each) may be null.
/// Returns `result` (or the array allocated for it), or null for a metric other than 'E', 'M' and
/// 'C', in which case nothing is allocated, isFeature is not called and *maxDistance is unchanged.
unsigned short* ComputeDistanceTransform(std::function<bool(int, int)> isFeature, unsigned short width,
                                         unsigned short height, char metric, unsigned short* maxDistance,
                                         unsigned short* result, unsigned int* scratch);

} // namespace DataLayer::zudetail
