// Coarser layers, the assembled hierarchy and the layer read-out.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <string>

#include "CErrors.h"
#include "CHierarchy.h"

namespace {

using CColour = std::array<float, 3>;

float g(float aSquare) { return static_cast<float>(1.0 / std::sqrt(static_cast<double>(aSquare + 1e-5f))); }

// Squared distance of two vectors over the first one's length, in float.
template <class A, class B>
float squaredDifference(const A& a, const B& b, int aSize) {
  float sum = 0.0f;
  for (int k = 0; k < aSize; k++) sum += (a[k] - b[k]) * (a[k] - b[k]);
  return sum;
}

float colourWeight(const CColour& a, const CColour& b) { return g(squaredDifference(a, b, 3)); }

float valueWeight(const CSuperpixel* a, const CSuperpixel* b) {
  const CVector<float>& va = a->getValues();
  return g(squaredDifference(va, b->getValues(), va.size()));
}

float spatial(float aDistance, float aFactor) {
  return static_cast<float>(std::exp(-static_cast<double>(aDistance * aDistance / aFactor)));
}

float centreDistance(float x1, float y1, float x2, float y2) {
  const float dx = x2 - x1;
  const float dy = y2 - y1;
  return std::sqrt(dx * dx + dy * dy);
}

std::vector<int> labelsOf(const std::vector<CSuperpixel*>& aNodes) {
  std::vector<int> labels;
  for (const CSuperpixel* node : aNodes) labels.push_back(node->getLabel());
  return labels;
}

void paint(CTensor<float>& aSeg, int x, int y, const CColour& aColour) {
  for (int k = 0; k < 3; k++) aSeg(x, y, k) = aColour[k];
}

// Segmentation whose pixel (x, y) has the colour aPalette[aMap[y][x] - 'A'].
CTensor<float> segmentation(const std::vector<std::string>& aMap, const std::vector<CColour>& aPalette) {
  CTensor<float> seg(static_cast<int>(aMap[0].size()), static_cast<int>(aMap.size()), 3);
  for (int y = 0; y < seg.ySize(); y++)
    for (int x = 0; x < seg.xSize(); x++) paint(seg, x, y, aPalette[aMap[y][x] - 'A']);
  return seg;
}

std::string captureStderrOf(const std::function<void()>& aAction) {
  testing::internal::CaptureStderr();
  aAction();
  return testing::internal::GetCapturedStderr();
}

}  // namespace

// A 6x4 image with two segmentation levels:
//   layer 1 (seg1)        layer 2 (seg2)
//   R R G G B B           X X W W Z Z
//   R R G G B B           X X W W Z Z
//   Y Y Y K K K           W W W W Z Z
//   Y Y Y K K K           X W W W W W
// Layer 1 nodes come in the order R G B Y K. In layer 2, K goes wholly to W
// (its first pixel (3, 2) is W) and Y too, despite the X pixel below it; X
// and Z touch no pixel of each other but become adjacent through the
// non-local link R-B of layer 1.
class SmallHierarchy : public ::testing::Test {
protected:
  enum { R, G, B, Y, K };
  enum { X, W, Z };
  const std::vector<CColour> mColours1 = {{200, 0, 0}, {200, 3, 4}, {0, 0, 255}, {255, 255, 0}, {10, 10, 10}};
  const std::vector<CColour> mColours2 = {{50, 60, 70}, {50, 60, 71}, {90, 60, 70}};

  void SetUp() override {
    mLabels = CTensor<float>(6, 4, 2);
    CTensor<float> image(6, 4, 3);
    for (int y = 0; y < 4; y++)
      for (int x = 0; x < 6; x++) {
        mLabels(x, y, 0) = 0.1f * static_cast<float>(x + y);
        mLabels(x, y, 1) = 1.0f - 0.05f * static_cast<float>(x * y);
        paint(image, x, y, {10.0f * x, 20.0f * y, 7.0f});
      }
    mSegs.push_back(image);
    mSegs.push_back(segmentation({"AABBCC", "AABBCC", "DDDEEE", "DDDEEE"}, mColours1));
    mSegs.push_back(segmentation({"AABBCC", "AABBCC", "BBBBCC", "ABBBBB"}, mColours2));
    FLAG_distFunc = 0;
    mHierarchy = std::make_unique<CHierarchy>(mLabels, mSegs);
  }

