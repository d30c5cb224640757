// The flat-array hierarchy and solver against the node-by-node reference:
// every degree must agree to the bit.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "CFlatHierarchy.h"
#include "CHierarchy.h"
#include "CSuperpixel.h"
#include "CSuperpixelLayer.h"
#include "CUtility.h"
#include "Driver.h"
#include "SameBits.h"
#include "Solver.h"
#include "TestSupport.h"

namespace {

// The solver's register widths, widest first; each is limited to what the
// processor has.
constexpr int kVectorBits[] = {512, 256, 128};

struct CCase {
  int width = 0;
  int height = 0;
  int labels = 0;
  CTensor<float> start;   // starting degrees
  std::vector<CTensor<float>> segs;
  CTensor<float> sparse;  // sparse label function
  CMatrix<float> conf;
  CMatrix<float> weight;
};

// Region ids of one segmentation level: nested levels merge the previous
// level's regions by a coarser grid of their first pixels, others are drawn
// independently as nearest-seed regions.
std::vector<int> regions(int aWidth, int aHeight, int aSeeds, std::mt19937& aRandom) {
  std::uniform_int_distribution<int> px(0, aWidth - 1);
  std::uniform_int_distribution<int> py(0, aHeight - 1);
  std::vector<int> sx(aSeeds), sy(aSeeds);
  for (int s = 0; s < aSeeds; s++) {
    sx[s] = px(aRandom);
    sy[s] = py(aRandom);
  }
  std::vector<int> id(aWidth * aHeight);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      int best = 0;
      for (int s = 1; s < aSeeds; s++)
        if ((x - sx[s]) * (x - sx[s]) + (y - sy[s]) * (y - sy[s]) <
            (x - sx[best]) * (x - sx[best]) + (y - sy[best]) * (y - sy[best]))
          best = s;
      id[y * aWidth + x] = best;
    }
  return id;
}

// aSeveralLabels: a labelled pixel may carry any subset of the labels, so that
// the projection onto the simplex needs more than two rounds. aLarge: large
// enough for the widest registers' interior paths (blocks of 16 pixels, bands
// of 12 rows).
CCase randomCase(unsigned aSeed, int aCoarserLayers, bool aNested, bool aSeveralLabels = false, bool aLarge = false) {
  std::mt19937 random(aSeed);
  CCase c;
  c.width = std::uniform_int_distribution<int>(aLarge ? 20 : 1, aLarge ? 64 : 23)(random);
  c.height = std::uniform_int_distribution<int>(aLarge ? 26 : 1, aLarge ? 48 : 19)(random);
  c.labels = std::uniform_int_distribution<int>(1, aSeveralLabels ? 16 : 7)(random);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  c.start = CTensor<float>(c.width, c.height, c.labels);
  for (int y = 0; y < c.height; y++)
    for (int x = 0; x < c.width; x++) {
      float sum = 0.0f;
      for (int k = 0; k < c.labels; k++) sum += (c.start(x, y, k) = unit(random));
      for (int k = 0; k < c.labels; k++) c.start(x, y, k) /= sum;
    }
  CTensor<float> image(c.width, c.height, 3);
  for (int i = 0; i < image.size(); i++) image.data()[i] = std::floor(unit(random) * 256.0f);
  c.segs.push_back(image);
  std::vector<int> previous(c.width * c.height);
  for (int i = 0; i < c.width * c.height; i++) previous[i] = i;
  int seeds = std::max(2, c.width * c.height / 4);
  for (int layer = 1; layer <= aCoarserLayers; layer++) {
    std::vector<int> id = regions(c.width, c.height, seeds, random);
    if (aNested) {
      // Every previous region goes wholly to the new region of its first pixel.
      std::vector<int> of(c.width * c.height, -1);
      for (int i = 0; i < c.width * c.height; i++)
        if (of[previous[i]] < 0) of[previous[i]] = id[i];
      for (int i = 0; i < c.width * c.height; i++) id[i] = of[previous[i]];
    }
    CTensor<float> seg(c.width, c.height, 3);
    for (int i = 0; i < c.width * c.height; i++) {
      // A few regions share a colour on purpose: they become one node.
      const int colour = id[i] % 11 == 10 ? 7 : id[i];
      seg.data()[i] = static_cast<float>((colour * 53) % 256);
      seg.data()[i + c.width * c.height] = static_cast<float>((colour * 101 + layer * 17) % 256);
      seg.data()[i + 2 * c.width * c.height] = static_cast<float>(colour / 3 % 256);
    }
    c.segs.push_back(seg);
    previous = id;
    seeds = std::max(1, seeds / 3);
  }
  c.sparse = CTensor<float>(c.width, c.height, c.labels, 0.0f);
  c.conf = CMatrix<float>(c.width, c.height, 0.0f);
  c.weight = CMatrix<float>(c.width, c.height);
  for (int y = 0; y < c.height; y++)
    for (int x = 0; x < c.width; x++) {
      const float draw = unit(random);
      if (draw < 0.2f) {
        c.conf(x, y) = 1.0f;
        if (aSeveralLabels)
          for (int k = 0; k < c.labels; k++) c.sparse(x, y, k) = unit(random) < 0.5f ? 1.0f : 0.0f;
        else
          c.sparse(x, y, std::uniform_int_distribution<int>(0, c.labels - 1)(random)) = 1.0f;
      } else if (draw < 0.25f) {
        c.conf(x, y) = 0.5f;  // not exactly 1: no data term
      }
      c.weight(x, y) = 0.2f + 2.0f * unit(random);
    }
  return c;
}

