#include "CSuperpixelLayer.h"

#include <algorithm>
#include <string>
#include <unordered_map>

#include "CErrors.h"
#include "CFilter.h"
#include "SolverRules.h"

float mDistRelaxationFac = 0.0f;

float diffusivity(const CVector<float>& aVec1, const CVector<float>& aVec2) {
  float sum = 0.0f;
  for (int k = 0; k < aVec1.size(); k++) {
    const float d = aVec1(k) - aVec2(k);
    sum += d * d;
  }
  return CSuperpixelLayer::diffusivity_fl(sum);
}

float distFCT(float dist) { return NSolverRules::spatialFactor(dist, mDistRelaxationFac); }

void getZVector(const CTensor<float>& aTensor, int ix, int iy, CVector<float>& vec) {
  const int z = aTensor.zSize();
  if (vec.size() != z) vec.setSize(z);
  for (int k = 0; k < z; k++) vec(k) = aTensor(ix, iy, k);
}

// A colour that is not 0..255 per channel cannot name a region.
int segmentColourKey(const CTensor<float>& aSeg, int ix, int iy) {
  if (ix < 0 || iy < 0 || ix >= aSeg.xSize() || iy >= aSeg.ySize())
    throw EFileError("segmentation image", "does not cover pixel (" + std::to_string(ix) + ", " +
                                               std::to_string(iy) + ")");
  int key = 0;
  for (int k = 2; k >= 0; k--) {
    const float value = aSeg(ix, iy, k);
    if (!(value > -1.0f && value < 256.0f))
      throw EFileError("segmentation image", "colour value " + std::to_string(value) + " outside 0..255 at pixel (" +
                                                 std::to_string(ix) + ", " + std::to_string(iy) + ")");
    key = key * 256 + static_cast<int>(value);
  }
  return key;
}

namespace {

// Channel vector of aImage at the first leaf of aNode.
void getLeafColour(const CTensor<float>& aImage, const CSuperpixel* aNode, CVector<float>& aColour) {
  getZVector(aImage, static_cast<int>(aNode->getLeafX()), static_cast<int>(aNode->getLeafY()), aColour);
}

}  // namespace

CSuperpixelLayer::CSuperpixelLayer(int aXSize, int aYSize) {
  mDistRelaxationFac = NSolverRules::distanceRelaxation(aXSize, aYSize);
}

CSuperpixel* CSuperpixelLayer::addSP() {
  CSuperpixel* sp = &mNodes.emplace_back();
  sLayer.push_back(sp);
  return sp;
}

void CSuperpixelLayer::createSP_fl(const CTensor<float>& aTensor) {
  const int width = aTensor.xSize();
  const int height = aTensor.ySize();
  const int channels = aTensor.zSize();
  sLayer.reserve(sLayer.size() + static_cast<size_t>(std::max(width * height, 0)));
  CVector<float> values(channels);
  int iz = 0;
  for (int iy = 0; iy < height; iy++)
    for (int ix = 0; ix < width; ix++) {
      CSuperpixel* sp = addSP();
      sp->setX(static_cast<float>(ix));
      sp->setY(static_cast<float>(iy));
      for (int k = 0; k < channels; k++) values(k) = aTensor(ix, iy, k);
      sp->setValues(values);
      sp->setLabel(iz);
      iz++;
    }
}

void CSuperpixelLayer::setSPNeighbours_fl(const CTensor<float>& aTensor) {
  const int width = aTensor.xSize();
  const int height = aTensor.ySize();
  for (int iy = 0; iy < height; iy++)
    for (int ix = 0; ix < width; ix++) {
      const int i = iy * width + ix;
      CSuperpixel* sp = sLayer[i];
      sp->reserveNeighbours(static_cast<size_t>((iy > 0) + (ix > 0) + (iy < height - 1) + (ix < width - 1)));
      if (iy > 0) sp->addNeighbour(sLayer[i - width]);
      if (ix > 0) sp->addNeighbour(sLayer[i - 1]);
      if (iy < height - 1) sp->addNeighbour(sLayer[i + width]);
      if (ix < width - 1) sp->addNeighbour(sLayer[i + 1]);
    }
}

