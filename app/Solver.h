// Hierarchical successive over-relaxation of the label degrees.
#pragma once

#include "CHierarchy.h"
#include "CMatrix.h"
#include "CTensor.h"

// Number of labels relaxed by the solver, set by the driver.
extern int mLabNo;
// Per-pixel weight of the data term at the current level, set by the driver.
extern CMatrix<float> mweight;

// Relaxes the degrees of every node of sLabImg in place: maxiter outer
// iterations, each refreshing the value-dependent weights and then running 10
// Gauss-Seidel passes over all labels and layers followed by the simplex
// projection of every node. Pixels whose confidence is exactly 1 are pulled
// toward aLabels with weight aAlpha * mweight.
void solveSegmentation_SOR(CHierarchy& sLabImg, CMatrix<float>& aConf, CTensor<float>& aLabels, float aAlpha,
                           float aOmega, int maxiter);
