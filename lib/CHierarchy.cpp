#include "CHierarchy.h"

#include <string>

#include "CErrors.h"

namespace {

std::string extents(const CTensor<float>& aTensor) {
  return std::to_string(aTensor.xSize()) + "x" + std::to_string(aTensor.ySize()) + "x" +
         std::to_string(aTensor.zSize());
}

// Every image must cover the pixel layer; a segmentation needs three colour
// channels, and no more channels than the finer image its children's colours
// are compared with.
void checkSegmentations(const CTensor<float>& aImg, const std::vector<CTensor<float>>& aSegs) {
  for (size_t k = 0; k < aSegs.size(); k++) {
    const std::string name = "segmentation image " + std::to_string(k);
    const CTensor<float>& seg = aSegs[k];
    if (seg.xSize() != aImg.xSize() || seg.ySize() != aImg.ySize())
      throw EFileError(name, "extents " + extents(seg) + " differ from the working size " +
                                 std::to_string(aImg.xSize()) + "x" + std::to_string(aImg.ySize()));
    if (k == 0) continue;
    if (seg.zSize() < 3) throw EFileError(name, "has fewer than three colour channels");
    if (seg.zSize() > aSegs[k - 1].zSize())
      throw EFileError(name, "has more channels than the finer image (" + extents(seg) + " over " +
                                 extents(aSegs[k - 1]) + ")");
  }
}

}  // namespace

CHierarchy::CHierarchy(const CTensor<float>& aImg, const std::vector<CTensor<float>>& aSegs) {
  if (aSegs.empty()) throw EMissingLayers(0);
  checkSegmentations(aImg, aSegs);
  FLAG_distFunc = 1;

  auto SLayer_fl = std::make_unique<CSuperpixelLayer>(aImg.xSize(), aImg.ySize());
  SLayer_fl->createSP_fl(aImg);
  SLayer_fl->setSPNeighbours_fl(aSegs[0]);
  SLayer_fl->computeConstDiffusivitiesNeighbours_fl(aSegs[0]);
  SLayer_fl->computeDiffusivitiesNeighbours_fl(aImg);
  sLayers.push_back(std::move(SLayer_fl));

  for (size_t k = 1; k < aSegs.size(); k++) {
    CSuperpixelLayer& finer = *sLayers.back();
    auto layer = std::make_unique<CSuperpixelLayer>(aImg.xSize(), aImg.ySize());
    layer->createSPLayer(finer, aSegs[k], aImg);
    layer->setSPNeighbours(finer);
    layer->addNonLocalSPNeighbours();
    layer->computeConstDiffusivitiesNeighbours(aSegs[k]);
    layer->computeConstDiffusivitiesChildren(aSegs[k], aSegs[k - 1]);
    layer->computeDiffusivitiesNeighbours();
    layer->computeDiffusivitiesChildren();
    sLayers.push_back(std::move(layer));
  }
}
