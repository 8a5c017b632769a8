// The yolo head and the darknet families' sections, run side by side with OpenCV's DNN module
// on small networks of the YOLOv3-tiny, YOLOv3, YOLOv4-tiny and YOLOv4 shapes (random weights
// with batch-normalisation statistics), and the head's decoding against float64.
#include <gtest/gtest.h>

#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "darknet.h"
#include "layer/yolo_layer.h"
#include "model_build.h"
#include "network_test_util.h"
#include "orva/networks.h"

namespace {

using orva_test::temp_path;

const char* kAnchors = "anchors=4,6, 8,10, 12,20, 20,16, 30,34, 44,40\nnum=6\nclasses=2\n";

// Small networks of each family's shape: the same section kinds in the same roles.
const std::string kTinyV3 = std::string(R"(
[convolutional]
batch_normalize=1
filters=8
size=3
stride=1
pad=1
activation=leaky
[maxpool]
size=2
stride=2
[convolutional]
batch_normalize=1
filters=16
size=3
pad=1
activation=leaky
[maxpool]
size=2
stride=2
[convolutional]
batch_normalize=1
filters=16
size=3
pad=1
activation=leaky
[maxpool]
size=2
stride=2
[maxpool]
size=2
stride=1
[convolutional]
batch_normalize=1
filters=32
size=3
pad=1
activation=leaky
[convolutional]
filters=21
size=1
activation=linear
[yolo]
mask=3,4,5
)") + kAnchors + R"(
[route]
layers=-3
[convolutional]
batch_normalize=1
filters=8
size=1
activation=leaky
[upsample]
stride=2
[route]
layers=-1,4
[convolutional]
filters=21
size=1
activation=linear
[yolo]
mask=0,1,2
)" + kAnchors;

const std::string kTinyV4 = std::string(R"(
[convolutional]
batch_normalize=1
filters=8
size=3
stride=2
pad=1
activation=leaky
[convolutional]
batch_normalize=1
filters=16
size=3
pad=1
activation=leaky
[route]
layers=-1
groups=2
group_id=1
[convolutional]
batch_normalize=1
filters=8
size=3
pad=1
activation=leaky
[route]
layers=-1,-2
[maxpool]
size=2
stride=2
[convolutional]
batch_normalize=1
filters=16
size=3
pad=1
activation=leaky
[convolutional]
filters=21
size=1
activation=linear
[yolo]
mask=3,4,5
scale_x_y=1.05
iou_loss=ciou
nms_kind=greedynms
beta_nms=0.6
)") + kAnchors + R"(
[route]
layers=-4
[convolutional]
batch_normalize=1
filters=8
size=1
activation=leaky
[upsample]
stride=2
[route]
layers=-1,4
[convolutional]
filters=21
size=1
activation=linear
[yolo]
mask=0,1,2
scale_x_y=1.05
)" + kAnchors;

const std::string kV3 = std::string(R"(
[convolutional]
batch_normalize=1
filters=8
size=3
pad=1
activation=leaky
[convolutional]
batch_normalize=1
filters=16
size=3
stride=2
pad=1
activation=leaky
[convolutional]
batch_normalize=1
filters=8
size=1
activation=leaky
[convolutional]
batch_normalize=1
filters=16
size=3
pad=1
activation=leaky
[shortcut]
from=-3
activation=linear
[convolutional]
batch_normalize=1
filters=32
size=3
stride=2
pad=1
activation=leaky
[convolutional]
filters=21
size=1
activation=linear
[yolo]
mask=3,4,5
)") + kAnchors + R"(
[route]
layers=-3
[upsample]
stride=2
[route]
layers=-1,4
[convolutional]
filters=21
size=1
activation=linear
[yolo]
mask=0,1,2
)" + kAnchors;

const std::string kV4 = std::string(R"(
[convolutional]
batch_normalize=1
filters=8
size=3
pad=1
activation=mish
[convolutional]
batch_normalize=1
filters=16
size=3
stride=2
pad=1
activation=mish
[convolutional]
batch_normalize=1
filters=8
size=1
activation=leaky
[maxpool]
stride=1
size=5
[route]
layers=-2
[maxpool]
stride=1
size=9
[route]
layers=-4
[maxpool]
stride=1
size=13
[route]
layers=-1,-3,-5,-6
[convolutional]
batch_normalize=1
filters=16
size=1
activation=swish
[convolutional]
filters=42
size=1
activation=linear
[yolo]
mask=0,1,2,3,4,5
scale_x_y=1.2
iou_loss=ciou
nms_kind=greedynms
)") + kAnchors;

std::string with_net(const std::string& body, int w, int h) {
  return "[net]\nbatch=1\nwidth=" + std::to_string(w) + "\nheight=" + std::to_string(h) + "\nchannels=3\n" + body;
}

// Weights in the dialect's order, of sensible scale: per convolution biases, then (with
// normalisation) scales, means and variances, then the filters scaled to the fan-in.
std::vector<float> random_weights(const std::vector<orvacli::DarknetSection>& sections,
                                  const orvacli::ConvertedModel& shapes_of) {
  std::vector<float> w;
  std::vector<int> channels;  // per dialect layer
  int c = 3;
  size_t engine = 0;
  for (size_t s = 1; s < sections.size(); ++s) {
    const orvacli::DarknetSection& sec = sections[s];
    auto key = [&](const char* k, int def) {
      for (const auto& kv : sec.keys)
        if (kv.key == k) return std::stoi(kv.value);
      return def;
    };
    if (sec.name == "convolutional") {
      const int f = key("filters", 1), size = key("size", 1);
      auto add = [&](size_t n, float lo, float hi) {
        const std::vector<float> v = orva_test::random_floats(n, lo, hi);
        w.insert(w.end(), v.begin(), v.end());
      };
      add(f, -0.3f, 0.3f);
      if (key("batch_normalize", 0)) {
        add(f, 0.6f, 1.4f);
        add(f, -0.3f, 0.3f);
        add(f, 0.5f, 1.5f);
      }
      const float s = 1.7f / std::sqrt((float)c * size * size);
      add((size_t)f * c * size * size, -s, s);
    }
    c = shapes_of.shapes[engine++].c;
  }
  return w;
}

struct Pair {
  std::unique_ptr<ORVA::DetectNetwork> ours;
  cv::dnn::Net peer;
};

Pair build(const std::string& text, const std::string& name) {
  const std::string cfg = temp_path(name + ".cfg"), weights = temp_path(name + ".weights");
  orva_test::write_file(cfg, text);
  const auto sections = orvacli::readDarknetCfg(cfg);
  const std::vector<float> w = random_weights(sections, orvacli::darknetToEngine(sections, cfg, nullptr, ""));
  std::vector<unsigned char> bytes(20, 0);
  const int32_t head[3] = {0, 2, 0};
  std::memcpy(bytes.data(), head, 12);
  bytes.insert(bytes.end(), reinterpret_cast<const unsigned char*>(w.data()),
               reinterpret_cast<const unsigned char*>(w.data() + w.size()));
  orva_test::write_bytes(weights, bytes);
  const orvacli::ConvertedModel m = orvacli::darknetToEngine(sections, cfg, &bytes, weights);
  const std::string model = temp_path(name + ".orva");
  orvacli::writeModel(m, model);
  Pair p;
  p.ours = std::make_unique<ORVA::DetectNetwork>(ORVA::TEST, 1, -1);
  EXPECT_EQ(p.ours->load(model.c_str()), 0);
  p.peer = cv::dnn::readNetFromDarknet(cfg, weights);
  return p;
}

// A picture with a few solid shapes on a textured ground.
cv::Mat picture(int w, int h) {
  cv::Mat img(h, w, CV_8UC3);
  cv::randu(img, 60, 120);
  cv::rectangle(img, cv::Rect(w / 8, h / 6, w / 3, h / 3), cv::Scalar(20, 200, 240), cv::FILLED);
  cv::circle(img, cv::Point(2 * w / 3, 2 * h / 3), std::min(w, h) / 5, cv::Scalar(230, 40, 30), cv::FILLED);
  cv::rectangle(img, cv::Rect(w / 2, h / 10, w / 4, h / 5), cv::Scalar(250, 250, 250), cv::FILLED);
  return img;
}

std::vector<float> pulled(ORVA::Layer* l) { return orva_test::to_floats(orva_test::pull(l->_gpu_handle, l->_output, l->_outputs)); }

double logistic(double x) { return 1 / (1 + std::exp(-x)); }

struct Family {
  const char* name;
  const std::string* body;
};

class YoloFamilies : public ::testing::TestWithParam<std::tuple<Family, cv::Size>> {};

// Each head's decoded rows against OpenCV's (its row order: cell, then anchor; class scores
// times objectness, cleared below OpenCV's fixed 0.2) and against float64 from the head's
// input; then the boxes after one class-wise suppression on a picture.
TEST_P(YoloFamilies, HeadsAndFinalBoxesAgreeWithOpenCV) {
  const Family fam = std::get<0>(GetParam());
  const cv::Size size = std::get<1>(GetParam());
  Pair p = build(with_net(*fam.body, size.width, size.height), fam.name);
  ASSERT_GT(p.ours->getLayerCount(), 0);
  cv::Mat img = picture(size.width, size.height);
  cv::Mat blob = cv::dnn::blobFromImage(img, 1 / 255.0, size, cv::Scalar(), true, false);
  p.peer.setInput(blob);
  std::vector<cv::Mat> peer_out;
  p.peer.forward(peer_out, p.peer.getUnconnectedOutLayersNames());

  cv::Size frame = size;
  ORVA::DetectObjList objs;
  p.ours->detect(objs, img, frame, 0.5f, 0.45f);

  std::vector<ORVA::YoloLayer*> heads;
  for (int i = 0; i < p.ours->getLayerCount(); ++i)
    if (p.ours->getLayer(i)->type == ORVA::LAYER_YOLO) heads.push_back(static_cast<ORVA::YoloLayer*>(p.ours->getLayer(i)));
  ASSERT_EQ(heads.size(), peer_out.size());
  std::vector<cv::Rect2d> peer_boxes;
  std::vector<float> peer_scores;
  std::vector<int> peer_class;
  for (size_t h = 0; h < heads.size(); ++h) {
    ORVA::YoloLayer* y = heads[h];
    const int W = y->_in_w, H = y->_in_h, A = y->_anchors, C = y->_classes;
    const cv::Mat& rows = peer_out[h];
    ASSERT_EQ(rows.rows, W * H * A);
    ASSERT_EQ(rows.cols, 5 + C);
    const std::vector<float> out = pulled(y);
    // The head's input: the layer before it in the network.
    int index = 0;
    while (p.ours->getLayer(index) != y) ++index;
    const std::vector<float> in = pulled(p.ours->getLayer(index - 1));
    double worst_peer = 0, worst_ref = 0;
    for (int j = 0; j < H; ++j)
      for (int i = 0; i < W; ++i)
        for (int a = 0; a < A; ++a) {
          const float* r = rows.ptr<float>((j * W + i) * A + a);
          const int loc = j * W + i;
          const ORVA::BBox b = y->decode(out.data(), a, i, j);
          const double obj = out[y->_entry_index(0, a, loc, 4)];
          // float64 from the head's input (half values, as the head saw them)
          auto t = [&](int e) { return (double)in[y->_entry_index(0, a, loc, e)]; };
          const double s = y->_scale_xy, aw = y->_anchor[2 * y->_mask[a]], ah = y->_anchor[2 * y->_mask[a] + 1];
          const double ref[5] = {(i + logistic(t(0)) * s - (s - 1) / 2) / W, (j + logistic(t(1)) * s - (s - 1) / 2) / H,
                                 std::exp(t(2)) * aw / size.width, std::exp(t(3)) * ah / size.height, logistic(t(4))};
          const double got[5] = {b.x, b.y, b.w, b.h, obj};
          for (int k = 0; k < 5; ++k) {
            // relative for the sizes (an exponential), absolute for the rest
            const double scale = k == 2 || k == 3 ? std::max(ref[k], 1e-3) : 1.0;
            worst_ref = std::max(worst_ref, std::fabs(got[k] - ref[k]) / scale);
            worst_peer = std::max(worst_peer, std::fabs(got[k] - r[k]) / (k == 2 || k == 3 ? std::max<double>(r[k], 1e-3) : 1.0));
          }
          for (int k = 0; k < C; ++k) {
            const double score = obj * out[y->_entry_index(0, a, loc, 5 + k)];
            EXPECT_NEAR(score, obj * logistic(t(5 + k)), 4e-3);
            // OpenCV clears scores at or below 0.2; near that edge either side may fall.
            if (r[5 + k] > 0 || score > 0.21) worst_peer = std::max(worst_peer, std::fabs(score - r[5 + k]));
          }
          // OpenCV's candidates as its samples take them: best class above the threshold.
          cv::Point best;
          double conf;
          cv::minMaxLoc(rows.row((j * W + i) * A + a).colRange(5, 5 + C), nullptr, &conf, nullptr, &best);
          if (conf > 0.5) {
            peer_boxes.emplace_back((r[0] - r[2] / 2) * size.width, (r[1] - r[3] / 2) * size.height,
                                    r[2] * size.width, r[3] * size.height);
            peer_scores.push_back((float)conf);
            peer_class.push_back(best.x);
          }
        }
    EXPECT_LT(worst_ref, 4e-3) << fam.name << " head " << h;
    EXPECT_LT(worst_peer, 3e-2) << fam.name << " head " << h;
  }

  // OpenCV's suppression per class, then the two lists matched box by box.
  std::vector<cv::Rect2d> kept;
  std::vector<int> kept_class;
  for (int c = 0; c < heads.back()->_classes; ++c) {
    std::vector<cv::Rect2d> b;
    std::vector<float> s;
    for (size_t k = 0; k < peer_boxes.size(); ++k)
      if (peer_class[k] == c) {
        b.push_back(peer_boxes[k]);
        s.push_back(peer_scores[k]);
      }
    std::vector<int> idx;
    cv::dnn::NMSBoxes(b, s, 0.5f, 0.45f, idx);
    for (int k : idx) {
      kept.push_back(b[k]);
      kept_class.push_back(c);
    }
  }
  ASSERT_EQ(objs.size(), kept.size()) << fam.name;
  for (const ORVA::DetectObj& o : objs) {
    double best = 0;
    for (size_t k = 0; k < kept.size(); ++k)
      if (kept_class[k] == o.cid) {
        // OpenCV's box in the engine's pixel convention: edges truncated, clipped to the frame.
        const cv::Rect2d& q = kept[k];
        const int left = std::max((int)q.x, 0), top = std::max((int)q.y, 0);
        const int right = std::min((int)(q.x + q.width), size.width - 1);
        const int bottom = std::min((int)(q.y + q.height), size.height - 1);
        const cv::Rect2d r(o.bbox.x, o.bbox.y, o.bbox.width, o.bbox.height), e(left, top, right - left, bottom - top);
        const double inter = (r & e).area(), u = r.area() + e.area() - inter;
        best = std::max(best, u > 0 ? inter / u : (r == e ? 1.0 : 0.0));
      }
    EXPECT_GE(best, 0.9) << fam.name << " box " << o.bbox;
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, YoloFamilies,
                         ::testing::Combine(::testing::Values(Family{"tiny3", &kTinyV3}, Family{"v3", &kV3},
                                                              Family{"tiny4", &kTinyV4}, Family{"v4", &kV4}),
                                            ::testing::Values(cv::Size(64, 64), cv::Size(96, 64))),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) + "_" +
                                  std::to_string(std::get<1>(info.param).width) + "x" +
                                  std::to_string(std::get<1>(info.param).height);
                         });

}  // namespace