void expectSameDegrees(CHierarchy& aReference, const CFlatHierarchy& aFlat, int aLabels, const std::string& aWhat) {
  ASSERT_EQ(aReference.size(), aFlat.size()) << aWhat;
  for (int l = 0; l < aReference.size(); l++) {
    const std::vector<CSuperpixel*>& nodes = aReference.getLayer(l)->getSP();
    ASSERT_EQ(static_cast<int>(nodes.size()), aFlat.layerSize(l)) << aWhat << " layer " << l;
    for (size_t n = 0; n < nodes.size(); n++)
      for (int k = 0; k < aLabels; k++)
        ASSERT_TRUE(sameBits(nodes[n]->getValue(k), aFlat.value(l, static_cast<int>(n), k)))
            << aWhat << " layer " << l << " node " << n << " label " << k << ": " << nodes[n]->getValue(k)
            << " != " << aFlat.value(l, static_cast<int>(n), k);
  }
}

// The reference solve once, then the flat solve with one to three threads at
// every register width the processor has, each compared with it; two threads
// also with every pixel pass shared between them.
void compareSolve(unsigned aSeed, int aCoarserLayers, bool aNested, bool aSeveralLabels = false, bool aLarge = false) {
  const std::string what = "seed " + std::to_string(aSeed) + ", " + std::to_string(aCoarserLayers) +
                           " layers, " + (aNested ? "nested" : "not nested") +
                           (aSeveralLabels ? ", several labels" : "") + (aLarge ? ", large" : "");
  CCase c = randomCase(aSeed, aCoarserLayers, aNested, aSeveralLabels, aLarge);
  CHierarchy reference(c.start, c.segs);
  CMatrix<float> weightReference(c.weight);
  if (aCoarserLayers > 0) reference.getLayer(1)->distanceFunction(weightReference);
  const float alpha = aSeveralLabels ? (aSeed % 2 == 0 ? 1.0f : 0.9f) : (aSeed % 3 == 0 ? 0.0f : 0.3f);
  const float omega = aSeed % 4 == 0 ? 1.0f : 1.9f;
  solveSegmentation_SOR(reference, c.conf, c.sparse, weightReference, alpha, omega, 3);
  const int threadsBefore = omp_get_max_threads();
  for (int bits : kVectorBits)
    for (int threads : {1, 2, 3, -2}) {
      CFlatHierarchy::limitVectorBits(bits);
      CFlatHierarchy::sharePixelPassesAbove(threads < 0 ? 0 : CFlatHierarchy::kCacheBytes);
      omp_set_num_threads(std::abs(threads));
      const std::string run = what + ", " + std::to_string(std::abs(threads)) + " threads" +
                              (threads < 0 ? " sharing every pixel pass, " : ", ") +
                              std::to_string(CFlatHierarchy::vectorBits()) + " bits";
      CFlatHierarchy flat(c.start, c.segs);
      CMatrix<float> weightFlat(c.weight);
      if (aCoarserLayers > 0) {
        flat.distanceFunction(weightFlat);
        for (int i = 0; i < weightFlat.size(); i++)
          ASSERT_TRUE(sameBits(weightReference.data()[i], weightFlat.data()[i])) << run << " weight " << i;
      }
      flat.solve(c.conf, c.sparse, weightFlat, alpha, omega, 3);
      expectSameDegrees(reference, flat, c.labels, run);
      CTensor<float> image(c.width, c.height, c.labels);
      flat.convertToImage(image);
      for (int i = 0; i < image.size(); i++)
        ASSERT_TRUE(sameBits(image.data()[i], reference.getLayer(0)->getSP()[i % (c.width * c.height)]->getValue(
                                                  i / (c.width * c.height))))
            << run;
    }
  CFlatHierarchy::limitVectorBits(CFlatHierarchy::kDefaultVectorBits);
  CFlatHierarchy::sharePixelPassesAbove(CFlatHierarchy::kCacheBytes);
  omp_set_num_threads(threadsBefore);
}

}  // namespace

