#include "Solver.h"

#include "CProjection.h"
#include "CSuperpixel.h"
#include "CSuperpixelLayer.h"
#include "SolverRules.h"

namespace {

// One over-relaxed step; a node without any edge weight (md = 0, only possible
// for an isolated node) keeps its degree instead of becoming undefined.
inline float relax(float u, float md, float rhs, float out, float aOmega, float oneMinusOmega) {
  if (md == 0.0f) return u;
  float v = oneMinusOmega * u + (aOmega / md) * (rhs - out);
  CProjection::interval(&v, 0.0f, 1.0f);
  return v;
}

void sweepPixels(CSuperpixelLayer& aLayer, CMatrix<float>& aConf, CTensor<float>& aLabels,
                 const CMatrix<float>& aWeight, float aAlpha, float aOmega, int iz) {
  const float oneMinusAlpha = 1.0f - aAlpha;
  const float oneMinusOmega = 1.0f - aOmega;
  float out = 0.0f;
  float md = 0.0f;
  for (CSuperpixel* node : aLayer.getSP()) {
    const int x = static_cast<int>(node->getX());
    const int y = static_cast<int>(node->getY());
    node->computeDiffusionFlow(&out, &md, iz);
    const float c = aConf(x, y) == 1.0f ? 1.0f : 0.0f;
    const float w = aWeight(x, y);
    out = oneMinusAlpha * out;
    md = aAlpha * w * c + oneMinusAlpha * md;
    const float rhs = w * aAlpha * c * aLabels(x, y, iz);
    node->setValue(relax(node->getValue(iz), md, rhs, out, aOmega, oneMinusOmega), iz);
  }
}

void sweepSuperpixels(CSuperpixelLayer& aLayer, float aOmega, int iz) {
  const float oneMinusOmega = 1.0f - aOmega;
  float out = 0.0f;
  float md = 0.0f;
  for (CSuperpixel* node : aLayer.getSP()) {
    node->computeDiffusionFlow(&out, &md, iz);
    node->setValue(relax(node->getValue(iz), md, 0.0f, out, aOmega, oneMinusOmega), iz);
  }
}

}  // namespace

void solveSegmentation_SOR(CHierarchy& sLabImg, CMatrix<float>& aConf, CTensor<float>& aLabels,
                           const CMatrix<float>& aWeight, float aAlpha, float aOmega, int maxiter) {
  CTensor<float> tmp_4diffusivities(aLabels.xSize(), aLabels.ySize(), aLabels.zSize());
  const int layers = sLabImg.size();
  CSuperpixelLayer& pixels = *sLabImg.getLayer(0);
  const int labelCount = aLabels.zSize();
  for (int iter = 0; iter < maxiter; iter++) {
    pixels.convertToImage(tmp_4diffusivities);
    pixels.computeDiffusivitiesNeighbours_fl(tmp_4diffusivities);
    for (int l = 1; l < layers; l++) {
      sLabImg.getLayer(l)->computeDiffusivitiesNeighbours();
      sLabImg.getLayer(l)->computeDiffusivitiesChildren();
    }
    for (int inner = 0; inner < NSolverRules::kInnerIterations; inner++) {
      for (int iz = 0; iz < labelCount; iz++) {
        sweepPixels(pixels, aConf, aLabels, aWeight, aAlpha, aOmega, iz);
        for (int l = 1; l < layers; l++) sweepSuperpixels(*sLabImg.getLayer(l), aOmega, iz);
      }
      for (int l = 0; l < layers; l++) sLabImg.getLayer(l)->normalize();
    }
  }
}
