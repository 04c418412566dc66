#pragma once
// Umbrella header of the Vorn2 algorithms library: includes every public header.
// A test keeps this list complete; add each new public header here.

// Platform stand-ins and base types
#include "core/base/lbarray.h"
#include "core/base/lbexception.h"
#include "core/base/lbmatrix.h"
#include "core/base/lbvector.h"
#include "core/base/vorn2_debug.h"
#include "core/base/vornexception.h"
#include "core/framework/carchive.h"
#include "core/framework/carray.h"
#include "core/framework/cevent.h"
#include "core/framework/cpoint.h"
#include "core/framework/csize.h"
#include "core/framework/globalmemory.h"
#include "core/framework/ptinrect.h"
#include "core/imageio/imageio.h"
#include "core/logging/clogger.h"
#include "core/plexpool/inoncopyable.h"
#include "core/plexpool/lbcriticalsectionpolicy.h"
#include "core/plexpool/lbplexmanager.h"

// Numeric core
#include "datalayer/algorithms/numeric/cfnv1ahash.h"
#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/lapack.h"
#include "datalayer/algorithms/numeric/thashmap.h"
#include "datalayer/algorithms/numeric/thashmem.h"
#include "datalayer/algorithms/numeric/thashset.h"
#include "datalayer/algorithms/numeric/thashtable.h"
#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tpermutation.h"
#include "datalayer/algorithms/numeric/tvector.h"

// Optimisation
#include "datalayer/algorithms/optimisation/cdoptimaldesign.h"
#include "datalayer/algorithms/optimisation/clpsolver.h"
#include "datalayer/algorithms/optimisation/cnlsobjectivefunction.h"
#include "datalayer/algorithms/optimisation/cnlssolver.h"
#include "datalayer/algorithms/optimisation/ctspsolver.h"

// Geometry and transforms
#include "datalayer/algorithms/geometry/clineraster.h"
#include "datalayer/algorithms/geometry/ctrafo.h"
#include "datalayer/algorithms/geometry/ctriangle2d.h"
#include "datalayer/algorithms/geometry/kdtreevector.h"
#include "datalayer/algorithms/geometry/quaternion.h"
#include "datalayer/algorithms/geometry/rayellipsoidintersection.h"
#include "datalayer/algorithms/geometry/symsolvers.h"

// Curves and polynomials
#include "datalayer/algorithms/curves/cnaturalspline.h"
#include "datalayer/algorithms/curves/cpolynomial.h"
#include "datalayer/algorithms/curves/polynomial.h"

// Pixel regions
#include "datalayer/algorithms/regions/ccontourtracer.h"
#include "datalayer/algorithms/regions/cintegerpartition2d.h"
#include "datalayer/algorithms/regions/cpixelpolygon.h"
#include "datalayer/algorithms/regions/zudetail.h"

// Graphs
#include "datalayer/algorithms/codecs/any.h"
#include "datalayer/algorithms/graphs/cdigraph.h"
#include "datalayer/algorithms/graphs/cdisjointsets.h"
#include "datalayer/algorithms/graphs/graphcsr.h"
#include "datalayer/algorithms/graphs/graphworkspace.h"

// Calibration, with the plane point optimiser base it builds on
#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "datalayer/algorithms/calibration/ccalibrationpointfeaturedetect.h"
#include "datalayer/algorithms/calibration/ccalibrationpointintersection.h"
#include "datalayer/algorithms/calibration/icalibrationimage.h"
#include "datalayer/algorithms/calibration/icenterpixelcalculator.h"
#include "datalayer/algorithms/calibration/timage.h"
#include "datalayer/algorithms/optimisation/aoptimizationpoint.h"
#include "datalayer/algorithms/optimisation/coptimizeplanepointsbase.h"