  const std::vector<CSuperpixel*>& nodes(int aLayer) const { return mHierarchy->getLayer(aLayer)->getSP(); }
  CColour imageColour(const CSuperpixel* aPixel) const {
    const int x = static_cast<int>(aPixel->getX());
    const int y = static_cast<int>(aPixel->getY());
    return {mSegs[0](x, y, 0), mSegs[0](x, y, 1), mSegs[0](x, y, 2)};
  }

  CTensor<float> mLabels;
  std::vector<CTensor<float>> mSegs;
  std::unique_ptr<CHierarchy> mHierarchy;
};

TEST_F(SmallHierarchy, ShapeAndGlobals) {
  ASSERT_EQ(mHierarchy->size(), 3);
  EXPECT_EQ(mHierarchy->getLayer(0)->size(), 24);
  EXPECT_EQ(mHierarchy->getLayer(1)->size(), 5);
  EXPECT_EQ(mHierarchy->getLayer(2)->size(), 3);
  EXPECT_EQ(mDistRelaxationFac, 1.2f);
  EXPECT_EQ(FLAG_distFunc, 1);
  for (int l = 0; l < 3; l++)
    for (int i = 0; i < mHierarchy->getLayer(l)->size(); i++) EXPECT_EQ(nodes(l)[i]->getLabel(), i);
}

TEST_F(SmallHierarchy, ChildrenParentsAndCentres) {
  const std::vector<std::vector<int>> children1 = {
      {0, 1, 6, 7}, {2, 3, 8, 9}, {4, 5, 10, 11}, {12, 13, 14, 18, 19, 20}, {15, 16, 17, 21, 22, 23}};
  const float centres1[5][2] = {{0.5f, 0.5f}, {2.5f, 0.5f}, {4.5f, 0.5f}, {1.0f, 2.5f}, {4.0f, 2.5f}};
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(labelsOf(nodes(1)[i]->getChildren()), children1[i]) << "layer 1 node " << i;
    EXPECT_EQ(nodes(1)[i]->getX(), centres1[i][0]);
    EXPECT_EQ(nodes(1)[i]->getY(), centres1[i][1]);
    for (const CSuperpixel* child : nodes(1)[i]->getChildren()) EXPECT_EQ(child->getParent(), nodes(1)[i]);
    EXPECT_EQ(nodes(1)[i]->getValue(0), 0.5f);
    EXPECT_EQ(nodes(1)[i]->getValue(1), 0.5f);
  }
  EXPECT_EQ(labelsOf(nodes(2)[X]->getChildren()), (std::vector<int>{R}));
  EXPECT_EQ(labelsOf(nodes(2)[W]->getChildren()), (std::vector<int>{G, Y, K}));
  EXPECT_EQ(labelsOf(nodes(2)[Z]->getChildren()), (std::vector<int>{B}));
  EXPECT_EQ(nodes(2)[W]->getX(), 2.5f);
  EXPECT_EQ(nodes(2)[W]->getY(), (0.5f + 2.5f + 2.5f) / 3.0f);
  EXPECT_EQ(nodes(1)[K]->getParent(), nodes(2)[W]);
  for (const CSuperpixel* top : nodes(2)) {
    EXPECT_EQ(top->getParent(), nullptr);
    EXPECT_EQ(top->getDiffusivityParent(), 0.0f);
    EXPECT_EQ(top->getConstDiffusivityParent(), 0.0f);
  }
}

