// Detection end to end and the box helpers: an analytic detector whose output is known in
// closed form, suppression against a plain all-pairs version, wrong top layers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>

#include "network_test_util.h"
#include "orva/networks.h"

using namespace orva_test;
using ORVA::BBox;

namespace {

// ---- Suppression -------------------------------------------------------------------------

double ref_iou(const BBox& a, const BBox& b) {
  const double ow = std::min(a.x + a.w / 2.0, b.x + b.w / 2.0) - std::max(a.x - a.w / 2.0, b.x - b.w / 2.0);
  const double oh = std::min(a.y + a.h / 2.0, b.y + b.h / 2.0) - std::max(a.y - a.h / 2.0, b.y - b.h / 2.0);
  const double inter = ow >= 0 && oh >= 0 ? ow * oh : 0;
  return inter / ((double)a.w * a.h + (double)b.w * b.h - inter);
}

// Every candidate above thresh is tested against every better-scored one above thresh.
// Candidates whose fate hangs on a comparison within float error of its bound are marked
// in `unsure`.
std::vector<float> ref_suppress(const std::vector<BBox>& box, std::vector<float> prob, float nms, float thresh,
                                bool soft, std::vector<bool>& unsure) {
  const std::vector<float> orig = prob;
  unsure.assign(box.size(), false);
  for (size_t j = 0; j < box.size(); ++j) {
    if (!(orig[j] > thresh)) continue;
    for (size_t i = 0; i < box.size(); ++i) {
      if (!(orig[i] > orig[j]) || !(orig[i] > thresh)) continue;
      const double o = ref_iou(box[i], box[j]);
      const double margin = soft ? std::exp(-2 * o * o) * orig[j] - thresh : o - nms;
      if (std::fabs(margin) < 1e-5) unsure[j] = true;
      if (soft ? std::exp(-2 * o * o) * orig[j] < thresh : (nms < 1 && o > nms)) prob[j] = 0;
    }
  }
  return prob;
}

void expect_ranked(const std::vector<float>& prob, const std::vector<int>& rank) {
  std::vector<int> sorted = rank;
  std::sort(sorted.begin(), sorted.end());
  for (size_t k = 0; k < sorted.size(); ++k) ASSERT_EQ(sorted[k], (int)k) << "rank is not a permutation";
  for (size_t k = 1; k < rank.size(); ++k) EXPECT_GE(prob[rank[k - 1]], prob[rank[k]]) << "rank position " << k;
}

TEST(BoxSuppression, MatchesAllPairsHardAndSoft) {
  // n = 300 leaves hundreds above the thresholds, so the parallel sweep is the one tested.
  for (auto [nms, thresh] : {std::pair<float, float>{0.45f, 0.3f}, {0.1f, 0.05f}, {1.0f, 0.3f}, {1.5f, 0.3f},
                             {0.f, 0.3f}, {0.f, 0.6f}}) {
    // Distinct scores (so the order is defined), boxes dense enough to overlap often.
    std::vector<float> prob = random_floats(300, 0.f, 1.f), pos = random_floats(4 * 300, 0.f, 1.f);
    std::vector<BBox> box;
    for (int k = 0; k < 300; ++k)
      box.push_back(BBox{pos[4 * k], pos[4 * k + 1], 0.05f + 0.3f * pos[4 * k + 2], 0.05f + 0.3f * pos[4 * k + 3]});
    const bool soft = nms <= 0;
    std::vector<bool> unsure;
    std::vector<float> want = ref_suppress(box, prob, nms, thresh, soft, unsure);
    std::vector<int> rank(box.size());
    if (soft)
      ORVA::box_nms_soft(box.data(), prob.data(), rank.data(), (int)rank.size(), thresh);
    else
      ORVA::box_nms(box.data(), prob.data(), rank.data(), (int)rank.size(), nms, thresh);
    for (size_t k = 0; k < want.size(); ++k)
      if (!unsure[k]) EXPECT_EQ(prob[k], want[k]) << "candidate " << k << ", nms " << nms << ", thresh " << thresh;
    expect_ranked(prob, rank);
  }
}

// The all-pairs comparison above has distinct scores (and so covers chains and input order);
// two equal overlapping scores: exactly one survives, whichever the sort put first.
TEST(BoxSuppression, EqualScoresKeepOne) {
  std::vector<BBox> box = {{0.8f, 0.2f, 0.1f, 0.1f}, {0.81f, 0.2f, 0.1f, 0.1f}, {0.2f, 0.5f, 0.2f, 0.2f}};
  std::vector<float> prob = {0.6f, 0.6f, 0.9f};
  std::vector<int> rank(3);
  ORVA::box_nms(box.data(), prob.data(), rank.data(), 3, 0.3f, 0.1f);
  EXPECT_EQ((prob[0] == 0.f) + (prob[1] == 0.f), 1);
  EXPECT_EQ(prob[2], 0.9f);
}

// Class-wise greedy suppression: a chain A > B > C where A and B overlap (IoU 1/3) and B and C
// overlap (1/3) but A and C do not keeps A and C (B dropped by A can't drop C); another class
// overlapping A stands; the centre-distance overlap (1/3 - 0.1) no longer drops B at 0.3.
TEST(BoxSuppression, ClassWiseGreedyKeepsTheChainEnds) {
  const std::vector<BBox> box = {{0.3f, 0.5f, 0.4f, 0.2f}, {0.5f, 0.5f, 0.4f, 0.2f}, {0.7f, 0.5f, 0.4f, 0.2f},
                                 {0.3f, 0.5f, 0.4f, 0.2f}};
  const std::vector<int> cid = {0, 0, 0, 1};
  struct Case {
    float beta;
    std::vector<float> want;
  } cases[] = {{-1, {0.9f, 0, 0.7f, 0.5f}}, {1, {0.9f, 0.8f, 0.7f, 0.5f}}};
  for (const Case& c : cases) {
    std::vector<BBox> b = box;
    std::vector<float> prob = {0.9f, 0.8f, 0.7f, 0.5f};
    std::vector<int> rank(4);
    ORVA::box_nms_class(b.data(), prob.data(), cid.data(), rank.data(), 4, 0.3f, 0.1f, c.beta);
    EXPECT_EQ(prob, c.want) << "beta " << c.beta;
    expect_ranked(prob, rank);
  }
}

TEST(BoxHelpers, OverlapMeasures) {
  const BBox a{0.5f, 0.5f, 0.4f, 0.2f};
  EXPECT_FLOAT_EQ(ORVA::box_iou(a, BBox{0.7f, 0.5f, 0.4f, 0.2f}), 1.f / 3.f);  // suppression covers the rest
  // Half the width apart: IoU 1/3, enclosing box 0.6 x 0.2, distance 0.2.
  EXPECT_NEAR(ORVA::box_iou_dist(a, BBox{0.7f, 0.5f, 0.4f, 0.2f}, 1.f), 1.0 / 3 - 0.04 / 0.40, 1e-6);
  EXPECT_EQ(ORVA::box_iou_dist(a, BBox{0.9f, 0.5f, 0.4f, 0.2f}, 1.f), 0.f);
}

// ---- The analytic detector -----------------------------------------------------------------

// The analytic detector of network_test_util.h.
constexpr int kW = 16, kH = 12, kAnchors = 2, kClasses = 2;
// Half sizes a 128th past the half cell keep every box edge off pixel boundaries.
const float kAnchorSize[4] = {1.015625f, 2.515625f, 3.015625f, 1.015625f};

struct Hot {
  int i, j;
  bool red, green, blue;
};
// (2, 6) and (2, 7) overlap with IoU 0.43 (hard 0.4 removes the lower one, soft does not); the rest stand apart.
const Hot kHot[] = {{2, 2, 1, 0, 0}, {8, 5, 1, 1, 0}, {12, 9, 0, 0, 1}, {5, 9, 0, 1, 1}, {2, 6, 1, 1, 0}, {2, 7, 1, 0, 0}};

cv::Mat detector_frame() {
  cv::Mat m(kH, kW, CV_8UC3, cv::Scalar(0, 0, 0));
  for (const Hot& h : kHot) m.at<cv::Vec3b>(h.j, h.i) = cv::Vec3b(h.blue * 255, h.green * 255, h.red * 255);
  return m;
}

struct Expected {
  int cid;
  float prob;
  cv::Rect rect;
};

// The frame was letterboxed, centred, into the 16 x 12 input; boxes go back to its pixels.
std::vector<Expected> expected_objects(cv::Size frame, float thresh, float nms) {
  const double obj = 1 / (1 + std::exp(-4.0));
  const double scale = std::min((double)kW / frame.width, (double)kH / frame.height);
  const double pad_x = (kW - frame.width * scale) / 2, pad_y = (kH - frame.height * scale) / 2;
  std::vector<Expected> out;
  for (const Hot& h : kHot) {
    const int n = h.red ? 0 : 1;
    const double p = (h.green ? 0.75 : 0.5) * obj;
    if (p <= thresh) continue;
    // The lower-scored one of the overlapping pair: hard suppression only.
    if (h.i == 2 && h.j == 7 && nms > 0 && nms < 1) continue;
    const double cx = (h.i + 0.5 - pad_x) / scale, cy = (h.j + 0.5 - pad_y) / scale;
    const double hw = kAnchorSize[2 * n] / 2 / scale, hh = kAnchorSize[2 * n + 1] / 2 / scale;
    const int left = std::max((int)(cx - hw), 0), top = std::max((int)(cy - hh), 0);
    const int right = std::min((int)(cx + hw), frame.width - 1), bottom = std::min((int)(cy + hh), frame.height - 1);
    out.push_back(Expected{h.green ? 1 : 0, (float)p, cv::Rect(left, top, right - left, bottom - top)});
  }
  return out;
}

void expect_objects(const ORVA::DetectObjList& got, std::vector<Expected> want, const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (size_t k = 1; k < got.size(); ++k) EXPECT_GE(got[k - 1].prob, got[k].prob) << what << ": not by descending score";
  // Equal scores come in no defined order: match by rectangle.
  for (const ORVA::DetectObj& o : got) {
    auto it = std::find_if(want.begin(), want.end(), [&](const Expected& e) { return e.rect == o.bbox; });
    ASSERT_NE(it, want.end()) << what << ": unexpected box " << o.bbox;
    EXPECT_EQ(o.cid, it->cid) << what;
    EXPECT_EQ(o.oid, -1);
    // The head computes in half: one rounding of the logistic and one of the product.
    EXPECT_NEAR(o.prob, it->prob, 2e-3 * it->prob) << what;
    want.erase(it);
  }
}

class DetectNetworkTest : public ::testing::TestWithParam<int> {};

TEST_P(DetectNetworkTest, AnalyticDetectorSingleAndBatch) {
  const std::string cfg = temp_path("detector.cfg");
  write_file(cfg, kAnalyticDetectorCfg);
  ORVA::DetectNetwork net(ORVA::TEST, 4, GetParam());
  ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
  set_analytic_detector_weights(net);
  EXPECT_EQ(net.getClassNum(), kClasses);
  EXPECT_EQ(net._gridsz, kW * kH * kAnchors);
  cv::Mat frame = detector_frame();

  const cv::Size wide(640, 240), tall(180, 720), same(320, 240);
  for (cv::Size size : {wide, tall, same}) {
    ORVA::DetectObjList objs;
    cv::Size s = size;
    ASSERT_NE(net.detect(objs, frame, s, 0.3f, 0.4f), nullptr);
    expect_objects(objs, expected_objects(size, 0.3f, 0.4f), "single " + std::to_string(size.width));
  }

  // Per-key parameters: hard, soft (nms 0), a high threshold without suppression, and a key
  // never set (0.3 and 0.4).
  net.setParameter(5, 0.3f, 0.4f);
  net.setParameter(6, 0.3f, 0.f);
  net.setParameter(7, 0.6f, 1.f);
  unsigned int keys[4] = {5, 6, 7, 99};
  cv::Size sizes[4] = {wide, tall, same, tall};
  cv::Mat frames[4] = {frame, frame, frame, frame};
  ORVA::DetectObjList lists[4];
  ASSERT_NE(net.detect(lists, frames, sizes, keys, 4), nullptr);
  const float params[4][2] = {{0.3f, 0.4f}, {0.3f, 0.f}, {0.6f, 1.f}, {0.3f, 0.4f}};
  for (int k = 0; k < 4; ++k)
    expect_objects(lists[k], expected_objects(sizes[k], params[k][0], params[k][1]), "batch image " + std::to_string(k));
  EXPECT_EQ(net.detect(lists, frames, sizes, keys, 0), nullptr);

  // Heat map of class 1 at twice the grid resolution: one pixel per winning candidate.
  const float* out = net.predict(frames, 1);
  cv::Mat map;
  net.getHeatmap(const_cast<float*>(out), map, 1, 0.3f);
  ASSERT_EQ(map.rows, 2 * kH);
  ASSERT_EQ(map.cols, 2 * kW);
  int lit = 0;
  for (const Hot& h : kHot) {
    if (!h.green) continue;
    ++lit;
    double peak;
    cv::minMaxLoc(map(cv::Rect(2 * h.i, 2 * h.j, 2, 2)), nullptr, &peak);
    EXPECT_EQ(peak, (int)(0.75 / (1 + std::exp(-4.0)) * 255)) << h.i << "," << h.j;
  }
  EXPECT_EQ(cv::countNonZero(map), lit);
}

// Yolo networks suppress class by class: on the one red cell both anchors give the same
// 8 x 8 box, anchor 0 as class 0 and anchor 1 as class 1, and both boxes stay.
TEST(DetectNetworkYolo, OverlappingBoxesOfOtherClassesStay) {
  const std::string cfg = temp_path("yolo_detector.cfg");
  write_file(cfg, "[network]\nwidth=16\nheight=12\nchannels=3\n[convolution]\nfilters=14\nsize=1\nactivation=linear\n"
                  "[yolo]\nmask=0,1\nanchors=8,8, 8,8\nnum=2\nclasses=2\n");
  ORVA::DetectNetwork net(ORVA::TEST, 1, -1);
  ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
  std::vector<float> w(14 * 3, 0.f), b(14, 0.f);
  for (int n = 0; n < 2; ++n) {
    w[(n * 7 + 4) * 3 + 0] = 8.f;  // objectness logistic(8 x red - 4)
    b[n * 7 + 4] = -4.f;
    b[n * 7 + 5 + n] = 4.f, b[n * 7 + 6 - n] = -4.f;
  }
  push(net.getHandle(), conv_at(net, 0)->_weight, to_halves(w));
  push(net.getHandle(), conv_at(net, 0)->_bias, to_halves(b));
  cv::Mat frame(kH, kW, CV_8UC3, cv::Scalar(0, 0, 0));
  frame.at<cv::Vec3b>(5, 7) = cv::Vec3b(0, 0, 255);
  cv::Size size(kW, kH);
  ORVA::DetectObjList objs;
  ASSERT_NE(net.detect(objs, frame, size, 0.3f, 0.45f), nullptr);
  ASSERT_EQ(objs.size(), 2u);
  EXPECT_NE(objs[0].cid, objs[1].cid);
  EXPECT_EQ(objs[0].bbox, objs[1].bbox);
}

INSTANTIATE_TEST_SUITE_P(Backends, DetectNetworkTest, ::testing::ValuesIn(test_backends()), backend_param_name);

// ---- Classification ------------------------------------------------------------------------

// A 1 x 1 convolution with zero weights: the scores are its biases.
const float kScores[5] = {0.25f, 0.75f, 0.5f, 0.75f, -1.f};

template <typename Net>
void load_scores(Net& net, const std::string& tail) {
  const std::string cfg = temp_path("scores.cfg");
  write_file(cfg, "[network]\nwidth=1\nheight=1\nchannels=3\n[convolution]\nfilters=5\nsize=1\nactivation=linear\n" + tail);
  ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
  push(net.getHandle(), conv_at(net, 0)->_weight, to_halves(std::vector<float>(15, 0.f)));
  push(net.getHandle(), conv_at(net, 0)->_bias, to_halves(std::vector<float>(kScores, kScores + 5)));
}

TEST(ClassifyNetwork, BestClassAndTopK) {
  ORVA::ClassifyNetwork net(ORVA::TEST, 2, -1);
  load_scores(net, "");
  EXPECT_EQ(net.getClassNum(), 5);
  cv::Mat frames[2] = {cv::Mat::zeros(1, 1, CV_8UC3), cv::Mat::zeros(1, 1, CV_8UC3)};
  ORVA::ClassIdList lists[2];
  // Best class: the lower index wins a tie, a score equal to the threshold is kept.
  ASSERT_NE(net.classify(lists, frames, 0.75f, 1, 2), nullptr);
  ASSERT_EQ(lists[1].size(), 1u);
  EXPECT_EQ(std::make_pair(lists[1][0].id, lists[1][0].prob), std::make_pair(1, 0.75f));
  net.classify(lists, frames, 0.8f, 1, 2);
  EXPECT_TRUE(lists[0].empty());
  // Top k beyond the class count: every class reaching the threshold, best first.
  net.classify(lists, frames, 0.f, 9, 2);
  ASSERT_EQ(lists[0].size(), 4u);
  EXPECT_EQ(lists[0][0].id + lists[0][1].id, 1 + 3);
  EXPECT_EQ(lists[0][2].id * 10 + lists[0][3].id, 20);
  EXPECT_EQ(net.classify(lists, frames, 0.f, 1, 0), nullptr);
}

TEST(GroupClassifyNetwork, WinnerPerGroupAndSmoothing) {
  ORVA::GroupClassifyNetwork net(ORVA::TEST, 1, -1);
  load_scores(net, "[softmax]\ngroups=2\nmap=2,3\n");
  ASSERT_EQ(net.getGroups(), 2);
  cv::Mat frame = cv::Mat::zeros(1, 1, CV_8UC3);
  ORVA::ClassIdList list;
  const float* out = net.classify(&list, &frame, 1);
  ASSERT_NE(out, nullptr);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].id, 1);
  EXPECT_EQ(list[0].prob, out[1]);
  EXPECT_EQ(list[1].id, 1);
  EXPECT_NEAR(list[1].prob, std::exp(0.75) / (std::exp(0.5) + std::exp(0.75) + std::exp(-1.0)), 1e-3);
  std::vector<float> history(5, 0.f);
  net.classify(&list, &frame, history.data(), 0.5f, 1);
  net.classify(&list, &frame, history.data(), 0.5f, 1);
  EXPECT_FLOAT_EQ(list[1].prob, 0.75f * out[3]);
}

