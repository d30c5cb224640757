#include "CSuperpixel.h"

#include <algorithm>
#include <cmath>

void CSuperpixel::reserveNeighbours(size_t aCount) {
  const size_t capacity = mNeighbours.size() + aCount;
  mNeighbours.reserve(capacity);
  mDistance.reserve(capacity);
  mConstDistance.reserve(capacity);
  mDiffusivitiesNeighbours.reserve(capacity);
  mConstDiffusivitiesNeighbours.reserve(capacity);
}

void CSuperpixel::removeNeighbour(int index) {
  mNeighbours.erase(mNeighbours.begin() + index);
  mDistance.erase(mDistance.begin() + index);
  mConstDistance.erase(mConstDistance.begin() + index);
  mDiffusivitiesNeighbours.erase(mDiffusivitiesNeighbours.begin() + index);
  mConstDiffusivitiesNeighbours.erase(mConstDiffusivitiesNeighbours.begin() + index);
}

void CSuperpixel::computeCoordinates() {
  float sumX = 0.0f;
  float sumY = 0.0f;
  for (const CSuperpixel* child : mChildren) {
    sumX += child->mx;
    sumY += child->my;
  }
  const float count = static_cast<float>(mChildren.size());
  mx = sumX / count;
  my = sumY / count;
}

void CSuperpixel::getLeafSum(float* mean, int* counter, const CMatrix<float>& aMatrix) const {
  if (!mChildren.empty()) {
    for (const CSuperpixel* child : mChildren) child->getLeafSum(mean, counter, aMatrix);
    return;
  }
  *mean += aMatrix(static_cast<int>(mx), static_cast<int>(my));
  *counter += 1;
}

void CSuperpixel::setLeafValue(float data, CMatrix<float>& aMatrix) const {
  if (!mChildren.empty()) {
    for (const CSuperpixel* child : mChildren) child->setLeafValue(data, aMatrix);
    return;
  }
  float& e = aMatrix(static_cast<int>(mx), static_cast<int>(my));
  // Shift by one, then divide; in double, as the weights were always made.
  e = static_cast<float>((static_cast<double>(e) - 1.0) / static_cast<double>(data));
}

void CSuperpixel::fill(CTensor<float>& aResult, const CVector<float>& aCol) const {
  if (!mChildren.empty()) {
    for (const CSuperpixel* child : mChildren) child->fill(aResult, aCol);
    return;
  }
  const int x = static_cast<int>(mx);
  const int y = static_cast<int>(my);
  for (int k = 0; k < aResult.zSize(); k++) aResult(x, y, k) = aCol(k);
}

float CSuperpixel::getLeafSize() const {
  if (mChildren.empty()) return 1.0f;
  float size = 0.0f;
  for (const CSuperpixel* child : mChildren) size += child->getLeafSize();
  return size;
}

float CSuperpixel::avrgEuclideanDist(const CSuperpixel* sp) const {
  const float dx = mx - sp->mx;
  const float dy = my - sp->my;
  return std::sqrt(dx * dx + dy * dy);
}

float CSuperpixel::minEuclideanDist(const CSuperpixel* sp) const {
  float minimum = 1e11f;
  for (const CSuperpixel* a : mChildren)
    for (const CSuperpixel* b : sp->mChildren) {
      const float dx = b->mx - a->mx;
      const float dy = b->my - a->my;
      minimum = std::min(minimum, dx * dx + dy * dy);
    }
  return std::sqrt(minimum);
}

void CSuperpixel::computeDiffusionFlow(float* out, float* in, int iz) const {
  float sumOut = 0.0f;
  float sumIn = 0.0f;
  for (size_t j = 0; j < mNeighbours.size(); j++) {
    const float g = mConstDiffusivitiesNeighbours[j] * mDiffusivitiesNeighbours[j];
    sumOut = sumOut - g * mNeighbours[j]->getValue(iz);
    sumIn = sumIn + g;
  }
  for (size_t j = 0; j < mChildren.size(); j++) {
    const float g = mConstDiffusivitiesChildren[j] * mDiffusivitiesChildren[j];
    sumOut = sumOut - g * mChildren[j]->getValue(iz);
    sumIn = sumIn + g;
  }
  // The parent weight always enters the diagonal; a node without parent
  // keeps both parent weights at 0.
  const float g = mConstDiffusivityParent * mDiffusivityParent;
  if (mParent != nullptr) sumOut = sumOut - g * mParent->getValue(iz);
  sumIn = sumIn + g;
  *out = sumOut;
  *in = sumIn;
}
