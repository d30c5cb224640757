// Nodes, the free weight helpers, the pixel layer and the simplex projection.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "CSuperpixel.h"
#include "CSuperpixelLayer.h"

namespace {

// Total-variation diffusivity of a squared gradient: float sum, double root.
float g(float aSquare) { return static_cast<float>(1.0 / std::sqrt(static_cast<double>(aSquare + 1e-5f))); }

CVector<float> vec(std::initializer_list<float> aValues) {
  CVector<float> v(static_cast<int>(aValues.size()));
  int i = 0;
  for (float value : aValues) v(i++) = value;
  return v;
}

void place(CSuperpixel& aNode, float ax, float ay) {
  aNode.setX(ax);
  aNode.setY(ay);
}

std::vector<int> labelsOf(const std::vector<CSuperpixel*>& aNodes) {
  std::vector<int> labels;
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

}  // namespace

TEST(Superpixel, NeighbourListsStayParallel) {
  CSuperpixel node, a, b, c;
  node.addNeighbour(&a);
  node.addNeighbour(&b);
  node.addNeighbour(&c);
  for (int j = 0; j < 3; j++) {
    EXPECT_EQ(node.getConstDistance(j), 1.0f);
    EXPECT_EQ(node.getConstDiffusivityNeighbour(j), 1.0f);
    node.setDistance(10.0f + j, j);
    node.setConstDistance(20.0f + j, j);
    node.setDiffusivityNeighbour(30.0f + j, j);
    node.setConstDiffusivityNeighbour(40.0f + j, j);
  }
  node.removeNeighbour(1);
  EXPECT_EQ(node.getNeighbours(), (std::vector<CSuperpixel*>{&a, &c}));
  EXPECT_EQ(node.getDistance(), (std::vector<float>{10.0f, 12.0f}));
  EXPECT_EQ(node.getConstDistance(), (std::vector<float>{20.0f, 22.0f}));
  EXPECT_EQ(node.getDiffusivityNeighbour(1), 32.0f);
  EXPECT_EQ(node.getConstDiffusivityNeighbour(1), 42.0f);
  node.removeNeighbour(0);
  node.removeNeighbour(0);
  EXPECT_TRUE(node.getNeighbours().empty());
  EXPECT_TRUE(node.getDistance().empty());
}

// A two-level tree over four pixels whose first children are not the
// first pixels, so the leaf walk order is visible.
class SuperpixelTree : public ::testing::Test {
protected:
  void SetUp() override {
    place(mPixels[0], 0, 0);
    place(mPixels[1], 1, 0);
    place(mPixels[2], 0, 1);
    place(mPixels[3], 1, 1);
    mLeft.addChild(&mPixels[2]);
    mLeft.addChild(&mPixels[0]);
    mRight.addChild(&mPixels[3]);
    mRight.addChild(&mPixels[1]);
    mLeft.computeCoordinates();
    mRight.computeCoordinates();
    mTop.addChild(&mRight);
    mTop.addChild(&mLeft);
    mTop.computeCoordinates();
  }
  CSuperpixel mPixels[4];
  CSuperpixel mLeft, mRight, mTop;
};

TEST_F(SuperpixelTree, CentresAndFirstLeaf) {
  EXPECT_EQ(mLeft.getX(), 0.0f);
  EXPECT_EQ(mLeft.getY(), 0.5f);
  EXPECT_EQ(mTop.getX(), 0.5f);
  // First child of the first child: mRight, then pixel 3.
  EXPECT_EQ(mTop.getLeafX(), 1.0f);
  EXPECT_EQ(mTop.getLeafY(), 1.0f);
  EXPECT_EQ(mPixels[1].getLeafX(), 1.0f);
  EXPECT_EQ(mTop.getLeafSize(), 4.0f);
  EXPECT_EQ(mPixels[2].getLeafSize(), 1.0f);
}

TEST_F(SuperpixelTree, LeafRecursionsReachEveryPixelOnce) {
  CMatrix<float> weights(2, 2);
  weights(0, 0) = 1;
  weights(1, 0) = 2;
  weights(0, 1) = 3;
  weights(1, 1) = 6;
  float sum = 0.0f;
  int count = 0;
  mPixels[3].getLeafSum(&sum, &count, weights);
  EXPECT_EQ(sum, 6.0f);
  EXPECT_EQ(count, 1);
  mTop.getLeafSum(&sum, &count, weights);
  EXPECT_EQ(sum, 18.0f);
  EXPECT_EQ(count, 5);

  mLeft.setLeafValue(2.0f, weights);
  EXPECT_EQ(weights(0, 0), 0.0f);
  EXPECT_EQ(weights(0, 1), 1.0f);
  EXPECT_EQ(weights(1, 0), 2.0f);  // not below mLeft

  // (e - 1) / data in double: differs from the float quotient here.
  CMatrix<float> one(1, 1, 0.1f);
  CSuperpixel pixel;
  pixel.setLeafValue(3.0f, one);
  EXPECT_EQ(one(0, 0), static_cast<float>((static_cast<double>(0.1f) - 1.0) / 3.0));

  CTensor<float> image(2, 2, 2, -1.0f);
  mTop.fill(image, vec({0.25f, 0.75f, 9.0f}));
  for (int y = 0; y < 2; y++)
    for (int x = 0; x < 2; x++) {
      EXPECT_EQ(image(x, y, 0), 0.25f);
      EXPECT_EQ(image(x, y, 1), 0.75f);
    }
}

TEST_F(SuperpixelTree, Distances) {
  CSuperpixel bare, other;
  place(other, 3, 4);
  EXPECT_EQ(bare.avrgEuclideanDist(&other), 5.0f);
  EXPECT_EQ(bare.minEuclideanDist(&other), std::sqrt(1e11f));
  EXPECT_NEAR(bare.minEuclideanDist(&other), 316227.75f, 0.05f);
  EXPECT_EQ(mLeft.minEuclideanDist(&mRight), 1.0f);
  EXPECT_EQ(mLeft.constDist(&mRight), 1.0f);
}

TEST(Superpixel, DiffusionFlowSumsEveryEdge) {
  CSuperpixel node, a, b, child, parent;
  a.setValues(vec({0.0f, 0.5f}));
  b.setValues(vec({0.0f, 0.25f}));
  child.setValues(vec({0.0f, 1.0f}));
  parent.setValues(vec({0.0f, 0.125f}));
  node.addNeighbour(&a);
  node.addNeighbour(&b);
  node.setDiffusivityNeighbour(2.0f, 0);
  node.setConstDiffusivityNeighbour(3.0f, 0);
  node.setDiffusivityNeighbour(0.1f, 1);
  node.setConstDiffusivityNeighbour(7.0f, 1);
  node.addChild(&child);
  node.setDiffusivityChildren(0.3f, 0);
  node.setConstDiffusivityChildren(5.0f, 0);
  node.setDiffusivityParent(0.7f);
  node.setConstDiffusivityParent(11.0f);

  float out = 99.0f;
  float in = 99.0f;
  node.computeDiffusionFlow(&out, &in, 0);
  EXPECT_EQ(out, 0.0f);  // label 0 is zero everywhere; the parent is absent
  const float gParent = 11.0f * 0.7f;
  float expectIn = 0.0f;
  expectIn = expectIn + 3.0f * 2.0f;
  expectIn = expectIn + 7.0f * 0.1f;
  expectIn = expectIn + 5.0f * 0.3f;
  expectIn = expectIn + gParent;
  EXPECT_EQ(in, expectIn);  // parent weight on the diagonal even without parent

  node.setParent(&parent);
  node.computeDiffusionFlow(&out, &in, 1);
  float expectOut = 0.0f;
  expectOut = expectOut - (3.0f * 2.0f) * 0.5f;
  expectOut = expectOut - (7.0f * 0.1f) * 0.25f;
  expectOut = expectOut - (5.0f * 0.3f) * 1.0f;
  expectOut = expectOut - gParent * 0.125f;
  EXPECT_EQ(out, expectOut);
  EXPECT_EQ(in, expectIn);
}

TEST(SuperpixelHelpers, DiffusivityAndSpatialFactor) {
  EXPECT_EQ(diffusivity(vec({3, 4}), vec({3, 4})), g(0.0f));
  EXPECT_NEAR(g(0.0f), 316.2278f, 1e-3f);
  EXPECT_EQ(diffusivity(vec({1, 0}), vec({0, 0})), g(1.0f));
  EXPECT_NEAR(g(1.0f), 0.999995f, 1e-6f);
  // Only the first vector's length counts.
  EXPECT_EQ(diffusivity(vec({1}), vec({1, 100})), g(0.0f));
  // float sum, double root: 0.25 + 1e-5 in float, then 1/sqrt in double.
  EXPECT_EQ(CSuperpixelLayer::diffusivity_fl(0.25f), static_cast<float>(1.0 / std::sqrt(double(0.25f + 1e-5f))));

  const CSuperpixelLayer layer(400, 300);
  EXPECT_EQ(mDistRelaxationFac, 80.0f);
  EXPECT_EQ(distFCT(0.0f), 1.0f);
  EXPECT_EQ(distFCT(1.0f), static_cast<float>(std::exp(-static_cast<double>(1.0f / 80.0f))));
  EXPECT_EQ(distFCT(3.0f), static_cast<float>(std::exp(-static_cast<double>(9.0f / 80.0f))));

  CTensor<float> image = tensor(2, 2, 3, [](int x, int y, int z) { return 100.0f * z + 10.0f * y + x; });
  CVector<float> colour(7);
  getZVector(image, 1, 1, colour);
  ASSERT_EQ(colour.size(), 3);
  EXPECT_EQ(colour(0), 11.0f);
  EXPECT_EQ(colour(2), 211.0f);
}

TEST(SuperpixelLayer, SizedConstructionResetsRelaxationFactor) {
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
  const CSuperpixelLayer unsizedAgain;
  EXPECT_EQ(mDistRelaxationFac, static_cast<float>(0.2 * 9));
}

TEST(PixelLayer, NodesInRowMajorOrderWithTheirChannels) {
  const CTensor<float> labels = tensor(4, 2, 3, [](int x, int y, int z) { return 100.0f * z + 10.0f * y + x; });
  CSuperpixelLayer layer(4, 2);
  layer.createSP_fl(labels);
  ASSERT_EQ(layer.size(), 8);
  const CSuperpixel* node = layer.getSP()[6];
  EXPECT_EQ(node->getLabel(), 6);
  EXPECT_EQ(node->getX(), 2.0f);
  EXPECT_EQ(node->getY(), 1.0f);
  ASSERT_EQ(node->getValues().size(), 3);
  EXPECT_EQ(node->getValue(0), 12.0f);
  EXPECT_EQ(node->getValue(1), 112.0f);
  EXPECT_EQ(node->getValue(2), 212.0f);
  EXPECT_TRUE(node->getChildren().empty());
  EXPECT_EQ(node->getParent(), nullptr);
}

TEST(PixelLayer, FourNeighboursUpLeftDownRight) {
  const CTensor<float> image(3, 3, 1, 0.0f);
  CSuperpixelLayer layer(3, 3);
  layer.createSP_fl(image);
  layer.setSPNeighbours_fl(image);
  const std::vector<CSuperpixel*>& nodes = layer.getSP();
  EXPECT_EQ(labelsOf(nodes[4]->getNeighbours()), (std::vector<int>{1, 3, 7, 5}));
  EXPECT_EQ(labelsOf(nodes[0]->getNeighbours()), (std::vector<int>{3, 1}));
  EXPECT_EQ(labelsOf(nodes[5]->getNeighbours()), (std::vector<int>{2, 4, 8}));
  EXPECT_EQ(labelsOf(nodes[8]->getNeighbours()), (std::vector<int>{5, 7}));
  for (const CSuperpixel* node : nodes)
    for (size_t j = 0; j < node->getNeighbours().size(); j++) {
      EXPECT_EQ(node->getDistance(j), 1.0f);
      EXPECT_EQ(node->getConstDistance(j), 1.0f);
      EXPECT_EQ(node->getDiffusivityNeighbour(j), 1.0f);
      EXPECT_EQ(node->getConstDiffusivityNeighbour(j), 1.0f);
    }
}

TEST(PixelLayer, DegenerateShapes) {
  struct Shape {
    int width, height;
    std::vector<std::vector<int>> neighbours;
  };
  const Shape shapes[] = {
      {1, 1, {{}}},
      {1, 3, {{1}, {0, 2}, {1}}},
      {3, 1, {{1}, {0, 2}, {1}}},
      {0, 4, {}},
  };
  for (const Shape& shape : shapes) {
    const CTensor<float> image(shape.width, shape.height, 2, 0.5f);
    CSuperpixelLayer layer(shape.width, shape.height);
    layer.createSP_fl(image);
    layer.setSPNeighbours_fl(image);
    layer.computeConstDiffusivitiesNeighbours_fl(image);
    layer.computeDiffusivitiesNeighbours_fl(image);
    ASSERT_EQ(layer.size(), static_cast<int>(shape.neighbours.size()));
    for (int i = 0; i < layer.size(); i++) {
      EXPECT_EQ(labelsOf(layer.getSP()[i]->getNeighbours()), shape.neighbours[i]) << shape.width << "x" << shape.height;
      for (size_t j = 0; j < shape.neighbours[i].size(); j++)
        EXPECT_EQ(layer.getSP()[i]->getConstDiffusivityNeighbour(j), g(0.0f));
    }
  }
}

// Expected weight of the pixel edge between aNode and aOther, given the
// weights of right edges (aRight) and down edges (aDown) at the left or
// upper pixel.
float edgeWeight(const CSuperpixel* aNode, const CSuperpixel* aOther, const std::function<float(int, int)>& aRight,
                 const std::function<float(int, int)>& aDown) {
  const int x = static_cast<int>(std::min(aNode->getX(), aOther->getX()));
  const int y = static_cast<int>(std::min(aNode->getY(), aOther->getY()));
  return aNode->getY() == aOther->getY() ? aRight(x, y) : aDown(x, y);
}

TEST(PixelLayer, StepEdgeDiffusivities) {
  // Channel 0 steps from 0 to 1 between columns 2 and 3; channel 1 carries
  // the same step, so the squared gradients double when both are used.
  const CTensor<float> step = tensor(6, 4, 2, [](int x, int, int) { return x >= 3 ? 1.0f : 0.0f; });
  const CTensor<float> oneChannel = tensor(6, 4, 1, [](int x, int, int) { return x >= 3 ? 1.0f : 0.0f; });

  CMatrix<float> resultX(6, 4, -1.0f), resultY(6, 4, -1.0f);
  CSuperpixelLayer::diffusivities_fl(oneChannel, resultX, resultY);
  for (int y = 0; y < 4; y++) {
    EXPECT_EQ(resultX(5, y), g(0.0f));
    EXPECT_EQ(resultX(2, y), g(1.0f));
    EXPECT_EQ(resultX(1, y), g(0.0f));
  }
  for (int x = 0; x < 6; x++) EXPECT_EQ(resultY(x, 3), g(0.0f));
  EXPECT_NEAR(g(0.25f), 1.99996f, 1e-5f);

  CSuperpixelLayer layer(6, 4);
  layer.createSP_fl(step);
  layer.setSPNeighbours_fl(step);
  layer.computeConstDiffusivitiesNeighbours_fl(oneChannel);
  for (const CSuperpixel* node : layer.getSP())
    for (size_t j = 0; j < node->getNeighbours().size(); j++) {
      const CSuperpixel* other = node->getNeighbour(j);
      const auto right = [](int x, int) { return x == 2 ? g(1.0f) : g(0.0f); };
      const auto down = [](int x, int) { return x == 2 || x == 3 ? g(0.25f) : g(0.0f); };
      EXPECT_EQ(node->getConstDiffusivityNeighbour(j), edgeWeight(node, other, right, down))
          << node->getLabel() << " -> " << other->getLabel();
      EXPECT_EQ(node->getDiffusivityNeighbour(j), 1.0f);
    }

  layer.computeDiffusivitiesNeighbours_fl(step);
  for (const CSuperpixel* node : layer.getSP())
    for (size_t j = 0; j < node->getNeighbours().size(); j++) {
      const auto right = [](int x, int) { return x == 2 ? g(2.0f) : g(0.0f); };
      const auto down = [](int x, int) { return x == 2 || x == 3 ? g(0.5f) : g(0.0f); };
      EXPECT_EQ(node->getDiffusivityNeighbour(j), edgeWeight(node, node->getNeighbour(j), right, down));
    }
}

TEST(PixelLayer, EdgeGradientsAverageTheCentralDerivatives) {
  // f = x * y: the central derivatives (halved at the mirrored borders)
  // differ between the two pixels of every edge, and the edge takes their mean.
  const CTensor<float> product = tensor(3, 3, 1, [](int x, int y, int) { return static_cast<float>(x * y); });
  const float border[3] = {0.5f, 1.0f, 0.5f};
  CMatrix<float> resultX(3, 3), resultY(3, 3);
  CSuperpixelLayer::diffusivities_fl(product, resultX, resultY);
  for (int y = 0; y < 3; y++)
    for (int x = 0; x < 2; x++) {
      const float across = static_cast<float>(y);
      const float along = 0.5f * (x * border[y] + (x + 1) * border[y]);
      EXPECT_EQ(resultX(x, y), g(across * across + along * along)) << x << "," << y;
    }
  for (int y = 0; y < 2; y++)
    for (int x = 0; x < 3; x++) {
      const float along = 0.5f * (y * border[x] + (y + 1) * border[x]);
      const float across = static_cast<float>(x);
      EXPECT_EQ(resultY(x, y), g(along * along + across * across)) << x << "," << y;
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
  layer.addSP();  // no values: skipped
  layer.normalize();
  for (size_t i = 0; i < std::size(cases); i++)
    for (size_t k = 0; k < cases[i].out.size(); k++)
      EXPECT_NEAR(layer.getSP()[i]->getValue(k), cases[i].out[k], 1e-6f) << "case " << i << " entry " << k;
  EXPECT_EQ(layer.getSP()[0]->getValue(0), 0.5f);
  EXPECT_EQ(layer.getSP()[3]->getValue(2), 0.0f);
  EXPECT_EQ(layer.getSP()[5]->getValues().size(), 0);

  // A NaN entry never passes the strict test, so the threshold comes from
  // the other entries; the NaN itself survives the clipping.
  CSuperpixelLayer withNaN;
  withNaN.addSP()->setValues(vec({0.5f, std::numeric_limits<float>::quiet_NaN()}));
  withNaN.normalize();
  EXPECT_EQ(withNaN.getSP()[0]->getValue(0), 1.0f);
  EXPECT_TRUE(std::isnan(withNaN.getSP()[0]->getValue(1)));
}
