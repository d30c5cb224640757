// Superpixel nodes, the pixel layer, coarser layers and the assembled hierarchy.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <string>

#include "CErrors.h"
#include "CHierarchy.h"
#include "TestSupport.h"

namespace {

using CColour = std::array<float, 3>;
using CLabels = std::vector<int>;

// Total-variation diffusivity of a squared difference: float sum, double root.
float g(float aSquare) { return static_cast<float>(1.0 / std::sqrt(static_cast<double>(aSquare + 1e-5f))); }

// Spatial factor: the quotient in float, exp in double.
float spatial(float aDistance, float aFactor) {
  return static_cast<float>(std::exp(-static_cast<double>(aDistance * aDistance / aFactor)));
}

float colourWeight(const CColour& a, const CColour& b) {
  float sum = 0.0f;
  for (int k = 0; k < 3; k++) sum += (a[k] - b[k]) * (a[k] - b[k]);
  return g(sum);
}

CVector<float> vec(std::initializer_list<float> aValues) {
  CVector<float> v(static_cast<int>(aValues.size()));
  int i = 0;
  for (const float value : aValues) v(i++) = value;
  return v;
}

CLabels labelsOf(const std::vector<CSuperpixel*>& aNodes) {
  CLabels labels;
  for (const CSuperpixel* node : aNodes) labels.push_back(node->getLabel());
  return labels;
}

CTensor<float> tensor(int aXSize, int aYSize, int aZSize, const std::function<float(int, int, int)>& aValue) {
  CTensor<float> t(aXSize, aYSize, aZSize);
  for (int z = 0; z < aZSize; z++)
    for (int y = 0; y < aYSize; y++)
      for (int x = 0; x < aXSize; x++) t(x, y, z) = aValue(x, y, z);
  return t;
}

// Segmentation whose pixel (x, y) has the colour aPalette[aMap[y][x] - 'A'].
CTensor<float> segmentation(const std::vector<std::string>& aMap, const std::vector<CColour>& aPalette) {
  return tensor(static_cast<int>(aMap[0].size()), static_cast<int>(aMap.size()), 3,
                [&](int x, int y, int z) { return aPalette[aMap[y][x] - 'A'][z]; });
}

std::string stderrOf(const std::function<void()>& aAction) {
  testing::internal::CaptureStderr();
  aAction();
  return testing::internal::GetCapturedStderr();
}

}  // namespace

// A 2x2 image in two regions whose first children are not their first
// pixels, under a top node listing the right region first.
TEST(Superpixel, LeafWalksFollowTheChildLists) {
  CSuperpixel pixels[4], left, right, top;
  for (int i = 0; i < 4; i++) {
    pixels[i].setX(static_cast<float>(i % 2));
    pixels[i].setY(static_cast<float>(i / 2));
  }
  left.addChild(&pixels[2]);
  left.addChild(&pixels[0]);
  right.addChild(&pixels[3]);
  right.addChild(&pixels[1]);
  top.addChild(&right);
  top.addChild(&left);
  EXPECT_EQ(top.getLeafX(), 1.0f);  // pixel 3
  EXPECT_EQ(top.getLeafY(), 1.0f);

  CMatrix<float> weights = NTest::matrix(2, 2, {1, 2, 3, 6});
  float sum = 0.5f;
  int count = 1;
  top.getLeafSum(&sum, &count, weights);  // adds to what is there
  EXPECT_EQ(sum, 12.5f);
  EXPECT_EQ(count, 5);
  left.setLeafValue(2.0f, weights);
  EXPECT_EQ(NTest::values(weights), (std::vector<float>{0, 2, 1, 6}));
  // (e - 1) / data in double: differs from the float quotient here.
  CMatrix<float> one(1, 1, 0.1f);
  pixels[0].setLeafValue(3.0f, one);
  EXPECT_EQ(one(0, 0), static_cast<float>((static_cast<double>(0.1f) - 1.0) / 3.0));
}

