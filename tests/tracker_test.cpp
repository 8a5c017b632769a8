// Multi-object tracker: reporting rules, gating, identities, frame edges, and a synthetic
// scenario whose identity switches and misses are pinned.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "orva/tracker.h"

namespace {

using ORVA::DetectObj;
using ORVA::DetectObjList;
using ORVA::Tracker;
using Ids = std::vector<std::pair<int, cv::Rect>>;

DetectObj det(const cv::Rect& r, int cid = 1, float prob = 0.9f) { return DetectObj{cid, -1, prob, r}; }

// Identity and box of each reported object, in order.
Ids ids(const DetectObjList& l) {
  Ids v;
  for (const DetectObj& o : l) v.emplace_back(o.oid, o.bbox);
  return v;
}

// Sets the identity counter, which is otherwise only reachable after 2^31 tracks.
class TrackerProbe : public Tracker {
 public:
  using Tracker::Tracker;
  void setNextId(int id) { _idSeq = id; }
  size_t liveTracks() const { return _ktracker.size(); }
};

class TrackerTest : public testing::Test {
 protected:
  cv::Mat frame = cv::Mat(480, 640, CV_8UC3);  // only its size is read
  // Square boxes and even sides survive the centre/area/ratio round trip exactly.
  const cv::Rect a{10, 20, 40, 40}, b{200, 100, 30, 60}, c{100, 100, 40, 40};

  DetectObjList run(Tracker& t, DetectObjList dets) {
    t.process(frame, dets);
    return dets;
  }
};

TEST_F(TrackerTest, FirstFrameReportsEveryDetectionAtOnceThenWaitsForMinHit) {
  Tracker t(3, 3, 0.3f);
  // Nothing, and boxes without area (no aspect ratio): dropped, no identity spent.
  EXPECT_TRUE(run(t, {}).empty());
  EXPECT_TRUE(run(t, {det({5, 5, 0, 10}), det({5, 5, 10, -3})}).empty());
  DetectObjList out = run(t, {det(a, 2, 0.8f), det(b, 5, 0.6f)});
  EXPECT_EQ(ids(out), (Ids{{0, a}, {1, b}}));
  EXPECT_EQ(std::make_pair(out[0].cid, out[0].prob), std::make_pair(2, 0.8f));
  EXPECT_EQ(out[1].cid, 5);
  // Confirmation needs minHit consecutive matches: frames 2 and 3 are silent.
  EXPECT_TRUE(run(t, {det(a), det(b)}).empty());
  EXPECT_TRUE(run(t, {det(a), det(b)}).empty());
  out = run(t, {det(a, 3, 0.4f), det(b)});
  EXPECT_EQ(ids(out), (Ids{{0, a}, {1, b}}));
  EXPECT_EQ(out[0].cid, 3) << "class follows the last accepted detection";
  // 0.8 -> (0.8 + 0.9) / 2 -> (0.85 + 0.9) / 2 -> (0.875 + 0.4) / 2
  EXPECT_NEAR(out[0].prob, 0.6375f, 1e-6);
}

TEST_F(TrackerTest, MissedTrackIsReportedOnceThenHiddenThenDeleted) {
  TrackerProbe t(2, 1, 0.3f);
  run(t, {det(c)});
  ASSERT_EQ(run(t, {det(c)}).size(), 1u);  // matched, hit 1: confirmed
  // First miss: still reported, with its predicted box (still, so the same box).
  EXPECT_EQ(ids(run(t, {})), (Ids{{0, c}}));
  EXPECT_TRUE(run(t, {}).empty());  // second miss: hidden, kept
  EXPECT_EQ(t.liveTracks(), 1u);
  // Matched again after two misses (maxMiss 2): same identity, reported at once because the
  // confirmation is latched.
  EXPECT_EQ(ids(run(t, {det(c)})), (Ids{{0, c}}));
  // maxMiss + 1 consecutive misses delete the track; the object then returns as a new one.
  for (size_t live : {1u, 1u, 0u}) {
    run(t, {});
    EXPECT_EQ(t.liveTracks(), live);
  }
  EXPECT_EQ(ids(run(t, {det(c)})), (Ids{{1, c}})) << "identities continue after tracks die";
}

TEST_F(TrackerTest, GateComparesOneMinusCostWithTheThreshold) {
  // A still 40 x 40 track against a detection shifted by 20 px: IoU = 800 / 2400. The gate
  // sees IoU - 1e-5, so a threshold equal to the IoU rejects the match.
  const float iou = 800.0f / 2400.0f;
  const cv::Rect shifted(120, 100, 40, 40);
  for (float threshold : {iou, iou - 1e-4f}) {
    const bool accepted = threshold < iou;
    SCOPED_TRACE(accepted ? "just below the overlap" : "equal to the overlap");
    TrackerProbe t(5, 1, threshold);
    run(t, {det(c)});
    DetectObjList out = run(t, {det(shifted)});
    EXPECT_EQ(t.liveTracks(), accepted ? 1u : 2u);
    // Rejected: the old track missed (unreported: never confirmed) and the detection started
    // track 1, unreported in the frame it was born.
    if (!accepted) EXPECT_TRUE(out.empty());
    if (!accepted) out = run(t, {det(shifted)});
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].oid, accepted ? 0 : 1);
  }
}

TEST_F(TrackerTest, IdentitiesWrapToZeroAndResetRestarts) {
  TrackerProbe t(3, 1, 0.3f);
  t.setNextId(0x7FFFFFFF);
  const cv::Rect d(500, 10, 40, 40);
  EXPECT_EQ(ids(run(t, {det(a), det(c), det(d)})), (Ids{{2147483647, a}, {0, c}, {1, d}}));
  t.reset();
  EXPECT_EQ(t.liveTracks(), 0u);
  EXPECT_EQ(ids(run(t, {det(c)})), (Ids{{0, c}}));
}

