// Superpixel nodes and layers, the structure of an assembled hierarchy and its
// rejections. Weights, read-out and the solve are compared bit for bit with the
// flat hierarchy in test_flat.cpp and pinned by the whole runs in test_golden.cpp.
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

}  // namespace

// Removing a neighbour removes its entry from every parallel list, so the
// weights stay with their links.
TEST(Superpixel, RemovingANeighbourKeepsTheListsParallel) {
  CSuperpixel node, a, b, c;
  for (CSuperpixel* other : {&a, &b, &c}) node.addNeighbour(other);
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

TEST(SuperpixelLayer, TheRelaxationFactorFollowsTheLastSizedLayer) {
  mDistRelaxationFac = -1.0f;
  const CSuperpixelLayer unsized;
  EXPECT_EQ(mDistRelaxationFac, -1.0f);
  const CSuperpixelLayer large(640, 480);
  EXPECT_EQ(mDistRelaxationFac, 128.0f);
  // 0.2 * 9 in double rounds to 1.79999995f; in float it would be 1.80000007f.
  const CSuperpixelLayer tall(4, 9);
  EXPECT_EQ(mDistRelaxationFac, static_cast<float>(0.2 * 9));
  EXPECT_NE(mDistRelaxationFac, 0.2f * 9.0f);
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
TEST(Hierarchy, NodesChildrenCentresAndAdjacentThenNonLocalNeighbours) {
  enum { R, G, B, Y, K };
  enum { X, W, Z };
  const std::vector<CTensor<float>> segs = {
      tensor(6, 4, 3, [](int x, int y, int z) { return z == 0 ? 10.0f * x : z == 1 ? 20.0f * y : 7.0f; }),
      segmentation({"AABBCC", "AABBCC", "DDDEEE", "DDDEEE"},
                   {{200, 0, 0}, {200, 3, 4}, {0, 0, 255}, {255, 255, 0}, {10, 10, 10}}),
      segmentation({"AABBCC", "AABBCC", "BBBBCC", "ABBBBB"}, {{50, 60, 70}, {50, 60, 71}, {90, 60, 70}})};
  const CHierarchy hierarchy(CTensor<float>(6, 4, 2, 0.25f), segs);
  const auto nodes = [&](int aLayer) { return hierarchy.getLayer(aLayer)->getSP(); };
  ASSERT_EQ(hierarchy.size(), 3);
  EXPECT_EQ(hierarchy.getLayer(0)->size(), 24);
  EXPECT_EQ(mDistRelaxationFac, 1.2f);
  const std::vector<std::vector<CLabels>> children = {
      {}, {{0, 1, 6, 7}, {2, 3, 8, 9}, {4, 5, 10, 11}, {12, 13, 14, 18, 19, 20}, {15, 16, 17, 21, 22, 23}}, {{R}, {G, Y, K}, {B}}};
  for (int l = 1; l < 3; l++) {
    ASSERT_EQ(hierarchy.getLayer(l)->size(), static_cast<int>(children[l].size()));
    for (int i = 0; i < hierarchy.getLayer(l)->size(); i++) {
      const CSuperpixel* node = nodes(l)[i];
      EXPECT_EQ(node->getLabel(), i);
      EXPECT_EQ(labelsOf(node->getChildren()), children[l][i]) << "layer " << l << " node " << i;
      for (const CSuperpixel* child : node->getChildren()) EXPECT_EQ(child->getParent(), node);
      EXPECT_EQ(node->getParent() == nullptr, l == 2);
      EXPECT_EQ(node->getValue(1), 0.5f);  // coarser layers start uniform
    }
  }
  const float centres1[5][2] = {{0.5f, 0.5f}, {2.5f, 0.5f}, {4.5f, 0.5f}, {1.0f, 2.5f}, {4.0f, 2.5f}};
  for (int i = 0; i < 5; i++)
    EXPECT_TRUE(nodes(1)[i]->getX() == centres1[i][0] && nodes(1)[i]->getY() == centres1[i][1]) << "node " << i;
  EXPECT_EQ(nodes(2)[W]->getY(), (0.5f + 2.5f + 2.5f) / 3.0f);

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
    }
  }
  const std::vector<CLabels> neighbours2 = {{W, Z, X, X}, {X, Z, W, W}, {W, X, Z, Z}};
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(labelsOf(nodes(2)[i]->getNeighbours()), neighbours2[i]) << "layer 2 node " << i;
    EXPECT_EQ(nodes(2)[i]->getDistance(), (std::vector<float>{1.0f, 1.0f, 0.0f, 0.0f}));
  }
}

TEST(Hierarchy, RejectsMissingOrUnreadableSegmentations) {
  const CTensor<float> labels(3, 2, 2, 0.5f);
  EXPECT_EQ(NTest::stderrOf([&] { EXPECT_THROW(static_cast<void>(CHierarchy(labels, {})), CHierarchy::EMissingLayers); }),
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
    const std::string err = NTest::stderrOf([&] { EXPECT_THROW(static_cast<void>(CHierarchy(labels, segs)), EFileError); });
    EXPECT_EQ(err.rfind(message, 0), 0u) << err;
  }
}
