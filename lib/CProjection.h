// Projections of label degrees onto feasible sets: a scalar onto an interval,
// per-pixel label vectors onto the simplex or its corners, and pairs of
// vector fields onto (weighted) unit balls. All work in place.
#pragma once

#include "CMatrix.h"
#include "CTensor.h"

class CProjection {
public:
  CProjection() = delete;

  // Clamps *val into [a, b]; NaN stays NaN, and a > b always yields b.
  static void interval(float* val, float a, float b);
  // Per pixel: 1 for the strongest label (ties to the lowest index), 0 for
  // the others; a pixel without any degree above -1 becomes all zero.
  static void binary(CTensor<float>& aLabelFunction);
  // Per pixel: Euclidean projection onto the probability simplex.
  static void simplex(CTensor<float>& aTensor);

  // Toolbox the labelling run does not call (lib/toolbox/PivotSimplex.cpp,
  // BallProjections.cpp).
  // Per pixel: the simplex projection by random pivots; generators are seeded
  // per row, so the result does not depend on the number of threads.
  static void simplex_DSSC(CTensor<float>& aTensor);
  // Per pixel: scales the joint vector (p1, p2) over all layers into the unit ball.
  static void L2sphere_coupled(CTensor<float>& p1, CTensor<float>& p2);
  // As above with the norm weighted by Dx for p1 and Dy for p2.
  static void L2sphere_w_coupled(CTensor<float>& p1, CTensor<float>& p2, const CMatrix<float>& Dx,
                                 const CMatrix<float>& Dy);
  // Dykstra iteration projecting every pairwise label difference onto its
  // weighted unit ball; stops after aMaxIter iterations or once the largest
  // correction change falls below aTolerance.
  static void L2sphereIntersect_w_dykstra(CTensor<float>& p1, CTensor<float>& p2, const CMatrix<float>& Dx,
                                          const CMatrix<float>& Dy, int aMaxIter, int aTolerance);
};
