// Hierarchical successive over-relaxation of the label degrees.
#pragma once

#include "CHierarchy.h"
#include "CMatrix.h"
#include "CTensor.h"

// Relaxes the degrees of every node of sLabImg in place: maxiter outer
// iterations, each refreshing the value-dependent weights and then running 10
// Gauss-Seidel passes over all labels (the layers of aLabels) and layers
// followed by the simplex projection of every node. Pixels whose confidence
// is exactly 1 are pulled toward aLabels with weight aAlpha * aWeight.
void solveSegmentation_SOR(CHierarchy& sLabImg, CMatrix<float>& aConf, CTensor<float>& aLabels,
                           const CMatrix<float>& aWeight, float aAlpha, float aOmega, int maxiter);
