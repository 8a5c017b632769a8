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

#include "../bench/yolo_families.h"
#include "darknet.h"
#include "layer/yolo_layer.h"
#include "model_build.h"
#include "network_test_util.h"
#include "backend_fixture.h"
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

// The scaled form: logistic in the convolution, the head only stretches and squares.
const std::string kScaled = std::string(R"(
[convolutional]
batch_normalize=1
filters=16
size=3
stride=2
pad=1
activation=swish
[convolutional]
filters=21
size=1
activation=logistic
[yolo]
mask=0,1,2
new_coords=1
scale_x_y=2.0
)") + kAnchors;

std::string with_net(const std::string& body, int w, int h) {
  return "[net]\nbatch=1\nwidth=" + std::to_string(w) + "\nheight=" + std::to_string(h) + "\nchannels=3\n" + body;
}

struct Pair {
  std::unique_ptr<ORVA::DetectNetwork> ours;
  cv::dnn::Net peer;
};

Pair build(const std::string& text, const std::string& name) {
  const std::string cfg = temp_path(name + ".cfg"), weights = temp_path(name + ".weights");
  orva_test::write_file(cfg, text);
  const auto sections = orvacli::readDarknetCfg(cfg);
  // Fixed weights: with fresh ones, now and then two candidates score the same in half
  // precision and not in OpenCV's floats, and the suppression keeps the other of the two.
  std::mt19937 gen(17);
  const std::vector<unsigned char> bytes = yolo_families::weights_file(
      yolo_families::random_weights(sections, orvacli::darknetToEngine(sections, cfg, nullptr, "").shapes, gen));
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
          // new_coords: the input is already logistic and sizes are (2 t)^2 x anchor.
          const bool nc = y->_new_coords;
          auto act = [&](int e) { return nc ? t(e) : logistic(t(e)); };
          const double ref[5] = {(i + act(0) * s - (s - 1) / 2) / W, (j + act(1) * s - (s - 1) / 2) / H,
                                 nc ? 4 * t(2) * t(2) * aw / size.width : std::exp(t(2)) * aw / size.width,
                                 nc ? 4 * t(3) * t(3) * ah / size.height : std::exp(t(3)) * ah / size.height, act(4)};
          const double got[5] = {b.x, b.y, b.w, b.h, obj};
          for (int k = 0; k < 5; ++k) {
            // relative for the sizes (an exponential), absolute for the rest
            const double scale = k == 2 || k == 3 ? std::max(ref[k], 1e-3) : 1.0;
            worst_ref = std::max(worst_ref, std::fabs(got[k] - ref[k]) / scale);
            // OpenCV 4.6 writes another value in the objectness column of the new form.
            if (k == 4 && nc) continue;
            worst_peer = std::max(worst_peer, std::fabs(got[k] - r[k]) / (k == 2 || k == 3 ? std::max<double>(r[k], 1e-3) : 1.0));
          }
          for (int k = 0; k < C; ++k) {
            const double score = obj * out[y->_entry_index(0, a, loc, 5 + k)];
            EXPECT_NEAR(score, obj * act(5 + k), 4e-3);
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
  // The engine's kept boxes in float pixels (centre and half sizes, in rank order), against
  // OpenCV's: integer rectangles would turn a sub-pixel difference into a lost column.
  for (size_t n = 0; n < objs.size(); ++n) {
    const ORVA::DetectObj& o = objs[n];
    const ORVA::BBox& f = p.ours->_box[p.ours->_rank[n]];
    const cv::Rect2d r(f.x - f.w, f.y - f.h, 2 * f.w, 2 * f.h);
    double best = 0;
    for (size_t k = 0; k < kept.size(); ++k)
      if (kept_class[k] == o.cid) {
        const cv::Rect2d& e = kept[k];
        const double inter = (r & e).area(), u = r.area() + e.area() - inter;
        best = std::max(best, u > 0 ? inter / u : (r == e ? 1.0 : 0.0));
      }
    EXPECT_GE(best, 0.9) << fam.name << " box " << o.bbox;
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, YoloFamilies,
                         ::testing::Combine(::testing::Values(Family{"tiny3", &kTinyV3}, Family{"v3", &kV3},
                                                              Family{"tiny4", &kTinyV4}, Family{"v4", &kV4},
                                                              Family{"scaled", &kScaled}),
                                            ::testing::Values(cv::Size(64, 64), cv::Size(96, 64))),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) + "_" +
                                  std::to_string(std::get<1>(info.param).width) + "x" +
                                  std::to_string(std::get<1>(info.param).height);
                         });

}  // namespace