// Removing a neighbour removes its entry from every parallel list, so the
// weights stay with their links.
TEST(Superpixel, RemovingANeighbourKeepsTheListsParallel) {
  CSuperpixel node, a, b, c;
  node.addNeighbour(&a);
  node.addNeighbour(&b);
  node.addNeighbour(&c);
  for (int j = 0; j < 3; j++) {
    node.setDistance(10.0f + j, j);
    node.setDiffusivityNeighbour(20.0f + j, j);
    node.setConstDiffusivityNeighbour(30.0f + j, j);
  }
  node.removeNeighbour(1);
  EXPECT_EQ(node.getNeighbours(), (std::vector<CSuperpixel*>{&a, &c}));
  EXPECT_EQ(node.getDistance(), (std::vector<float>{10.0f, 12.0f}));
  EXPECT_EQ(node.getConstDistance(), (std::vector<float>{1.0f, 1.0f}));
  EXPECT_EQ(node.getDiffusivityNeighbour(1), 22.0f);
  EXPECT_EQ(node.getConstDiffusivityNeighbour(1), 32.0f);
}

TEST(Superpixel, DiffusionFlowSumsEveryEdge) {
  CSuperpixel node, a, b, child, parent;
  a.setValues(vec({0.0f, 0.5f}));
  b.setValues(vec({0.0f, 0.25f}));
  child.setValues(vec({0.0f, 1.0f}));
  parent.setValues(vec({0.0f, 0.125f}));
  node.addNeighbour(&a);
  node.addNeighbour(&b);
  node.addChild(&child);
  node.setDiffusivityNeighbour(2.0f, 0);
  node.setConstDiffusivityNeighbour(3.0f, 0);
  node.setDiffusivityNeighbour(0.1f, 1);
  node.setConstDiffusivityNeighbour(7.0f, 1);
  node.setDiffusivityChildren(0.3f, 0);
  node.setConstDiffusivityChildren(5.0f, 0);
  node.setDiffusivityParent(0.7f);
  node.setConstDiffusivityParent(11.0f);
  const float expectIn = 3.0f * 2.0f + 7.0f * 0.1f + 5.0f * 0.3f + 11.0f * 0.7f;

  float out = 99.0f, in = 99.0f;
  node.computeDiffusionFlow(&out, &in, 0);
  EXPECT_EQ(out, 0.0f);
  EXPECT_EQ(in, expectIn);  // parent weight on the diagonal even without parent

  node.setParent(&parent);
  node.computeDiffusionFlow(&out, &in, 1);
  EXPECT_EQ(out, 0.0f - (3.0f * 2.0f) * 0.5f - (7.0f * 0.1f) * 0.25f - (5.0f * 0.3f) * 1.0f - (11.0f * 0.7f) * 0.125f);
  EXPECT_EQ(in, expectIn);
}

TEST(SuperpixelLayer, TheRelaxationFactorFollowsTheLastSizedLayer) {
  mDistRelaxationFac = -1.0f;
  const CSuperpixelLayer unsized;
  EXPECT_EQ(mDistRelaxationFac, -1.0f);
  const CSuperpixelLayer large(640, 480);
  EXPECT_EQ(mDistRelaxationFac, 128.0f);
  const CSuperpixelLayer small(80, 60);
  EXPECT_EQ(mDistRelaxationFac, 16.0f);
  // 0.2 * 9 in double rounds to 1.79999995f; in float it would be 1.80000007f.
  const CSuperpixelLayer tall(4, 9);
  EXPECT_EQ(mDistRelaxationFac, static_cast<float>(0.2 * 9));
  EXPECT_NE(mDistRelaxationFac, 0.2f * 9.0f);
}