TEST_F(SmallHierarchy, AdjacentThenNonLocalNeighbours) {
  const std::vector<std::vector<int>> neighbours1 = {
      {G, Y, R, B, K, R, K},     {R, B, Y, K, G, G, G, G}, {G, K, R, B, Y, Y, B},
      {R, G, K, Y, B, Y, Y, B}, {G, Y, B, R, K, R, K, K}};
  const std::vector<int> adjacentCount = {2, 4, 2, 3, 3};
  for (int i = 0; i < 5; i++) {
    const CSuperpixel* node = nodes(1)[i];
    ASSERT_EQ(labelsOf(node->getNeighbours()), neighbours1[i]) << "layer 1 node " << i;
    for (size_t j = 0; j < neighbours1[i].size(); j++) {
      const CSuperpixel* other = node->getNeighbour(j);
      const float expected = static_cast<int>(j) < adjacentCount[i]
                                 ? 1.0f
                                 : centreDistance(node->getX(), node->getY(), other->getX(), other->getY());
      EXPECT_EQ(node->getDistance(j), expected) << i << " -> " << other->getLabel();
      EXPECT_EQ(node->getConstDistance(j), 1.0f);
    }
  }
  EXPECT_EQ(nodes(1)[R]->getDistance(3), 4.0f);
  EXPECT_EQ(nodes(1)[R]->getDistance(4), std::sqrt(16.25f));

  const std::vector<std::vector<int>> neighbours2 = {{W, Z, X, X}, {X, Z, W, W}, {W, X, Z, Z}};
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(labelsOf(nodes(2)[i]->getNeighbours()), neighbours2[i]) << "layer 2 node " << i;
    EXPECT_EQ(nodes(2)[i]->getDistance(), (std::vector<float>{1.0f, 1.0f, 0.0f, 0.0f}));
  }
}

TEST_F(SmallHierarchy, ConstantWeightsFromSegmentationColours) {
  const std::vector<std::vector<CColour>> colours = {{}, mColours1, mColours2};
  for (int l = 1; l < 3; l++)
    for (const CSuperpixel* node : nodes(l)) {
      const CColour& own = colours[l][node->getLabel()];
      for (size_t j = 0; j < node->getNeighbours().size(); j++) {
        const float expected = colourWeight(own, colours[l][node->getNeighbour(j)->getLabel()]) *
                               spatial(node->getDistance(j), 1.2f);
        EXPECT_EQ(node->getConstDiffusivityNeighbour(j), expected) << "layer " << l << " node " << node->getLabel();
      }
      const std::vector<CSuperpixel*>& children = node->getChildren();
      for (size_t j = 0; j < children.size(); j++) {
        const CColour childColour = l == 1 ? imageColour(children[j]) : colours[1][children[j]->getLabel()];
        const float w = colourWeight(own, childColour);
        EXPECT_EQ(children[j]->getConstDiffusivityParent(), w);
        EXPECT_EQ(node->getConstDiffusivityChildren(j), w * static_cast<float>(children.size()));
      }
    }
  EXPECT_NEAR(nodes(1)[R]->getConstDiffusivityNeighbour(0), 0.2f * std::exp(-1.0f / 1.2f), 1e-6f);
}

TEST_F(SmallHierarchy, ValueWeightsFromCurrentValues) {
  for (int l = 1; l < 3; l++)
    for (const CSuperpixel* node : nodes(l)) {
      for (size_t j = 0; j < node->getNeighbours().size(); j++)
        EXPECT_EQ(node->getDiffusivityNeighbour(j), g(0.0f));
      const std::vector<CSuperpixel*>& children = node->getChildren();
      for (size_t j = 0; j < children.size(); j++) {
        EXPECT_EQ(node->getDiffusivityChildren(j), valueWeight(node, children[j]));
        EXPECT_EQ(children[j]->getDiffusivityParent(), node->getDiffusivityChildren(j));
      }
    }
  EXPECT_NE(nodes(1)[Y]->getDiffusivityChildren(0), g(0.0f));

  nodes(1)[R]->setValue(1.0f, 0);
  nodes(1)[R]->setValue(0.0f, 1);
  mHierarchy->getLayer(1)->computeDiffusivitiesNeighbours();
  EXPECT_EQ(nodes(1)[R]->getDiffusivityNeighbour(0), valueWeight(nodes(1)[R], nodes(1)[G]));
  EXPECT_EQ(nodes(1)[G]->getDiffusivityNeighbour(0), nodes(1)[R]->getDiffusivityNeighbour(0));
  EXPECT_EQ(nodes(1)[R]->getDiffusivityNeighbour(2), g(0.0f));  // itself
}