TEST_F(TrackerTest, FrameEdgesClipAndDelete) {
  TrackerProbe t(5, 1, 0.3f);
  // Reaching the right and bottom edges: width W - x - 1 and height H - y - 1.
  EXPECT_EQ(ids(run(t, {det({620, 460, 20, 20})})), (Ids{{0, {620, 460, 19, 19}}}));
  // A box whose prediction lies wholly past the right edge is deleted before matching, so
  // a detection at the same place restarts through the first-frame path with a new id.
  t.reset();
  run(t, {det({700, 100, 40, 40})});
  EXPECT_EQ(t.liveTracks(), 1u);
  DetectObjList out = run(t, {det({700, 100, 40, 40})});
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].oid, 1);
  // An empty frame clips every prediction away; its detections start afresh.
  cv::Mat none;
  DetectObjList dets = {det({10, 10, 40, 40})};
  t.process(none, dets);
  EXPECT_EQ(t.liveTracks(), 1u);
  ASSERT_EQ(dets.size(), 1u);
  EXPECT_EQ(dets[0].oid, 2);
}

// ------------------------------------------------------------------ scenario

// Ground truth: boxes moving at constant velocity, detected with Gaussian noise except on
// the frames they are hidden, and only while they are inside the frame.
struct Walker {
  float x, y, vx, vy;
  int w, h;
  int hideFrom, hideTo;  // frames [hideFrom, hideTo) without detection
};

struct ScenarioResult {
  int idSwitches = 0;    // a truth object matched by a different identity than before
  int missedFrames = 0;  // frames where a visible truth object had no reported match
  int distinctIds = 0;
};

ScenarioResult run_scenario() {
  const cv::Size size(640, 480);
  std::vector<Walker> walkers = {
      {60, 60, 3, 1, 40, 40, -1, -1},        // steady
      {100, 200, 5, 0, 40, 60, -1, -1},      // meets the next one head-on at frame 40
      {500, 210, -5, 0, 40, 60, -1, -1},     //
      {300, 380, 0, -2, 50, 50, 20, 23},     // hidden 3 frames: must survive
      {150, 330, 2, -1, 36, 36, 30, 35},     // hidden 5 frames: outlives maxMiss
      {520, 60, 6, 2, 40, 40, -1, -1},       // leaves through the right edge
  };
  std::mt19937 gen(12345);  // fixed: the pinned counts belong to this exact sequence
  std::normal_distribution<float> noise(0.0f, 1.5f);

  ORVA::Tracker tracker(3, 2, 0.3f);
  cv::Mat frame(size, CV_8UC3);
  const cv::Rect inside(0, 0, size.width, size.height);
  std::vector<int> lastId(walkers.size(), -1);
  std::map<int, bool> seen;
  ScenarioResult r;
  for (int f = 0; f < 60; f++) {
    DetectObjList dets;
    std::vector<cv::Rect> truth(walkers.size());
    std::vector<bool> visible(walkers.size());
    for (size_t k = 0; k < walkers.size(); k++) {
      Walker& w = walkers[k];
      truth[k] = cv::Rect((int)std::lround(w.x), (int)std::lround(w.y), w.w, w.h) & inside;
      visible[k] = !(f >= w.hideFrom && f < w.hideTo) && truth[k].area() > 0;
      if (visible[k]) {
        cv::Rect noisy((int)std::lround(w.x + noise(gen)), (int)std::lround(w.y + noise(gen)),
                       (int)std::lround(w.w + noise(gen)), (int)std::lround(w.h + noise(gen)));
        noisy &= inside;
        if (noisy.area() > 0) dets.push_back(DetectObj{0, -1, 0.9f, noisy});
      }
      w.x += w.vx;
      w.y += w.vy;
    }
    tracker.process(frame, dets);
    for (const DetectObj& o : dets) seen[o.oid] = true;

    // Scoring after a warm-up that covers the confirmation delay; hidden objects are not
    // expected to be reported.
    if (f < 3) continue;
    for (size_t k = 0; k < walkers.size(); k++) {
      if (!visible[k]) continue;
      int best = -1;
      float bestIou = 0.3f;
      for (const DetectObj& o : dets) {
        const float inter = (float)(truth[k] & o.bbox).area();
        const float v = inter / (float)(truth[k].area() + o.bbox.area() - inter);
        if (v > bestIou) bestIou = v, best = o.oid;
      }
      if (best < 0) {
        r.missedFrames++;
        continue;
      }
      if (lastId[k] >= 0 && lastId[k] != best) r.idSwitches++;
      lastId[k] = best;
    }
  }
  r.distinctIds = (int)seen.size();
  return r;
}

// Why these values (docs/VIDEO.md has the frame-by-frame account):
// - the head-on crossing keeps both identities: constant velocity carries each prediction
//   past the other and the assignment picks the consistent pairing;
// - the 3-frame occlusion keeps its identity (miss count 3 does not exceed maxMiss 3) and
//   costs 0 missed frames, since hidden frames are not scored and the latched confirmation
//   reports it on the first frame back;
// - the 5-frame occlusion deletes its track: the object returns under a new identity (1
//   switch) that must first be confirmed (born unreported, then hit 1 < minHit 2: 2 missed
//   frames);
// - the box leaving on the right is reported until its clipped prediction collapses.
TEST(TrackerScenario, CrossingOcclusionAndExitAreHandled) {
  ScenarioResult r = run_scenario();
  EXPECT_EQ(r.idSwitches, 1);
  EXPECT_EQ(r.missedFrames, 2);
  EXPECT_EQ(r.distinctIds, 7);
}

}  // namespace