TEST(PixelLayer, NeighboursUpLeftDownRightOnEveryShape) {
  struct Case {
    int width, height, node;
    CLabels neighbours;
  };
  const Case cases[] = {{3, 3, 4, {1, 3, 7, 5}}, {3, 3, 0, {3, 1}}, {3, 3, 5, {2, 4, 8}}, {3, 3, 8, {5, 7}},
                        {1, 1, 0, {}},           {1, 3, 1, {0, 2}}, {1, 3, 2, {1}},       {3, 1, 1, {0, 2}}};
  for (const Case& c : cases) {
    const CTensor<float> image(c.width, c.height, 2, 0.5f);
    CSuperpixelLayer layer(c.width, c.height);
    layer.createSP_fl(image);
    layer.setSPNeighbours_fl(image);
    const CSuperpixel* node = layer.getSP()[c.node];
    EXPECT_EQ(labelsOf(node->getNeighbours()), c.neighbours) << c.width << "x" << c.height << " node " << c.node;
    // Every edge of a constant image gets 1 / sqrt(epsilon); the value weights keep 1.
    layer.computeConstDiffusivitiesNeighbours_fl(image);
    for (size_t j = 0; j < c.neighbours.size(); j++) {
      EXPECT_EQ(node->getConstDiffusivityNeighbour(j), g(0.0f));
      EXPECT_EQ(node->getDiffusivityNeighbour(j), 1.0f);
    }
  }
  CSuperpixelLayer empty(0, 4);
  empty.createSP_fl(CTensor<float>(0, 4, 2));
  EXPECT_EQ(empty.size(), 0);
}

TEST(PixelLayer, StepEdgeDiffusivities) {
  // A step from 0 to 1 between columns 2 and 3: one channel in the edge
  // image, two in the labels, so the labels' squared gradients double.
  const auto step = [](int x, int, int) { return x >= 3 ? 1.0f : 0.0f; };
  const CHierarchy hierarchy(tensor(6, 4, 2, step), {tensor(6, 4, 1, step)});
  ASSERT_EQ(hierarchy.size(), 1);
  for (const CSuperpixel* node : hierarchy.getLayer(0)->getSP()) {
    EXPECT_EQ(node->getParent(), nullptr);
    EXPECT_EQ(node->getConstDiffusivityParent(), 0.0f);
    for (size_t j = 0; j < node->getNeighbours().size(); j++) {
      const CSuperpixel* other = node->getNeighbour(j);
      const int x = static_cast<int>(std::min(node->getX(), other->getX()));
      // Squared gradient: 1 across the step, 0.25 along the edges of columns 2 and 3.
      const float square = node->getY() == other->getY() ? (x == 2 ? 1.0f : 0.0f) : (x == 2 || x == 3 ? 0.25f : 0.0f);
      EXPECT_EQ(node->getConstDiffusivityNeighbour(j), g(square)) << node->getLabel() << " -> " << other->getLabel();
      EXPECT_EQ(node->getDiffusivityNeighbour(j), g(2.0f * square));
    }
  }
}

TEST(PixelLayer, EdgeGradientsAverageTheCentralDerivatives) {
  // f = x * y: the central derivatives (halved at the mirrored borders)
  // differ between the two pixels of every edge, and the edge takes their mean.
  const CTensor<float> product = tensor(3, 3, 1, [](int x, int y, int) { return static_cast<float>(x * y); });
  const float border[3] = {0.5f, 1.0f, 0.5f};
  CMatrix<float> resultX(3, 3), resultY(3, 3);
  CSuperpixelLayer::diffusivities_fl(product, resultX, resultY);
  for (int a = 0; a < 3; a++)
    for (int b = 0; b < 2; b++) {
      const float across = static_cast<float>(a);
      const float along = 0.5f * (b * border[a] + (b + 1) * border[a]);
      EXPECT_EQ(resultX(b, a), g(across * across + along * along)) << b << "," << a;
      EXPECT_EQ(resultY(a, b), g(along * along + across * across)) << a << "," << b;
    }
}

