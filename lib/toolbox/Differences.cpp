// Toolbox, not called by the labelling run: forward differences and their
// negative adjoint, the backward divergence, for variational models on images
// and label degrees.
#include "CUtility.h"
#include "TensorChecks.h"

using NTensorChecks::requireSameExtents;

namespace {

// The four difference operators take the input as a callable (x, y) -> value
// so that matrices and tensor layers share one implementation.
template <class Input>
void forwardX(const Input& aIn, CMatrix<float>& aResult) {
  const int width = aResult.xSize();
  const int height = aResult.ySize();
  if (width < 1) return;
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++) aResult(width - 1, y) = 0;
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width - 1; x++) aResult(x, y) = aIn(x + 1, y) - aIn(x, y);
}

template <class Input>
void forwardY(const Input& aIn, CMatrix<float>& aResult) {
  const int width = aResult.xSize();
  const int height = aResult.ySize();
  if (height < 1) return;
#pragma omp parallel for schedule(static)
  for (int x = 0; x < width; x++) aResult(x, height - 1) = 0;
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height - 1; y++)
    for (int x = 0; x < width; x++) aResult(x, y) = aIn(x, y + 1) - aIn(x, y);
}

// A single column has a zero gradient, so its adjoint divergence is zero too
// (the general boundary formula would read column -1).
template <class Input>
void backwardX(const Input& aIn, CMatrix<float>& aResult) {
  const int width = aResult.xSize();
  const int height = aResult.ySize();
  if (width < 1) return;
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++) {
    if (width == 1) {
      aResult(0, y) = 0;
    } else {
      aResult(0, y) = aIn(0, y);
      aResult(width - 1, y) = -aIn(width - 2, y);
    }
  }
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 1; x < width - 1; x++) aResult(x, y) = aIn(x, y) - aIn(x - 1, y);
}

template <class Input>
void backwardY(const Input& aIn, CMatrix<float>& aResult) {
  const int width = aResult.xSize();
  const int height = aResult.ySize();
  if (height < 1) return;
#pragma omp parallel for schedule(static)
  for (int x = 0; x < width; x++) {
    if (height == 1) {
      aResult(x, 0) = 0;
    } else {
      aResult(x, 0) = aIn(x, 0);
      aResult(x, height - 1) = -aIn(x, height - 2);
    }
  }
#pragma omp parallel for schedule(static)
  for (int y = 1; y < height - 1; y++)
    for (int x = 0; x < width; x++) aResult(x, y) = aIn(x, y) - aIn(x, y - 1);
}

auto matrixInput(const CMatrix<float>& aMatrix) {
  return [&aMatrix](int ax, int ay) { return aMatrix(ax, ay); };
}

auto layerInput(const CTensor<float>& aTensor, int az) {
  return [&aTensor, az](int ax, int ay) { return aTensor(ax, ay, az); };
}

}  // namespace

void CUtility::getGrad_forwardx(const CMatrix<float>& aMatrix, CMatrix<float>& aResultX) {
  requireSameExtents(aResultX, aMatrix.xSize(), aMatrix.ySize());
  forwardX(matrixInput(aMatrix), aResultX);
}

void CUtility::getGrad_forwardy(const CMatrix<float>& aMatrix, CMatrix<float>& aResultY) {
  requireSameExtents(aResultY, aMatrix.xSize(), aMatrix.ySize());
  forwardY(matrixInput(aMatrix), aResultY);
}

void CUtility::getDiv_backwardx(const CMatrix<float>& aMatrix, CMatrix<float>& aResultX) {
  requireSameExtents(aResultX, aMatrix.xSize(), aMatrix.ySize());
  backwardX(matrixInput(aMatrix), aResultX);
}

void CUtility::getDiv_backwardy(const CMatrix<float>& aMatrix, CMatrix<float>& aResultY) {
  requireSameExtents(aResultY, aMatrix.xSize(), aMatrix.ySize());
  backwardY(matrixInput(aMatrix), aResultY);
}

void CUtility::getGrad_forwardx(const CTensor<float>& aTensor, CMatrix<float>& aResultX, int z) {
  requireSameExtents(aResultX, aTensor.xSize(), aTensor.ySize());
  forwardX(layerInput(aTensor, z), aResultX);
}

void CUtility::getGrad_forwardy(const CTensor<float>& aTensor, CMatrix<float>& aResultY, int z) {
  requireSameExtents(aResultY, aTensor.xSize(), aTensor.ySize());
  forwardY(layerInput(aTensor, z), aResultY);
}

void CUtility::getDiv_backwardx(const CTensor<float>& aTensor, CMatrix<float>& aResultX, int z) {
  requireSameExtents(aResultX, aTensor.xSize(), aTensor.ySize());
  backwardX(layerInput(aTensor, z), aResultX);
}

void CUtility::getDiv_backwardy(const CTensor<float>& aTensor, CMatrix<float>& aResultY, int z) {
  requireSameExtents(aResultY, aTensor.xSize(), aTensor.ySize());
  backwardY(layerInput(aTensor, z), aResultY);
}

// The layers' forward differences are added up in layer order, which is the
// gradient of the layer sum; a tensor without layers has a zero gradient.
void CUtility::getGradient(const CTensor<float>& aTensor, CMatrix<float>& aResultX, CMatrix<float>& aResultY) {
  requireSameExtents(aResultX, aTensor.xSize(), aTensor.ySize());
  requireSameExtents(aResultY, aTensor.xSize(), aTensor.ySize());
  aResultX.fill(0);
  aResultY.fill(0);
  CMatrix<float> layerX(aTensor.xSize(), aTensor.ySize());
  CMatrix<float> layerY(aTensor.xSize(), aTensor.ySize());
  for (int z = 0; z < aTensor.zSize(); z++) {
    forwardX(layerInput(aTensor, z), layerX);
    forwardY(layerInput(aTensor, z), layerY);
    for (int i = 0; i < aResultX.size(); i++) {
      aResultX.data()[i] += layerX.data()[i];
      aResultY.data()[i] += layerY.data()[i];
    }
  }
}