TEST_F(SmallHierarchy, PixelLayerWeightsFromImageAndLabels) {
  CMatrix<float> imageX(6, 4), imageY(6, 4), labelX(6, 4), labelY(6, 4);
  CSuperpixelLayer::diffusivities_fl(mSegs[0], imageX, imageY);
  CSuperpixelLayer::diffusivities_fl(mLabels, labelX, labelY);
  const CSuperpixel* pixel = nodes(0)[8];  // (2, 1): up, left, down, right
  EXPECT_EQ(pixel->getConstDiffusivityNeighbour(0), imageY(2, 0));
  EXPECT_EQ(pixel->getConstDiffusivityNeighbour(1), imageX(1, 1));
  EXPECT_EQ(pixel->getConstDiffusivityNeighbour(2), imageY(2, 1));
  EXPECT_EQ(pixel->getConstDiffusivityNeighbour(3), imageX(2, 1));
  EXPECT_EQ(pixel->getDiffusivityNeighbour(1), labelX(1, 1));
  EXPECT_EQ(pixel->getDiffusivityNeighbour(2), labelY(2, 1));
  EXPECT_NE(imageX(2, 1), labelX(2, 1));
  EXPECT_EQ(pixel->getValue(1), mLabels(2, 1, 1));
}

TEST_F(SmallHierarchy, ReadOut) {
  CTensor<float> result(6, 4, 2, -1.0f);
  mHierarchy->getLayer(0)->convertToImage(result);
  for (int i = 0; i < result.size(); i++) EXPECT_EQ(result.data()[i], mLabels.data()[i]);

  nodes(2)[W]->setValue(0.25f, 0);
  CTensor<float> firstChannel(6, 4, 1, -1.0f);
  mHierarchy->getLayer(2)->convertToImage(firstChannel);
  const std::vector<std::string> top = {"XXWWZZ", "XXWWZZ", "WWWWWW", "WWWWWW"};
  for (int y = 0; y < 4; y++)
    for (int x = 0; x < 6; x++) EXPECT_EQ(firstChannel(x, y, 0), top[y][x] == 'W' ? 0.25f : 0.5f) << x << "," << y;

  // Per layer-1 region: (e - 1) / mean of e.
  CMatrix<float> weights(6, 4, 1.0f);
  weights(0, 0) = 2.0f;
  weights(1, 0) = 3.0f;
  weights(0, 1) = 4.0f;
  weights(1, 1) = 5.0f;
  mHierarchy->getLayer(1)->distanceFunction(weights);
  EXPECT_EQ(weights(0, 0), static_cast<float>(1.0 / 3.5));
  EXPECT_EQ(weights(1, 1), static_cast<float>(4.0 / 3.5));
  EXPECT_EQ(weights(2, 0), 0.0f);
  EXPECT_EQ(weights(5, 3), 0.0f);
}

TEST(Hierarchy, DistanceFunctionSpreadsOverSuperpixels) {
  const CTensor<float> labels(5, 1, 1, 1.0f);
  const std::vector<CTensor<float>> segs = {CTensor<float>(5, 1, 3, 0.0f),
                                            segmentation({"AAABB"}, {{1, 2, 3}, {4, 5, 6}})};
  const CHierarchy hierarchy(labels, segs);
  CMatrix<float> weights(5, 1, 1.0f);
  weights(1, 0) = 2.0f;
  weights(2, 0) = 3.0f;
  hierarchy.getLayer(1)->distanceFunction(weights);
  EXPECT_EQ(weights(0, 0), 0.0f);
  EXPECT_EQ(weights(1, 0), 0.5f);
  EXPECT_EQ(weights(2, 0), 1.0f);
  EXPECT_EQ(weights(3, 0), 0.0f);
  EXPECT_EQ(weights(4, 0), 0.0f);
}