TEST(SuperpixelLayer, NormalizeProjectsOntoTheSimplex) {
  struct Case {
    CVector<float> in;
    std::vector<float> out;
  };
  const Case cases[] = {
      {vec({0.5f, 0.5f}), {0.5f, 0.5f}},
      {vec({2.0f, 0.0f}), {1.0f, 0.0f}},
      {vec({0.2f, 0.2f, 0.2f}), {1.0f / 3, 1.0f / 3, 1.0f / 3}},
      {vec({0.9f, 0.5f, 0.1f}), {0.7f, 0.3f, 0.0f}},
      {vec({-3.0f}), {1.0f}},
  };
  CSuperpixelLayer layer;
  for (const Case& c : cases) layer.addSP()->setValues(c.in);
  layer.normalize();
  for (size_t i = 0; i < std::size(cases); i++)
    for (size_t k = 0; k < cases[i].out.size(); k++)
      EXPECT_NEAR(layer.getSP()[i]->getValue(k), cases[i].out[k], 1e-6f) << "case " << i << " entry " << k;
  EXPECT_EQ(layer.getSP()[0]->getValue(0), 0.5f);

  // A NaN entry never passes the strict test, so the threshold comes from
  // the other entries; the NaN itself survives the clipping.
  CSuperpixelLayer withNaN;
  withNaN.addSP()->setValues(vec({0.5f, std::nanf("")}));
  withNaN.normalize();
  EXPECT_EQ(withNaN.getSP()[0]->getValue(0), 1.0f);
  EXPECT_TRUE(std::isnan(withNaN.getSP()[0]->getValue(1)));
}

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
    mLabels = tensor(6, 4, 2, [](int x, int y, int z) {
      return z == 0 ? 0.1f * static_cast<float>(x + y) : 1.0f - 0.05f * static_cast<float>(x * y);
    });
    const std::vector<CTensor<float>> segs = {
        tensor(6, 4, 3, [](int x, int y, int z) { return z == 0 ? 10.0f * x : z == 1 ? 20.0f * y : 7.0f; }),
        segmentation({"AABBCC", "AABBCC", "DDDEEE", "DDDEEE"}, mColours1),
        segmentation({"AABBCC", "AABBCC", "BBBBCC", "ABBBBB"}, mColours2)};
    mHierarchy = std::make_unique<CHierarchy>(mLabels, segs);
  }

  const std::vector<CSuperpixel*>& nodes(int aLayer) const { return mHierarchy->getLayer(aLayer)->getSP(); }
  // Colour of a node of layer aLayer in its own segmentation (layer 0: the image).
  CColour colour(int aLayer, const CSuperpixel* aNode) const {
    if (aLayer == 1) return mColours1[aNode->getLabel()];
    if (aLayer == 2) return mColours2[aNode->getLabel()];
    return {10.0f * aNode->getX(), 20.0f * aNode->getY(), 7.0f};
  }

  CTensor<float> mLabels;
  std::unique_ptr<CHierarchy> mHierarchy;
};

TEST_F(SmallHierarchy, NodesChildrenParentsAndCentres) {
  ASSERT_EQ(mHierarchy->size(), 3);
  EXPECT_EQ(mHierarchy->getLayer(0)->size(), 24);
  EXPECT_EQ(mDistRelaxationFac, 1.2f);
  const std::vector<std::vector<CLabels>> children = {
      {}, {{0, 1, 6, 7}, {2, 3, 8, 9}, {4, 5, 10, 11}, {12, 13, 14, 18, 19, 20}, {15, 16, 17, 21, 22, 23}}, {{R}, {G, Y, K}, {B}}};
  for (int l = 1; l < 3; l++) {
    ASSERT_EQ(mHierarchy->getLayer(l)->size(), static_cast<int>(children[l].size()));
    for (int i = 0; i < mHierarchy->getLayer(l)->size(); i++) {
      const CSuperpixel* node = nodes(l)[i];
      EXPECT_EQ(node->getLabel(), i);
      EXPECT_EQ(labelsOf(node->getChildren()), children[l][i]) << "layer " << l << " node " << i;
      for (const CSuperpixel* child : node->getChildren()) EXPECT_EQ(child->getParent(), node);
      EXPECT_EQ(node->getParent() == nullptr, l == 2);
      EXPECT_EQ(node->getValues().size(), 2);
      EXPECT_EQ(node->getValue(1), 0.5f);
    }
  }
  const float centres1[5][2] = {{0.5f, 0.5f}, {2.5f, 0.5f}, {4.5f, 0.5f}, {1.0f, 2.5f}, {4.0f, 2.5f}};
  for (int i = 0; i < 5; i++)
    EXPECT_TRUE(nodes(1)[i]->getX() == centres1[i][0] && nodes(1)[i]->getY() == centres1[i][1]) << "node " << i;
  EXPECT_EQ(nodes(2)[W]->getY(), (0.5f + 2.5f + 2.5f) / 3.0f);
  EXPECT_EQ(nodes(2)[X]->getConstDiffusivityParent(), 0.0f);
}

