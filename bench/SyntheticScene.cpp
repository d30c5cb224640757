#include "SyntheticScene.h"

#include <algorithm>
#include <cmath>

namespace NBench {

// Ground truth: a Voronoi partition with boundaries bent by smooth noise and a
// few small elliptic objects on top. Colours are random, but every third
// region copies the colour of the one before with a small offset (a
// low-contrast boundary). Textures: flat, stripes, blotches, fine checks;
// smooth shading and Gaussian noise over everything.
CScene makeScene(int aWidth, int aHeight, int aSeed, int aRegions, int aObjects) {
  CRandom random(static_cast<uint64_t>(aSeed));
  const int regions = aRegions;
  const int objects = aObjects;
  std::vector<std::array<double, 2>> sites;
  for (int r = 0; r < regions; r++) sites.push_back({random.uniform() * aWidth, random.uniform() * aHeight});
  const double scale = aWidth / 320.0;
  const CValueNoise bendX(random, aWidth, aHeight, 40 * scale);
  const CValueNoise bendY(random, aWidth, aHeight, 40 * scale);
  CScene scene;
  scene.labels = regions + objects;
  scene.truth.setSize(aWidth, aHeight);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const double px = x + 18 * scale * bendX(x, y);
      const double py = y + 18 * scale * bendY(x, y);
      int best = 0;
      double bestD = 1e300;
      for (int r = 0; r < regions; r++) {
        const double d = (px - sites[static_cast<size_t>(r)][0]) * (px - sites[static_cast<size_t>(r)][0]) +
                         (py - sites[static_cast<size_t>(r)][1]) * (py - sites[static_cast<size_t>(r)][1]);
        if (d < bestD) {
          bestD = d;
          best = r;
        }
      }
      scene.truth(x, y) = best;
    }
  for (int o = 0; o < objects; o++) {
    const double cx = random.uniform() * aWidth;
    const double cy = random.uniform() * aHeight;
    const double rx = (8 + 8 * random.uniform()) * scale;
    const double ry = (8 + 8 * random.uniform()) * scale;
    for (int y = 0; y < aHeight; y++)
      for (int x = 0; x < aWidth; x++)
        if ((x - cx) * (x - cx) / (rx * rx) + (y - cy) * (y - cy) / (ry * ry) < 1.0) scene.truth(x, y) = regions + o;
  }

  struct CLook {
    std::array<double, 3> colour;
    int texture;
    double amplitude, period, angle;
  };
  std::vector<CLook> looks;
  for (int r = 0; r < scene.labels; r++) {
    CLook look{{40 + 175 * random.uniform(), 40 + 175 * random.uniform(), 40 + 175 * random.uniform()},
               static_cast<int>(random.uniform() * 4), 20 + 30 * random.uniform(), (5 + 10 * random.uniform()) * scale,
               3.14159 * random.uniform()};
    if (r % 3 == 2) {
      // Low contrast against the previous region: 8 units per channel.
      for (size_t c = 0; c < 3; c++) look.colour[c] = looks.back().colour[c] + (random.uniform() < 0.5 ? -8 : 8);
    }
    looks.push_back(look);
  }
  const CValueNoise blotches(random, aWidth, aHeight, 6 * scale);
  const CValueNoise light(random, aWidth, aHeight, 120 * scale);
  scene.image.setSize(aWidth, aHeight, 3);
  for (int y = 0; y < aHeight; y++)
    for (int x = 0; x < aWidth; x++) {
      const CLook& look = looks[static_cast<size_t>(scene.truth(x, y))];
      double shade = 0;
      if (look.texture == 1)
        shade = look.amplitude * std::sin(6.28318 * (x * std::cos(look.angle) + y * std::sin(look.angle)) / look.period);
      else if (look.texture == 2)
        shade = look.amplitude * blotches(x, y);
      else if (look.texture == 3)
        shade = ((x / 3 + y / 3) % 2 == 0 ? 0.5 : -0.5) * look.amplitude;
      for (int c = 0; c < 3; c++) {
        const double v = (look.colour[static_cast<size_t>(c)] + shade) * (1.0 + 0.15 * light(x, y)) + 10.0 * random.gaussian();
        scene.image(x, y, c) = static_cast<float>(std::clamp(std::round(v), 0.0, 255.0));
      }
    }
  return scene;
}

const std::array<std::array<int, 3>, 22> kLabelColours = {
    {{230, 25, 75}, {60, 180, 75}, {0, 130, 200}, {245, 130, 48}, {145, 30, 180}, {70, 240, 240}, {240, 50, 230},
     {128, 128, 0}, {210, 245, 60}, {0, 128, 128}, {170, 110, 40}, {128, 0, 0}, {0, 0, 128}, {128, 128, 128},
     {0, 0, 0}, {255, 215, 180}, {255, 225, 25}, {0, 255, 128}, {128, 0, 255}, {255, 128, 128}, {64, 64, 192},
     {192, 64, 64}}};

CTensor<float> scribbles(const CScene& aScene, int aSeed) {
  const int w = aScene.truth.xSize();
  const int h = aScene.truth.ySize();
  const int margin = std::max(3, w / 64);
  auto inside = [&](int x, int y, int label) {
    for (int dy = -margin; dy <= margin; dy += margin)
      for (int dx = -margin; dx <= margin; dx += margin) {
        const int qx = x + dx;
        const int qy = y + dy;
        if (qx < 0 || qy < 0 || qx >= w || qy >= h || aScene.truth(qx, qy) != label) return false;
      }
    return true;
  };
  CRandom random(static_cast<uint64_t>(aSeed) + 1000);
  CTensor<float> canvas(w, h, 3, 255.0f);
  for (int label = 0; label < aScene.labels; label++) {
    int strokes = 0;
    for (int attempt = 0; attempt < 3000 && strokes < 3; attempt++) {
      const int x0 = static_cast<int>(random.uniform() * w);
      const int y0 = static_cast<int>(random.uniform() * h);
      const double angle = 6.28318 * random.uniform();
      const int length = attempt < 1000 ? w / 16 : w / 40;
      bool fits = true;
      for (int t = 0; t <= length && fits; t++)
        fits = inside(static_cast<int>(x0 + t * std::cos(angle)), static_cast<int>(y0 + t * std::sin(angle)), label);
      if (!fits) continue;
      for (int t = 0; t <= length; t++)
        for (int c = 0; c < 3; c++)
          canvas(static_cast<int>(x0 + t * std::cos(angle)), static_cast<int>(y0 + t * std::sin(angle)), c) =
              static_cast<float>(kLabelColours[static_cast<size_t>(label)][static_cast<size_t>(c)]);
      strokes++;
    }
  }
  return canvas;
}


}  // namespace NBench