TEST(Hierarchy, ChainOfThreeRegions) {
  const CTensor<float> labels(6, 1, 3, 0.0f);
  const CColour colours[3] = {{0, 0, 0}, {0, 0, 2}, {0, 0, 3}};
  const std::vector<CTensor<float>> segs = {CTensor<float>(6, 1, 3, 0.0f),
                                            segmentation({"AABBCC"}, {colours[0], colours[1], colours[2]})};
  const CHierarchy hierarchy(labels, segs);
  const std::vector<CSuperpixel*>& sp = hierarchy.getLayer(1)->getSP();
  ASSERT_EQ(sp.size(), 3u);
  EXPECT_EQ(labelsOf(sp[0]->getNeighbours()), (std::vector<int>{1, 0, 2}));
  EXPECT_EQ(sp[0]->getDistance(), (std::vector<float>{1.0f, 0.0f, 4.0f}));
  EXPECT_EQ(labelsOf(sp[1]->getNeighbours()), (std::vector<int>{0, 2, 1, 1}));
  EXPECT_EQ(sp[1]->getDistance(), (std::vector<float>{1.0f, 1.0f, 0.0f, 0.0f}));
  EXPECT_EQ(labelsOf(sp[2]->getNeighbours()), (std::vector<int>{1, 0, 2}));
  EXPECT_EQ(sp[2]->getDistance(), (std::vector<float>{1.0f, 4.0f, 0.0f}));
  EXPECT_EQ(labelsOf(sp[2]->getChildren()), (std::vector<int>{4, 5}));
  EXPECT_EQ(sp[2]->getX(), 4.5f);
  EXPECT_EQ(sp[0]->getValue(2), 1.0f / 3.0f);

  const float factor = static_cast<float>(0.2 * 6);
  EXPECT_EQ(sp[0]->getConstDiffusivityNeighbour(0), g(4.0f) * spatial(1.0f, factor));
  EXPECT_EQ(sp[0]->getConstDiffusivityNeighbour(1), g(0.0f));
  EXPECT_EQ(sp[0]->getConstDiffusivityNeighbour(2), g(9.0f) * spatial(4.0f, factor));
  EXPECT_EQ(sp[1]->getConstDiffusivityNeighbour(3), g(0.0f));
}

TEST(Hierarchy, RegionsAreIdentifiedByColourAlone) {
  const CTensor<float> labels(4, 2, 2, 0.5f);
  // Two separate A regions form one node; one colour everywhere gives a
  // single node that never gets a neighbour.
  const std::vector<CTensor<float>> segs = {CTensor<float>(4, 2, 3, 0.0f),
                                            segmentation({"ABBA", "ABBA"}, {{9, 9, 9}, {7, 7, 7}}),
                                            segmentation({"AAAA", "AAAA"}, {{1, 1, 1}})};
  const CHierarchy hierarchy(labels, segs);
  const std::vector<CSuperpixel*>& regions = hierarchy.getLayer(1)->getSP();
  ASSERT_EQ(regions.size(), 2u);
  EXPECT_EQ(labelsOf(regions[0]->getChildren()), (std::vector<int>{0, 3, 4, 7}));
  EXPECT_EQ(labelsOf(regions[0]->getNeighbours()), (std::vector<int>{1, 0}));
  EXPECT_EQ(labelsOf(regions[1]->getNeighbours()), (std::vector<int>{0, 1}));
  const std::vector<CSuperpixel*>& top = hierarchy.getLayer(2)->getSP();
  ASSERT_EQ(top.size(), 1u);
  EXPECT_EQ(top[0]->getChildren().size(), 2u);
  EXPECT_TRUE(top[0]->getNeighbours().empty());
}

TEST(Hierarchy, ChildWeightsScaleWithTheChildCount) {
  const CTensor<float> labels(2, 2, 1, 1.0f);
  const std::vector<CTensor<float>> segs = {CTensor<float>(2, 2, 3, 5.0f), CTensor<float>(2, 2, 3, 5.0f)};
  const CHierarchy hierarchy(labels, segs);
  const CSuperpixel* parent = hierarchy.getLayer(1)->getSP()[0];
  ASSERT_EQ(parent->getChildren().size(), 4u);
  for (int j = 0; j < 4; j++) {
    EXPECT_EQ(parent->getConstDiffusivityChildren(j), 4.0f * g(0.0f));
    EXPECT_EQ(parent->getChildren()[j]->getConstDiffusivityParent(), g(0.0f));
  }
  EXPECT_NEAR(parent->getConstDiffusivityChildren(0), 1264.91f, 0.01f);
}