TEST_F(SmallHierarchy, AdjacentThenNonLocalNeighbours) {
  const std::vector<CLabels> neighbours1 = {
      {G, Y, R, B, K, R, K}, {R, B, Y, K, G, G, G, G}, {G, K, R, B, Y, Y, B}, {R, G, K, Y, B, Y, Y, B}, {G, Y, B, R, K, R, K, K}};
  const CLabels adjacentCount = {2, 4, 2, 3, 3};
  for (int i = 0; i < 5; i++) {
    const CSuperpixel* node = nodes(1)[i];
    ASSERT_EQ(labelsOf(node->getNeighbours()), neighbours1[i]) << "layer 1 node " << i;
    for (size_t j = 0; j < neighbours1[i].size(); j++) {
      const CSuperpixel* other = node->getNeighbour(j);
      const float dx = other->getX() - node->getX();
      const float dy = other->getY() - node->getY();
      const float expected = static_cast<int>(j) < adjacentCount[i] ? 1.0f : std::sqrt(dx * dx + dy * dy);
      EXPECT_EQ(node->getDistance(j), expected) << i << " -> " << other->getLabel();
      EXPECT_EQ(node->getConstDistance(j), 1.0f);
    }
  }
  EXPECT_EQ(nodes(1)[R]->getDistance(4), std::sqrt(16.25f));

  const std::vector<CLabels> neighbours2 = {{W, Z, X, X}, {X, Z, W, W}, {W, X, Z, Z}};
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(labelsOf(nodes(2)[i]->getNeighbours()), neighbours2[i]) << "layer 2 node " << i;
    EXPECT_EQ(nodes(2)[i]->getDistance(), (std::vector<float>{1.0f, 1.0f, 0.0f, 0.0f}));
  }
}

