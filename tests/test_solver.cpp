// The node-by-node solver on hierarchies small enough to follow by hand. Its
// clamping and its coarser layers are compared bit for bit with the flat
// solver in test_flat.cpp.
#include <gtest/gtest.h>

#include <vector>

#include "CHierarchy.h"
#include "CSuperpixel.h"
#include "CSuperpixelLayer.h"
#include "Solver.h"

namespace {

struct CTiny {
  CTensor<float> start;
  std::vector<CTensor<float>> segs;
  CTensor<float> sparse;
  CMatrix<float> conf;
  CMatrix<float> weight;
};

// A column of aHeight pixels of one grey, two labels, no superpixel layer.
CTiny column(int aHeight, const std::vector<std::vector<float>>& aStart) {
  CTiny t{CTensor<float>(1, aHeight, 2), {CTensor<float>(1, aHeight, 3, 50.0f)}, CTensor<float>(1, aHeight, 2, 0.0f),
          CMatrix<float>(1, aHeight, 0.0f), CMatrix<float>(1, aHeight, 1.0f)};
  for (int y = 0; y < aHeight; y++)
    for (int k = 0; k < 2; k++) t.start(0, y, k) = aStart[y][k];
  return t;
}

float degree(CHierarchy& aHierarchy, int aLayer, int aNode, int aLabel) {
  return aHierarchy.getLayer(aLayer)->getSP()[aNode]->getValue(aLabel);
}

}  // namespace

TEST(Solver, ZeroIterationsChangeNothing) {
  CTiny t = column(2, {{0.9f, 0.5f}, {0.1f, 0.2f}});
  CHierarchy h(t.start, t.segs);
  solveSegmentation_SOR(h, t.conf, t.sparse, t.weight, 0.3f, 1.9f, 0);
  EXPECT_EQ(degree(h, 0, 0, 0), 0.9f);  // not even normalised
  EXPECT_EQ(degree(h, 0, 1, 1), 0.2f);
}

// With alpha = 1 and omega = 1 a labelled pixel jumps straight to its label
// (v = md / md * f with md = w), and an unlabelled one has no weight at all
// and keeps its degrees until the simplex projection.
TEST(Solver, FullDataWeightCopiesTheLabelsAndLeavesWeightlessPixels) {
  CTiny t = column(3, {{0.5f, 0.5f}, {0.3f, 0.3f}, {0.2f, 0.8f}});
  t.conf(0, 0) = 1.0f;
  t.sparse(0, 0, 1) = 1.0f;
  t.conf(0, 1) = 0.999f;  // shrunk confidence: no data term
  t.weight(0, 0) = 2.0f;
  CHierarchy h(t.start, t.segs);
  solveSegmentation_SOR(h, t.conf, t.sparse, t.weight, 1.0f, 1.0f, 1);
  EXPECT_EQ(degree(h, 0, 0, 0), 0.0f);
  EXPECT_EQ(degree(h, 0, 0, 1), 1.0f);
  EXPECT_EQ(degree(h, 0, 1, 0), 0.5f);  // (0.3, 0.3) projected: mu = -0.2
  EXPECT_EQ(degree(h, 0, 1, 1), 0.5f);
  EXPECT_EQ(degree(h, 0, 2, 0), 0.2f);  // already on the simplex
  EXPECT_EQ(degree(h, 0, 2, 1), 0.8f);
}

// Plain Gauss-Seidel (omega = 1) without data term on two pixels: the first
// pixel takes the second's degree, the second then takes the first's new one,
// so after one label pass both hold what the lower pixel held.
TEST(Solver, GaussSeidelReadsTheNewDegreesOfEarlierNodes) {
  CTiny t = column(2, {{1.0f, 0.0f}, {0.0f, 1.0f}});
  CHierarchy h(t.start, t.segs);
  solveSegmentation_SOR(h, t.conf, t.sparse, t.weight, 0.0f, 1.0f, 1);
  for (int node = 0; node < 2; node++) {
    EXPECT_EQ(degree(h, 0, node, 0), 0.0f);
    EXPECT_NEAR(degree(h, 0, node, 1), 1.0f, 1e-6f);
  }
}