TEST(Hierarchy, AdjacentWeightInAWorkingSizedImage) {
  const CTensor<float> labels(400, 300, 1, 1.0f);
  CTensor<float> seg(400, 300, 3, 0.0f);
  for (int y = 0; y < 300; y++)
    for (int x = 200; x < 400; x++) seg(x, y, 0) = 1.0f;
  CTensor<float> sameColours(400, 300, 3, 0.0f);
  const std::vector<CTensor<float>> segs = {sameColours, seg};
  CHierarchy hierarchy(labels, segs);
  CSuperpixelLayer* layer = hierarchy.getLayer(1);
  ASSERT_EQ(layer->size(), 2);
  // Repaint both regions alike: only the spatial factor remains.
  layer->computeConstDiffusivitiesNeighbours(sameColours);
  EXPECT_EQ(mDistRelaxationFac, 80.0f);
  const float weight = layer->getSP()[0]->getConstDiffusivityNeighbour(0);
  EXPECT_EQ(weight, g(0.0f) * spatial(1.0f, 80.0f));
  EXPECT_NEAR(weight, 316.2278f * std::exp(-1.0f / 80.0f), 1e-3f);
}

TEST(Hierarchy, PixelsOnly) {
  const CTensor<float> labels(3, 2, 2, 0.5f);
  const std::vector<CTensor<float>> segs = {CTensor<float>(3, 2, 1, 0.0f)};
  const CHierarchy hierarchy(labels, segs);
  ASSERT_EQ(hierarchy.size(), 1);
  for (const CSuperpixel* pixel : hierarchy.getLayer(0)->getSP()) {
    EXPECT_EQ(pixel->getParent(), nullptr);
    EXPECT_EQ(pixel->getConstDiffusivityParent(), 0.0f);
  }
}

TEST(Hierarchy, MissingLayers) {
  const CTensor<float> labels(3, 2, 2, 0.5f);
  const std::vector<CTensor<float>> none;
  const std::string err = captureStderrOf([&] { EXPECT_THROW(static_cast<void>(CHierarchy(labels, none)), CHierarchy::EMissingLayers); });
  EXPECT_EQ(err, "Exception EMissingLayers: 0 is too less layers\n");
}

TEST(Hierarchy, RejectsSegmentationsItCannotRead) {
  const CTensor<float> labels(3, 2, 2, 0.5f);
  const CTensor<float> image(3, 2, 3, 0.0f);
  struct Case {
    std::vector<CTensor<float>> segs;
    std::string message;
  };
  CTensor<float> outOfRange(3, 2, 3, 0.0f);
  outOfRange(2, 1, 1) = 256.0f;
  CTensor<float> notANumber(3, 2, 3, 0.0f);
  notANumber(0, 1, 2) = std::nanf("");
  const Case cases[] = {
      {{image, CTensor<float>(3, 3, 3, 0.0f)}, "Error: segmentation image 1: extents 3x3x3 differ"},
      {{CTensor<float>(2, 2, 3, 0.0f)}, "Error: segmentation image 0: extents 2x2x3 differ"},
      {{image, CTensor<float>(3, 2, 1, 0.0f)}, "Error: segmentation image 1: has fewer than three"},
      {{CTensor<float>(3, 2, 1, 0.0f), CTensor<float>(3, 2, 3, 0.0f)}, "Error: segmentation image 1: has more channels"},
      {{image, outOfRange}, "Error: segmentation image: colour value 256.000000 outside 0..255 at pixel (2, 1)"},
      {{image, notANumber}, "Error: segmentation image: colour value nan outside"},
  };
  for (const Case& c : cases) {
    const std::string err = captureStderrOf([&] { EXPECT_THROW(static_cast<void>(CHierarchy(labels, c.segs)), EFileError); });
    EXPECT_EQ(err.rfind(c.message, 0), 0u) << err;
  }
}
