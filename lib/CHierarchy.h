// The stack of superpixel layers the solver works on: layer 0 holds one node
// per pixel, layer k one node per region of segmentation image k.
#pragma once

#include <iostream>
#include <memory>
#include <vector>

#include "CErrors.h"
#include "CSuperpixelLayer.h"
#include "CTensor.h"

class CHierarchy {
public:
  class EMissingLayers : public ETarnwickError {
  public:
    explicit EMissingLayers(int aNumber) {
      std::cerr << "Exception EMissingLayers: " << aNumber << " is too less layers" << std::endl;
    }
  };

  // aImg: label tensor of the working size, one channel per label (the pixel
  // layer's starting values). aSegs[0]: the image whose edges weight the
  // pixel layer; aSegs[k], k >= 1: colour-coded segmentation of layer k. All
  // of the working size. Throws EMissingLayers if aSegs is empty.
  CHierarchy(const CTensor<float>& aImg, const std::vector<CTensor<float>>& aSegs);
  CHierarchy(const CHierarchy&) = delete;
  CHierarchy& operator=(const CHierarchy&) = delete;

  // Layer k, 0 = pixels; no range check.
  CSuperpixelLayer* getLayer(int k) const { return sLayers[k].get(); }
  int size() const { return static_cast<int>(sLayers.size()); }

private:
  std::vector<std::unique_ptr<CSuperpixelLayer>> sLayers;
};