TEST(FlatSolver, BitIdenticalToTheReferenceOnRandomHierarchies) {
  for (unsigned seed = 1; seed <= 24; seed++) compareSolve(seed, static_cast<int>(seed % 4), seed % 2 == 0);
}

// A strong data term of several labels per pixel: projections of many rounds,
// and up to four label chunks.
TEST(FlatSolver, BitIdenticalWithSeveralLabelsPerPixel) {
  for (unsigned seed = 1; seed <= 12; seed++) compareSolve(100 + seed, static_cast<int>(seed % 4), seed % 2 == 0, true);
}

// Images on which every width runs its interior paths, not only the borders.
TEST(FlatSolver, BitIdenticalOnImagesLargeEnoughForEveryWidth) {
  for (unsigned seed = 1; seed <= 4; seed++)
    compareSolve(200 + seed, static_cast<int>(seed % 4), seed % 2 == 0, seed % 3 == 0, true);
}

TEST(FlatSolver, ZeroIterationsLeaveTheStartingDegrees) {
  CCase c = randomCase(99, 2, true);
  CHierarchy reference(c.start, c.segs);
  CFlatHierarchy flat(c.start, c.segs);
  flat.solve(c.conf, c.sparse, c.weight, 0.3f, 1.9f, 0);
  expectSameDegrees(reference, flat, c.labels, "no iterations");
}

TEST(FlatSolver, APixelWithoutAnyWeightKeepsItsDegrees) {
  CTensor<float> start(1, 1, 2);
  start(0, 0, 0) = 0.25f;
  start(0, 0, 1) = 0.75f;
  const std::vector<CTensor<float>> segs = {CTensor<float>(1, 1, 3, 9.0f)};
  CTensor<float> sparse(1, 1, 2, 0.0f);
  CMatrix<float> conf(1, 1, 0.0f);
  CMatrix<float> weight(1, 1, 1.0f);
  CHierarchy reference(start, segs);
  CFlatHierarchy flat(start, segs);
  solveSegmentation_SOR(reference, conf, sparse, weight, 0.0f, 1.9f, 2);
  flat.solve(conf, sparse, weight, 0.0f, 1.9f, 2);
  expectSameDegrees(reference, flat, 2, "isolated pixel");
  EXPECT_EQ(flat.value(0, 0, 1), 0.75f);
}

TEST(FlatSolver, NoLayersIsTheSameError) {
  CTensor<float> start(4, 4, 2, 0.5f);
  std::vector<CTensor<float>> none;
  testing::internal::CaptureStderr();
  EXPECT_THROW(CFlatHierarchy(start, none), CHierarchy::EMissingLayers);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Exception EMissingLayers: 0 is too less layers\n");
}

TEST(FlatSolver, WholeRunsGiveTheSameFilesAsTheReference) {
  NTest::CScratchDir dir;
  NTest::writeScene(dir.path(), 37, 29, 3, {{255, 0, 0}, {0, 0, 255}, {0, 120, 0}, {0, 0, 0}});
  const int threadsBefore = omp_get_max_threads();
  std::vector<std::string> results;
  struct CRun {
    NDriver::ESolverPath path;
    int threads;
    int bits;
  };
  const CRun runs[] = {{NDriver::ESolverPath::Reference, 1, 512}, {NDriver::ESolverPath::Fast, 1, 512},
                       {NDriver::ESolverPath::Fast, 2, 512}, {NDriver::ESolverPath::Fast, 2, 256},
                       {NDriver::ESolverPath::Fast, 2, 128}};
  for (const CRun& run : runs) {
    omp_set_num_threads(run.threads);
    CFlatHierarchy::limitVectorBits(run.bits);
    const std::string prefix = dir.file(std::to_string(results.size()) + "-");
    std::vector<std::string> args = {"tarnwick", dir.file("frame.ppm"), "3", "labels.ppm", "0", "0.3", "2", prefix};
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    testing::internal::CaptureStdout();
    ASSERT_EQ(NDriver::main(static_cast<int>(argv.size()), argv.data(), run.path), 0);
    testing::internal::GetCapturedStdout();
    std::string all;
    for (const char* name : {"frame_dense_soft.ppm", "frame_dense.ppm", "frame_denseOUT.ppm"})
      all += NTest::readFile(prefix + "TarnwickResults/" + name);
    results.push_back(all);
  }
  CFlatHierarchy::limitVectorBits(CFlatHierarchy::kDefaultVectorBits);
  omp_set_num_threads(threadsBefore);
  EXPECT_GT(results[0].size(), 0u);
  for (size_t r = 1; r < results.size(); r++) EXPECT_TRUE(results[0] == results[r]) << "run " << r;
}
