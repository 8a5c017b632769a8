// The detector's scoring as the training proof uses it: the grid decoder and the mean average
// precision, on cases small enough to work out by hand.
#include <gtest/gtest.h>

#include "synth_scenes.h"

namespace {

using synth::Detection;

Detection det(int image, int cls, float x, float y, float score) { return {image, {cls, x, y, 0.2f, 0.2f}, score}; }
ORVA::BoxLabel truth(int cls, float x, float y) { return {cls, x, y, 0.2f, 0.2f}; }

TEST(MeanAveragePrecision, HandComputedCases) {
  struct Case {
    const char* what;
    std::vector<Detection> dets;
    std::vector<ORVA::BoxLabelList> truth;
    float iou, expected;
  };
  const ORVA::BoxLabelList three = {truth(0, .2f, .5f), truth(0, .5f, .5f), truth(0, .8f, .5f)};
  const Case cases[] = {
      // TP, FP (nothing there), FP (second hit on a taken truth), TP, TP: precision at the hits
      // is 1, 2/4, 3/5; made monotone from the right the middle one becomes 3/5, so
      // AP = (1 + 3/5 + 3/5) / 3.
      {"duplicates and misses",
       {det(0, 0, .2f, .5f, .9f), det(0, 0, .5f, .1f, .8f), det(0, 0, .2f, .5f, .7f), det(0, 0, .5f, .5f, .6f),
        det(0, 0, .8f, .5f, .5f)},
       {three},
       .5f,
       2.2f / 3},
      // Shifted by half a width: IoU 1/3, a miss at 0.5 and a hit at 0.3.
      {"iou threshold", {det(0, 0, .3f, .5f, .9f)}, {{truth(0, .2f, .5f)}}, .5f, 0.f},
      {"iou threshold lowered", {det(0, 0, .3f, .5f, .9f)}, {{truth(0, .2f, .5f)}}, .3f, 1.f},
      // Class 0: a hit in the wrong image first (P 0), then the hit: AP 1/2. Class 1: a box on
      // the class-0 truth first, then its own: AP 1/2. Class 2 has no truth and is not counted.
      {"classes and images apart",
       {det(1, 0, .2f, .5f, .7f), det(0, 0, .2f, .5f, .6f), det(0, 1, .2f, .5f, .9f),
        det(1, 1, .8f, .5f, .8f), det(0, 2, .5f, .5f, .99f)},
       {{truth(0, .2f, .5f)}, {truth(1, .8f, .5f)}},
       .5f,
       .5f},
      {"truth never found", {}, {{truth(0, .2f, .5f)}}, .5f, 0.f},
  };
  for (const Case& c : cases) EXPECT_NEAR(synth::mean_ap(c.dets, c.truth, 3, c.iou), c.expected, 1e-6) << c.what;
}

TEST(GridDecoder, ScoresBoxesAndPerClassSuppression) {
  // 2 x 2 grid, 2 classes; planes: objectness, x, y, sqrt w, sqrt h, class 0, class 1.
  const int gw = 2, gh = 2, plane = gw * gh;
  std::vector<float> out(7 * plane, 0.f);
  auto set = [&](int cell, std::vector<float> v) {
    for (int p = 0; p < 7; ++p) out[p * plane + cell] = v[p];
  };
  set(1, {.8f, .5f, .25f, .5f, .4f, .5f, 1.2f});    // both classes, the second clamped to 1
  set(2, {1.5f, .5f, .5f, 1.f, 1.f, .9f, .2f});     // objectness clamped; class 1 under the threshold
  set(3, {.7f, 0.f, .5f, 1.f, 1.f, .9f, -.5f});     // overlaps cell 2 in class 0 (IoU .6), lower score
  set(0, {-.5f, .5f, .5f, .5f, .5f, -1.f, -1.f});   // negative objectness and classes score 0, not 0.5
  std::vector<Detection> dets;
  synth::decode_grid(out.data(), gw, gh, 2, 7, 0.3f, 0.45f, dets);
  ASSERT_EQ(dets.size(), 3u);
  const struct {
    int cls;
    float score, x, y, w, h;
  } want[] = {{0, .9f, .25f, .75f, 1.f, 1.f}, {1, .8f, .75f, .125f, .25f, .16f}, {0, .4f, .75f, .125f, .25f, .16f}};
  for (size_t i = 0; i < dets.size(); ++i) {
    const Detection& d = dets[i];
    EXPECT_EQ(std::make_pair(d.image, d.box.id), std::make_pair(7, want[i].cls)) << i;
    const float got[5] = {d.score, d.box.x, d.box.y, d.box.w, d.box.h}, w[5] = {want[i].score, want[i].x, want[i].y, want[i].w, want[i].h};
    for (int k = 0; k < 5; ++k) EXPECT_NEAR(got[k], w[k], 1e-6) << i << " field " << k;
  }
}

// The proof's claims about its scenes: crowded ones overlap only partly, share cells and span
// sizes 8x; plain ones keep every object apart in its own cell; a scene depends only on its
// seed and index, so the training, validation and test sets are distinct.
TEST(SyntheticScenes, CrowdedAndPlainSetsKeepTheirRules) {
  for (const bool crowded : {true, false}) {
    int overlapping = 0, sharing = 0;
    float smallest = 1, largest = 0;
    for (uint32_t i = 0; i < 150; ++i) {
      ORVA::BoxLabelList boxes;
      synth::make_scene(3, i, 128, 6, boxes, crowded);
      ASSERT_FALSE(boxes.empty());
      std::vector<float> hidden(boxes.size(), 0.f);
      for (size_t a = 0; a < boxes.size(); ++a) {
        const ORVA::BoxLabel& p = boxes[a];
        smallest = std::min(smallest, std::max(p.w, p.h));
        largest = std::max(largest, std::max(p.w, p.h));
        for (size_t b = a + 1; b < boxes.size(); ++b) {
          const ORVA::BoxLabel& q = boxes[b];
          const float iou = synth::box_iou(p, q);
          EXPECT_LE(iou, crowded ? 0.25f : 0.f) << i;
          hidden[a] += synth::covered(p, q);  // q is drawn over p
          overlapping += iou > 0;
          sharing += (int)(p.x * 6) == (int)(q.x * 6) && (int)(p.y * 6) == (int)(q.y * 6);
        }
        EXPECT_LE(hidden[a], crowded ? 0.4f + 1e-6f : 0.f) << i;
      }
    }
    if (crowded) {
      EXPECT_GT(overlapping, 10);
      EXPECT_GT(sharing, 10);
      EXPECT_LT(smallest, 0.08f);
      EXPECT_GT(largest, 0.5f);
    } else {
      EXPECT_EQ(sharing, 0);
    }
  }
  ORVA::BoxLabelList a, b, c;
  const cv::Mat first = synth::make_scene(1, 5, 64, 1, a, true), again = synth::make_scene(1, 5, 64, 1, b, true);
  const cv::Mat other = synth::make_scene(1000004, 5, 64, 1, c, true);
  EXPECT_EQ(cv::norm(first, again, cv::NORM_INF), 0.0);
  EXPECT_GT(cv::norm(first, other, cv::NORM_INF), 0.0);
  ASSERT_EQ(a.size(), b.size());
  for (size_t k = 0; k < a.size(); ++k) EXPECT_EQ(a[k].x, b[k].x);
}

}  // namespace
