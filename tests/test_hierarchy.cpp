// Superpixel nodes and layers and the rejections of a hierarchy. Its nodes,
// links, weights, read-out and solve are compared bit for bit with the flat
// hierarchy in test_flat.cpp and pinned by the whole runs in test_golden.cpp.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "CErrors.h"
#include "CHierarchy.h"
#include "TestSupport.h"

namespace {

CVector<float> vec(std::initializer_list<float> aValues) {
  CVector<float> v(static_cast<int>(aValues.size()));
  int i = 0;
  for (const float value : aValues) v(i++) = value;
  return v;
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

// The projection itself is compared bit for bit with the flat solver's in
// test_flat.cpp. A NaN entry never passes the strict test, so the threshold
// comes from the other entries; the NaN itself survives the clipping.
TEST(SuperpixelLayer, NormalizeKeepsANaNEntry) {
  CSuperpixelLayer withNaN;
  withNaN.addSP()->setValues(vec({0.5f, std::nanf("")}));
  withNaN.normalize();
  EXPECT_EQ(withNaN.getSP()[0]->getValue(0), 1.0f);
  EXPECT_TRUE(std::isnan(withNaN.getSP()[0]->getValue(1)));
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