namespace {

// Two heads at two scales learn squares of two sizes through the training loop: each truth
// trains only the head whose anchor of the whole list fits it best, so both heads' losses
// must fall for the total to fall this far.
TEST(YoloHead, TwoHeadDetectorLossFallsInTheTrainingLoop) {
  const std::string cfg = temp_path("yolo_train.cfg");
  orva_test::write_file(cfg,
                        "[network]\nwidth=16\nheight=16\nchannels=1\n"
                        "[train]\nbatch=8\nlearning_rate=0.02\nmomentum=0.9\ndecay=0.0005\nburn_in=1\n"
                        "[convolution]\nfilters=16\nsize=3\nactivation=leaky\n"
                        "[convolution]\nfilters=14\nsize=1\nactivation=linear\n"
                        "[yolo]\nclasses=2\nnum=4\nmask=0,1\nanchors=2,2, 3,3, 6,6, 8,8\nnoobject_scale=0.25\n"
                        "[route]\nlayers=0\n[maxpool]\nsize=2\nstride=2\n"
                        "[convolution]\nfilters=16\nsize=3\nactivation=leaky\n"
                        "[convolution]\nfilters=14\nsize=1\nactivation=linear\n"
                        "[yolo]\nclasses=2\nnum=4\nmask=2,3\nanchors=2,2, 3,3, 6,6, 8,8\nnoobject_scale=0.25\n");
  sqrand(5);
  ORVA::Network net(ORVA::TEST, 1, -1);
  ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
  ORVA::TData d;
  d.X = ORVA::make_matrix(8, 256);
  d.Y = ORVA::make_matrix(8, net.getOutputLayer()->_truths);
  for (int i = 0; i < 8; ++i) {
    // A 2 x 2 square (class 0, first head) or a 7 x 7 one (class 1, second head).
    const int side = i % 2 ? 7 : 2, x0 = (i * 5) % (17 - side), y0 = (i * 3) % (17 - side);
    for (int y = y0; y < y0 + side; ++y)
      for (int x = x0; x < x0 + side; ++x) d.X.vals[i][y * 16 + x] = 1.f;
    const float truth[5] = {(x0 + side / 2.f) / 16, (y0 + side / 2.f) / 16, side / 16.f, side / 16.f, (float)(i % 2)};
    std::copy(truth, truth + 5, d.Y.vals[i]);
  }
  ::testing::internal::CaptureStdout();
  const float first = net.train(d);
  float last = first;
  for (int epoch = 0; epoch < 200; ++epoch) last = net.train(d);
  ::testing::internal::GetCapturedStdout();
  EXPECT_LT(last, first / 10) << "first " << first << " last " << last;
  ORVA::free_data(d);
}

}  // namespace

