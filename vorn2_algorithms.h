#pragma once
// Umbrella header of the Vorn2 algorithms library: includes every public header.

// Platform stand-ins and base types
#include "core/base/lbexception.h"
#include "core/base/vorn2_debug.h"
#include "core/base/vornexception.h"

// Numeric core
#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/lapack.h"
#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tpermutation.h"
#include "datalayer/algorithms/numeric/tvector.h"
