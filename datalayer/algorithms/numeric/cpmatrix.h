#pragma once
// DataLayer::CPMatrix: the permutation that lapack::qrp and the travelling salesman solver
// exchange. Same form and operations as TPermutation<int>; a freshly constructed CPMatrix of size n
// is the identity 0, 1, ..., n - 1 (which, as qrp's column flags, leaves only column 0 free).

#include "datalayer/algorithms/numeric/tpermutation.h"

namespace DataLayer {

class CPMatrix : public TPermutation<int>
{
public:
    using TPermutation<int>::TPermutation;
    CPMatrix() = default;
    CPMatrix(const TPermutation<int>& p) : TPermutation<int>(p) {}

    CPMatrix Inverse() const { return CPMatrix(TPermutation<int>::Inverse()); }
};

} // namespace DataLayer