TEST_F(SmallHierarchy, WeightsFromSegmentationColoursAndValues) {
  for (int l = 1; l < 3; l++)
    for (const CSuperpixel* node : nodes(l)) {
      for (size_t j = 0; j < node->getNeighbours().size(); j++) {
        const CSuperpixel* other = node->getNeighbour(j);
        EXPECT_EQ(node->getConstDiffusivityNeighbour(j),
                  colourWeight(colour(l, node), colour(l, other)) * spatial(node->getDistance(j), 1.2f))
            << "layer " << l << " node " << node->getLabel();
        EXPECT_EQ(node->getDiffusivityNeighbour(j), g(0.0f));  // all values still uniform
      }
      const std::vector<CSuperpixel*>& children = node->getChildren();
      for (size_t j = 0; j < children.size(); j++) {
        const float w = colourWeight(colour(l, node), colour(l - 1, children[j]));
        EXPECT_EQ(children[j]->getConstDiffusivityParent(), w);
        EXPECT_EQ(node->getConstDiffusivityChildren(j), w * static_cast<float>(children.size()));
        const float d0 = node->getValue(0) - children[j]->getValue(0);
        const float d1 = node->getValue(1) - children[j]->getValue(1);
        EXPECT_EQ(node->getDiffusivityChildren(j), g(d0 * d0 + d1 * d1));
        EXPECT_EQ(children[j]->getDiffusivityParent(), node->getDiffusivityChildren(j));
      }
    }
  EXPECT_NEAR(nodes(1)[R]->getConstDiffusivityNeighbour(0), 0.2f * std::exp(-1.0f / 1.2f), 1e-6f);

  nodes(1)[R]->setValue(1.0f, 0);
  nodes(1)[R]->setValue(0.0f, 1);
  mHierarchy->getLayer(1)->computeDiffusivitiesNeighbours();
  EXPECT_EQ(nodes(1)[R]->getDiffusivityNeighbour(0), g(0.5f));
  EXPECT_EQ(nodes(1)[G]->getDiffusivityNeighbour(0), g(0.5f));
  EXPECT_EQ(nodes(1)[R]->getDiffusivityNeighbour(2), g(0.0f));  // itself
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

  // Per layer-1 region (e - 1) / mean: R carries 1, 2, 3, 2, the rest 1.
  CMatrix<float> weights(6, 4, 1.0f);
  weights(1, 0) = 2.0f;
  weights(0, 1) = 3.0f;
  weights(1, 1) = 2.0f;
  mHierarchy->getLayer(1)->distanceFunction(weights);
  EXPECT_EQ(weights(0, 0), 0.0f);
  EXPECT_EQ(weights(1, 0), 0.5f);
  EXPECT_EQ(weights(0, 1), 1.0f);
  for (int y = 0; y < 4; y++)
    for (int x = 2; x < 6; x++) EXPECT_EQ(weights(x, y), 0.0f);
}

TEST(Hierarchy, ChainOfThreeRegions) {
  const std::vector<CTensor<float>> segs = {CTensor<float>(6, 1, 3, 0.0f),
                                            segmentation({"AABBCC"}, {{0, 0, 0}, {0, 0, 2}, {0, 0, 3}})};
  const CHierarchy hierarchy(CTensor<float>(6, 1, 3, 0.0f), segs);
  const std::vector<CSuperpixel*>& sp = hierarchy.getLayer(1)->getSP();
  ASSERT_EQ(sp.size(), 3u);
  EXPECT_EQ(labelsOf(sp[0]->getNeighbours()), (CLabels{1, 0, 2}));
  EXPECT_EQ(sp[0]->getDistance(), (std::vector<float>{1.0f, 0.0f, 4.0f}));
  EXPECT_EQ(labelsOf(sp[1]->getNeighbours()), (CLabels{0, 2, 1, 1}));
  EXPECT_EQ(sp[1]->getDistance(), (std::vector<float>{1.0f, 1.0f, 0.0f, 0.0f}));
  EXPECT_EQ(labelsOf(sp[2]->getNeighbours()), (CLabels{1, 0, 2}));
  EXPECT_EQ(sp[2]->getDistance(), (std::vector<float>{1.0f, 4.0f, 0.0f}));
}

TEST(Hierarchy, RegionsAreIdentifiedByColourAlone) {
  // Two separate A regions form one node; one colour everywhere gives a
  // single node that never gets a neighbour.
  const std::vector<CTensor<float>> segs = {CTensor<float>(4, 2, 3, 0.0f),
                                            segmentation({"ABBA", "ABBA"}, {{9, 9, 9}, {7, 7, 7}}),
                                            segmentation({"AAAA", "AAAA"}, {{1, 1, 1}})};
  const CHierarchy hierarchy(CTensor<float>(4, 2, 2, 0.5f), segs);
  const std::vector<CSuperpixel*>& regions = hierarchy.getLayer(1)->getSP();
  ASSERT_EQ(regions.size(), 2u);
  EXPECT_EQ(labelsOf(regions[0]->getChildren()), (CLabels{0, 3, 4, 7}));
  EXPECT_EQ(labelsOf(regions[0]->getNeighbours()), (CLabels{1, 0}));
  const std::vector<CSuperpixel*>& top = hierarchy.getLayer(2)->getSP();
  ASSERT_EQ(top.size(), 1u);
  EXPECT_EQ(top[0]->getChildren().size(), 2u);
  EXPECT_TRUE(top[0]->getNeighbours().empty());
}