TEST(HeatmapNetwork, ClassMapsOnTheFineGrid) {
  // 3 x 2 cells of 2 x 2 sub-cells, objectness 0.5; class 1 wins sub-cells 0 and 3 (scores 0.75
  // and 0.5), class 0 the others. Cell (2, 1) alone gets a class-1 score of 0.76 in sub-cell 1.
  const std::string cfg = temp_path("heat.cfg");
  write_file(cfg, "[network]\nwidth=3\nheight=2\nchannels=3\n[convolution]\nfilters=12\nsize=1\nactivation=linear\n"
                  "[heatmap]\nclasses=2\nnum=4\n");
  ORVA::HeatmapNetwork net(ORVA::TEST, 2, -1);
  ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
  EXPECT_EQ(net.getClassNum(), 2);
  const float bias[12] = {0, 0, 0.75f, 0, 0.25f, 0, 0, 0.25f, 0, 0, 0, 0.5f};
  std::vector<float> w(36, 0.f);
  w[5 * 3 + 0] = 3.f;  // sub-cell 1, class 1, from the red plane
  push(net.getHandle(), conv_at(net, 0)->_weight, to_halves(w));
  push(net.getHandle(), conv_at(net, 0)->_bias, to_halves(std::vector<float>(bias, bias + 12)));
  cv::Mat frame = cv::Mat::zeros(2, 3, CV_8UC3);
  frame.at<cv::Vec3b>(1, 2) = cv::Vec3b(0, 0, 65);  // 65 / 255 x 3 x 0.5 x 255 = 97.5
  cv::Mat frames[2] = {frame, frame};
  float* out = net.predict(frames, 2);
  // Key 4: 0.25 itself is kept; the unknown key's 0.3 drops it.
  net.setParameter(4, 0.25f);
  unsigned int keys[2] = {4, 9};
  int cids[2] = {1, 1};
  cv::Mat maps[2];
  net.getHeatmap(out, maps, cids, keys, 2);
  for (int k = 0; k < 2; ++k) {
    ASSERT_EQ(maps[k].size(), cv::Size(6, 4));
    for (int r = 0; r < 4; ++r)
      for (int c = 0; c < 6; ++c) {
        const int sub = (r % 2) * 2 + c % 2;
        int want = sub == 0 ? 95 : (sub == 3 && k == 0 ? 63 : 0);  // trunc(0.375 and 0.25 x 255)
        if (r == 2 && c == 5) want = 97;
        EXPECT_EQ(maps[k].at<unsigned char>(r, c), want) << "image " << k << " at " << r << "," << c;
      }
  }
}

template <typename Net>
void load_into(const std::string& cfg) {
  Net net(ORVA::TEST, 1, -1);
  net.load(cfg.c_str(), nullptr);
}

TEST(DetectNetworkDeath, WrongTopLayerEndsTheProcess) {
  const std::string cfg = temp_path("conv.cfg");
  write_file(cfg, "[network]\nwidth=8\nheight=8\nchannels=3\n[convolution]\nfilters=2\nsize=1\n");
  EXPECT_EXIT(load_into<ORVA::DetectNetwork>(cfg), ::testing::ExitedWithCode(255),
              "ERROR: top layer is not LayerType::Region");
  EXPECT_EXIT(load_into<ORVA::HeatmapNetwork>(cfg), ::testing::ExitedWithCode(255), "LayerType::Heatmap");
  EXPECT_EXIT(load_into<ORVA::GroupClassifyNetwork>(cfg), ::testing::ExitedWithCode(255), "LayerType::Softmax");
  ORVA::setFatalThrows(true);  // an error, not a direct exit
  EXPECT_THROW(load_into<ORVA::DetectNetwork>(cfg), ORVA::FatalError);
  ORVA::setFatalThrows(false);
}

}  // namespace