void CSuperpixelLayer::diffusivities_fl(const CTensor<float>& aTensor, CMatrix<float>& aResultX,
                                        CMatrix<float>& aResultY) {
  const int width = aTensor.xSize();
  const int height = aTensor.ySize();
  CMatrix<float> aGrad(width, height);
  CMatrix<float> aTemp(width, height);
  const CDerivative<float> aDerivative(3);
  aResultX.fill(0.0f);
  aResultY.fill(0.0f);
  for (int k = 0; k < aTensor.zSize(); k++) {
    aTensor.getMatrix(aTemp, k);
    // Horizontal edges: forward difference across, mean central y-derivative along.
    NFilter::filter(aTemp, aGrad, 1, aDerivative);
#pragma omp parallel for schedule(static)
    for (int y = 0; y < height; y++)
      for (int x = 0; x < width - 1; x++) {
        const float aGradX = aTemp(x + 1, y) - aTemp(x, y);
        const float aGradY = 0.5f * (aGrad(x, y) + aGrad(x + 1, y));
        aResultX(x, y) += aGradX * aGradX + aGradY * aGradY;
      }
    // Vertical edges: the same with the roles swapped.
    NFilter::filter(aTemp, aGrad, aDerivative, 1);
#pragma omp parallel for schedule(static)
    for (int y = 0; y < height - 1; y++)
      for (int x = 0; x < width; x++) {
        const float aGradX = 0.5f * (aGrad(x, y) + aGrad(x, y + 1));
        const float aGradY = aTemp(x, y + 1) - aTemp(x, y);
        aResultY(x, y) += aGradX * aGradX + aGradY * aGradY;
      }
  }
  const int aSize = width * height;
  float* resultX = aResultX.data();
  float* resultY = aResultY.data();
#pragma omp parallel for schedule(static)
  for (int i = 0; i < aSize; i++) {
    resultX[i] = diffusivity_fl(resultX[i]);
    resultY[i] = diffusivity_fl(resultY[i]);
  }
}

void CSuperpixelLayer::computeConstDiffusivitiesNeighbours_fl(const CTensor<float>& aIImage) {
  writeDiffusivitiesNeighbours_fl(aIImage, &CSuperpixel::setConstDiffusivityNeighbour);
}

void CSuperpixelLayer::computeDiffusivitiesNeighbours_fl(const CTensor<float>& aIImage) {
  writeDiffusivitiesNeighbours_fl(aIImage, &CSuperpixel::setDiffusivityNeighbour);
}

void CSuperpixelLayer::writeDiffusivitiesNeighbours_fl(const CTensor<float>& aIImage, CNeighbourSetter aSet) {
  CMatrix<float> GX(aIImage.xSize(), aIImage.ySize());
  CMatrix<float> GY(aIImage.xSize(), aIImage.ySize());
  diffusivities_fl(aIImage, GX, GY);
  for (CSuperpixel* sp : sLayer) {
    const int x1 = static_cast<int>(sp->getX());
    const int y1 = static_cast<int>(sp->getY());
    const std::vector<CSuperpixel*>& neighbours = sp->getNeighbours();
    for (int j = 0; j < static_cast<int>(neighbours.size()); j++) {
      const int x2 = static_cast<int>(neighbours[j]->getX());
      const int y2 = static_cast<int>(neighbours[j]->getY());
      // Independent tests: a neighbour differing in both coordinates would
      // end up with the y value.
      if (x1 < x2)
        (sp->*aSet)(GX(x1, y1), j);
      else if (x1 > x2)
        (sp->*aSet)(GX(x2, y1), j);
      if (y1 < y2)
        (sp->*aSet)(GY(x1, y1), j);
      else if (y1 > y2)
        (sp->*aSet)(GY(x1, y2), j);
    }
  }
}

void CSuperpixelLayer::createSPLayer(CSuperpixelLayer& SLayer2, const CTensor<float>& aSeg,
                                     const CTensor<float>& aImg) {
  if (aSeg.zSize() < 3) throw EFileError("segmentation image", "has fewer than three colour channels");
  const int labels = aImg.zSize();
  CVector<float> uniform(labels);
  for (int k = 0; k < labels; k++) uniform(k) = 1.0f / static_cast<float>(labels);
  // Colour key -> position of the node that owns the colour.
  std::unordered_map<int, int> mapValueToLabel1;
  int counter1 = 0;
  for (CSuperpixel* f : SLayer2.sLayer) {
    const int key = segmentColourKey(aSeg, static_cast<int>(f->getLeafX()), static_cast<int>(f->getLeafY()));
    const auto [entry, isNew] = mapValueToLabel1.try_emplace(key, counter1);
    CSuperpixel* parent = nullptr;
    if (isNew) {
      parent = addSP();
      parent->setValues(uniform);
      parent->setLabel(counter1);
      counter1++;
    } else {
      parent = sLayer[entry->second];
    }
    parent->addChild(f);
    f->setParent(parent);
    f->setDiffusivityParent(1.0f);
    f->setConstDiffusivityParent(1.0f);
  }
  computeCoordinatesSP();
}

void CSuperpixelLayer::setSPNeighbours(const CSuperpixelLayer& SLayer2) {
  for (const CSuperpixel* f : SLayer2.sLayer) {
    CSuperpixel* P = f->getParent();
    const int p = P->getLabel();
    for (const CSuperpixel* g : f->getNeighbours()) {
      CSuperpixel* Q = g->getParent();
      const int q = Q->getLabel();
      if (q < 0 || q == p) continue;
      const std::vector<CSuperpixel*>& known = P->getNeighbours();
      if (std::find(known.begin(), known.end(), Q) == known.end()) P->addNeighbour(Q);
    }
  }
}