TEST(Hierarchy, ConstantWeightsForEqualColours) {
  const CHierarchy four(CTensor<float>(2, 2, 1, 1.0f), {CTensor<float>(2, 2, 3, 5.0f), CTensor<float>(2, 2, 3, 5.0f)});
  const CSuperpixel* parent = four.getLayer(1)->getSP()[0];
  ASSERT_EQ(parent->getChildren().size(), 4u);
  for (int j = 0; j < 4; j++) {
    EXPECT_EQ(parent->getConstDiffusivityChildren(j), 4.0f * g(0.0f));
    EXPECT_EQ(parent->getChildren()[j]->getConstDiffusivityParent(), g(0.0f));
  }

  // Two halves of a working-sized image, repainted alike: only the spatial factor remains.
  const CTensor<float> sameColours(400, 300, 3, 0.0f);
  const CTensor<float> halves = tensor(400, 300, 3, [](int x, int, int z) { return z == 0 && x >= 200 ? 1.0f : 0.0f; });
  const CHierarchy hierarchy(CTensor<float>(400, 300, 1, 1.0f), {sameColours, halves});
  CSuperpixelLayer* layer = hierarchy.getLayer(1);
  ASSERT_EQ(layer->size(), 2);
  layer->computeConstDiffusivitiesNeighbours(sameColours);
  EXPECT_EQ(mDistRelaxationFac, 80.0f);
  const float weight = layer->getSP()[0]->getConstDiffusivityNeighbour(0);
  EXPECT_EQ(weight, g(0.0f) * spatial(1.0f, 80.0f));
  EXPECT_NEAR(weight, 316.2278f * std::exp(-1.0f / 80.0f), 1e-3f);
}

TEST(Hierarchy, RejectsMissingOrUnreadableSegmentations) {
  const CTensor<float> labels(3, 2, 2, 0.5f);
  EXPECT_EQ(stderrOf([&] { EXPECT_THROW(static_cast<void>(CHierarchy(labels, {})), CHierarchy::EMissingLayers); }),
            "Exception EMissingLayers: 0 is too less layers\n");

  const CTensor<float> image(3, 2, 3, 0.0f);
  CTensor<float> outOfRange(3, 2, 3, 0.0f);
  outOfRange(2, 1, 1) = 256.0f;
  CTensor<float> notANumber(3, 2, 3, 0.0f);
  notANumber(0, 1, 2) = std::nanf("");
  const std::pair<std::vector<CTensor<float>>, std::string> cases[] = {
      {{image, CTensor<float>(3, 3, 3, 0.0f)}, "Error: segmentation image 1: extents 3x3x3 differ"},
      {{CTensor<float>(2, 2, 3, 0.0f)}, "Error: segmentation image 0: extents 2x2x3 differ"},
      {{image, CTensor<float>(3, 2, 1, 0.0f)}, "Error: segmentation image 1: has fewer than three"},
      {{CTensor<float>(3, 2, 1, 0.0f), image}, "Error: segmentation image 1: has more channels"},
      {{image, outOfRange}, "Error: segmentation image: colour value 256.000000 outside 0..255 at pixel (2, 1)"},
      {{image, notANumber}, "Error: segmentation image: colour value nan outside"},
  };
  for (const auto& [segs, message] : cases) {
    const std::string err = stderrOf([&] { EXPECT_THROW(static_cast<void>(CHierarchy(labels, segs)), EFileError); });
    EXPECT_EQ(err.rfind(message, 0), 0u) << err;
  }
}