namespace {

// The head's loss gradient through backward against central differences of the loss written
// out in float64: squared errors of every objectness (towards 0) and, for the anchor of each
// truth's cell, of the box (centre after the logistic, log sizes), objectness (towards 1) and
// classes. ignore_thresh above any IoU keeps the loss smooth; each truth's anchor depends on
// the anchor shapes only.
TEST(YoloHead, LossGradientMatchesFiniteDifferences) {
  const int W = 3, H = 2, A = 2, C = 3, E = 5 + C, batch = 2;
  const float obj_s = 2, noobj_s = 0.5f, cls_s = 1.5f, iou_n = 1.25f;
  const std::string path = temp_path("yolo_head.cfg");
  orva_test::write_file(path, "[yolo]\nclasses=3\nnum=2\nanchors=0.8,1.2, 2,1.5\nignore_thresh=2\nobject_scale=2\n"
                              "noobject_scale=0.5\nclass_scale=1.5\niou_normalizer=1.25\n");
  ConfigReader cfg;
  ASSERT_EQ(cfg.load(path.c_str()), 0);
  // Declared first, so the layer and the buffers are released before the context.
  struct Context {
    CudaHandle h{};
    Context() { create_handle(&h, -1); }
    ~Context() { destroy_handle(&h); }
  } context;
  CudaHandle& ctx = context.h;
  ORVA::InputParams params;
  params.batch = batch;
  params.w = W;
  params.h = H;
  params.c = A * E;
  params.inputs = W * H * A * E;
  params.nsect = 0;
  std::unique_ptr<ORVA::Layer> l(ORVA::LayerType::create("yolo", ORVA::TRAIN, nullptr, &ctx));
  l->parseConfig(cfg, params);
  const size_t n = (size_t)batch * l->_outputs;
  const std::vector<Ftype> xh = orva_test::random_halves(n, -1.5f, 1.5f);
  const std::vector<double> x = orva_test::to_doubles(xh);
  // x, y, w, h, class; one truth per cell at most, sizes near each anchor in turn.
  const float truths[batch][2][5] = {{{0.2f, 0.3f, 0.3f, 0.55f, 1}, {0.8f, 0.7f, 0.6f, 0.7f, 2}},
                                     {{0.5f, 0.75f, 0.65f, 0.8f, 0}, {0, 0, 0, 0, 0}}};
  std::vector<float> truth((size_t)batch * l->_truths + 1, 0.f);
  for (int b = 0; b < batch; ++b)
    for (int t = 0; t < 2; ++t)
      for (int k = 0; k < 5; ++k) truth[(size_t)b * l->_truths + t * 5 + k] = truths[b][t][k];

  orva_test::Buffer<Ftype> in(&ctx, xh);
  orva_test::Buffer<Ftype> grad(&ctx, std::vector<Ftype>(n, Ftype{0}));
  ORVA::NetworkParams p;
  p.input = in;
  p.batch = batch;
  p.delta = grad;
  p.truth = truth.data();
  ::testing::internal::CaptureStdout();
  l->forward(p);
  ::testing::internal::GetCapturedStdout();
  l->backward(p);

  const double anchors[2][2] = {{0.8, 1.2}, {2, 1.5}};
  auto at = [&](int b, int a, int e, int loc) { return (size_t)b * A * E * W * H + ((size_t)a * E + e) * W * H + loc; };
  auto loss = [&](const std::vector<double>& v) {
    auto y = [&](size_t k, int e) { return e == 2 || e == 3 ? v[k] : 1 / (1 + std::exp(-v[k])); };
    double sum = 0;
    std::vector<bool> matched((size_t)batch * A * W * H, false);
    for (int b = 0; b < batch; ++b)
      for (int t = 0; t < 2; ++t) {
        const float* tr = truths[b][t];
        if (tr[0] == 0) continue;
        int best = 0;
        double best_iou = -1;
        for (int a = 0; a < A; ++a) {
          const double iou = ORVA::box_iou(ORVA::BBox{0, 0, (float)(anchors[a][0] / W), (float)(anchors[a][1] / H)},
                                           ORVA::BBox{0, 0, tr[2], tr[3]});
          if (iou > best_iou) best_iou = iou, best = a;
        }
        const int i = (int)(tr[0] * W), j = (int)(tr[1] * H), loc = j * W + i;
        matched[((size_t)b * A + best) * W * H + loc] = true;
        const double target[4] = {tr[0] * W - i, tr[1] * H - j, std::log(tr[2] * W / anchors[best][0]),
                                  std::log(tr[3] * H / anchors[best][1])};
        const double s = iou_n * (2 - tr[2] * tr[3]);
        for (int e = 0; e < 4; ++e) sum += 0.5 * s * std::pow(target[e] - y(at(b, best, e, loc), e), 2);
        sum += 0.5 * obj_s * std::pow(1 - y(at(b, best, 4, loc), 4), 2);
        for (int k = 0; k < C; ++k) sum += 0.5 * cls_s * std::pow((k == tr[4]) - y(at(b, best, 5 + k, loc), 5), 2);
      }
    for (int b = 0; b < batch; ++b)
      for (int a = 0; a < A; ++a)
        for (int loc = 0; loc < W * H; ++loc)
          if (!matched[((size_t)b * A + a) * W * H + loc]) sum += 0.5 * noobj_s * std::pow(y(at(b, a, 4, loc), 4), 2);
    return sum;
  };
  std::vector<double> want(n), xp = x;
  for (size_t k = 0; k < n; ++k) {
    const double e = 1e-4;
    xp[k] = x[k] + e;
    const double up = loss(xp);
    xp[k] = x[k] - e;
    want[k] = -(up - loss(xp)) / (2 * e);
    xp[k] = x[k];
  }
  // Outputs, targets and gradients pass through half: a few roundings per value.
  EXPECT_TRUE(orva_test::NearL2(want, grad.download(), 2e-2));
}

}  // namespace