void CSuperpixelLayer::addNonLocalSPNeighbours() {
  // Collect for all nodes first, so only adjacent neighbours are walked.
  std::vector<std::vector<int>> toBeAdded(sLayer.size());
  for (size_t i = 0; i < sLayer.size(); i++) {
    const CSuperpixel* A = sLayer[i];
    const int a = A->getLabel();
    const std::vector<CSuperpixel*>& adjacent = A->getNeighbours();
    for (const CSuperpixel* B : adjacent)
      for (const CSuperpixel* C : B->getNeighbours()) {
        const int c = C->getLabel();
        // A reaches itself through every neighbour that lists it back, and
        // keeps each of these self-links.
        if (c == a) {
          toBeAdded[i].push_back(c);
          continue;
        }
        const bool isAdjacent = std::any_of(adjacent.begin(), adjacent.end(),
                                            [c](const CSuperpixel* n) { return n->getLabel() == c; });
        if (!isAdjacent) toBeAdded[i].push_back(c);
      }
  }
  for (size_t i = 0; i < sLayer.size(); i++) {
    CSuperpixel* A = sLayer[i];
    for (const int c : toBeAdded[i]) {
      CSuperpixel* C = sLayer[c];
      A->addNeighbour(C);
      const float dx = C->getX() - A->getX();
      const float dy = C->getY() - A->getY();
      A->setDistance(std::sqrt(dx * dx + dy * dy), static_cast<int>(A->getNeighbours().size()) - 1);
    }
  }
}

void CSuperpixelLayer::computeCoordinatesSP() {
  for (CSuperpixel* sp : sLayer) sp->computeCoordinates();
}

void CSuperpixelLayer::computeConstDiffusivitiesNeighbours(const CTensor<float>& aIImage) {
  CVector<float> cA;
  CVector<float> cC;
  for (CSuperpixel* A : sLayer) {
    getLeafColour(aIImage, A, cA);
    const std::vector<CSuperpixel*>& neighbours = A->getNeighbours();
    for (int j = 0; j < static_cast<int>(neighbours.size()); j++) {
      getLeafColour(aIImage, neighbours[j], cC);
      A->setConstDiffusivityNeighbour(diffusivity(cA, cC) * distFCT(A->getDistance(j)), j);
    }
  }
}

void CSuperpixelLayer::computeConstDiffusivitiesChildren(const CTensor<float>& aIImage,
                                                         const CTensor<float>& aIImage1) {
  CVector<float> cP;
  CVector<float> cC;
  for (CSuperpixel* P : sLayer) {
    getLeafColour(aIImage, P, cP);
    const std::vector<CSuperpixel*>& children = P->getChildren();
    const float childCount = static_cast<float>(children.size());
    for (int j = 0; j < static_cast<int>(children.size()); j++) {
      getLeafColour(aIImage1, children[j], cC);
      const float w = diffusivity(cP, cC);
      // The pull of a parent toward its children grows with its size.
      children[j]->setConstDiffusivityParent(w);
      P->setConstDiffusivityChildren(w * childCount, j);
    }
  }
}

void CSuperpixelLayer::computeDiffusivitiesNeighbours() {
  for (CSuperpixel* A : sLayer) {
    const std::vector<CSuperpixel*>& neighbours = A->getNeighbours();
    for (int j = 0; j < static_cast<int>(neighbours.size()); j++)
      A->setDiffusivityNeighbour(diffusivity(A->getValues(), neighbours[j]->getValues()), j);
  }
}

void CSuperpixelLayer::computeDiffusivitiesChildren() {
  for (CSuperpixel* P : sLayer) {
    const std::vector<CSuperpixel*>& children = P->getChildren();
    for (int j = 0; j < static_cast<int>(children.size()); j++) {
      const float w = diffusivity(P->getValues(), children[j]->getValues());
      children[j]->setDiffusivityParent(w);
      P->setDiffusivityChildren(w, j);
    }
  }
}

void CSuperpixelLayer::normalize() {
  for (CSuperpixel* sp : sLayer) {
    const int n = sp->getValues().size();
    if (n == 0) continue;
    // A fixed n rounds of thresholding, not a convergence test.
    float mu = -1e10f;
    for (int round = 0; round < n; round++) {
      float sum = 0.0f;
      float count = 0.0f;
      for (int i = 0; i < n; i++) {
        const float v = sp->getValue(i);
        if (v > mu) {
          sum += v;
          count += 1.0f;
        }
      }
      mu = (sum - 1.0f) / count;
    }
    // max with the value first, so that a NaN threshold stays visible.
    for (int i = 0; i < n; i++) sp->setValue(std::max(sp->getValue(i) - mu, 0.0f), i);
  }
}

void CSuperpixelLayer::convertToImage(CTensor<float>& result) const {
  for (const CSuperpixel* sp : sLayer) sp->fill(result, sp->getValues());
}

void CSuperpixelLayer::distanceFunction(CMatrix<float>& aDistance) const {
  for (const CSuperpixel* sp : sLayer) {
    float mean = 0.0f;
    int counter = 0;
    sp->getLeafSum(&mean, &counter, aDistance);
    mean /= static_cast<float>(counter);
    sp->setLeafValue(mean, aDistance);
  }
}
