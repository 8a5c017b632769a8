// Detection heads (region, qregion, detobj, heatmap, yolo): device forward against a float64
// reference, decoding against an independent decoder, training gradients by finite
// differences, the training loop, model records, faults.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <tuple>

#include "layer/heatmap_layer.h"
#include "layer/region_layer.h"
#include "layer_test_util.h"
#include "orva/networks.h"
#include "orva/train.h"
#include "orva/util.h"

using namespace orva_test;
using ORVA::BBox;

namespace {

// One head as the test sees it: its section, keys and the shape they imply.
struct Head {
  const char* section;
  int classes, anchors, loc_type;
  float scale_xy;
  int softmax;
  int w, h;
  bool without_anchors = false;
  bool heatmap() const { return std::string(section) == "heatmap"; }
  bool detobj() const { return std::string(section) == "detobj"; }
  bool yolo() const { return std::string(section) == "yolo"; }
  bool squared() const { return std::string(section) == "region" && loc_type == 1; }
  int entries() const { return heatmap() ? 1 + classes : 5 + classes; }
  int channels() const { return entries() * anchors; }
  int obj_entry() const { return heatmap() || detobj() ? 0 : 4; }
  int class_entry() const { return heatmap() ? 1 : 5; }
  // Entries that pass through the logistic: objectness, for region also the centre, for yolo
  // the centre and the classes.
  bool logistic(int e) const { return heatmap() ? e == 0 : (detobj() ? e < 5 : e < 2 || e == 4 || (yolo() && e > 4)); }
  double anchor(int k) const { return 0.75 + 0.5 * k; }
  std::string keys() const {
    std::string k = "classes=" + std::to_string(classes) + "\nnum=" + std::to_string(anchors) +
                    "\nsoftmax=" + std::to_string(softmax) + "\nloc_type=" + std::to_string(loc_type) +
                    "\nscale_xy=" + std::to_string(scale_xy) + "\n";
    if (heatmap() || without_anchors) return k;
    k += "anchors=";
    for (int i = 0; i < 2 * anchors; ++i) k += (i ? "," : "") + std::to_string(anchor(i));
    return k + "\n";
  }
  size_t at(int b, int n, int e, int loc) const {
    return (size_t)b * channels() * w * h + ((size_t)n * entries() + e) * w * h + loc;
  }
};

// Region with stretched centres and class softmax, squared sizes, qregion ignoring loc_type,
// detobj, a single-class head without class scores, and heat maps.
const Head kHeads[] = {
    {"region", 3, 2, 0, 1.5f, 1, 4, 3},  {"region", 2, 3, 1, 1.f, 0, 3, 5}, {"qregion", 3, 2, 1, 1.f, 1, 4, 3},
    {"detobj", 3, 2, 0, 1.2f, 1, 3, 4},  {"region", 0, 5, 0, 1.f, 0, 4, 4}, {"heatmap", 3, 4, 0, 1.f, 1, 3, 2},
    {"heatmap", 2, 1, 0, 1.f, 0, 2, 3},
};

std::string name_of(const Head& h) {
  return std::string(h.section) + " classes " + std::to_string(h.classes) + " loc_type " + std::to_string(h.loc_type);
}

// channels < 0: the count the head needs.
std::unique_ptr<ORVA::Layer> make_head(void* handle, int mode, const Head& h, int batch,
                                       const std::string& extra = "", int channels = -1) {
  return make_layer(handle, mode, h.section, h.keys() + extra, batch, h.w, h.h, channels < 0 ? h.channels() : channels);
}

double sigmoid(double v) { return 1 / (1 + std::exp(-v)); }

// The device part of forward in float64.
std::vector<double> reference_forward(const Head& h, std::vector<double> x, int batch) {
  const int wh = h.w * h.h;
  for (int b = 0; b < batch; ++b)
    for (int n = 0; n < h.anchors; ++n) {
      for (int loc = 0; loc < wh; ++loc) {
        for (int e = 0; e < h.entries(); ++e) {
          if (!h.logistic(e)) continue;
          double& v = x[h.at(b, n, e, loc)];
          v = sigmoid(v);
          if (e < 2 && !h.detobj() && !h.heatmap() && !h.yolo() && h.scale_xy > 1) v = v * h.scale_xy - (h.scale_xy - 1) / 2;
        }
        if (!h.softmax || !h.classes) continue;
        double mx = -1e300, sum = 0;
        for (int k = 0; k < h.classes; ++k) mx = std::max(mx, x[h.at(b, n, h.class_entry() + k, loc)]);
        for (int k = 0; k < h.classes; ++k) sum += std::exp(x[h.at(b, n, h.class_entry() + k, loc)] - mx);
        for (int k = 0; k < h.classes; ++k) {
          double& v = x[h.at(b, n, h.class_entry() + k, loc)];
          v = std::exp(v - mx) / sum;
        }
      }
    }
  return x;
}

ORVA::NetworkParams run_params(Ftype* input, int batch, Ftype* delta = nullptr, float* truth = nullptr) {
  ORVA::NetworkParams p;
  p.input = input;
  p.batch = batch;
  p.delta = delta;
  p.truth = truth;
  return p;
}

// Forward, then backward of a given gradient: the output and the gradient handed down,
// concatenated.
TEST(RegionHeads, ForwardAndBackwardMatchReferenceOnEveryBackend) {
  for (const Head& h : kHeads) {
    const int batch = 2;
    const size_t n = (size_t)batch * h.channels() * h.w * h.h;
    const std::vector<Ftype> x = random_halves(n, -4.f, 4.f), dy = random_halves(n, -1.f, 1.f);
    const std::vector<double> y = reference_forward(h, to_doubles(x), batch);
    std::vector<double> want = y, dx = to_doubles(dy);
    for (int b = 0; b < batch; ++b)
      for (int a = 0; a < h.anchors; ++a)
        for (int e = 0; e < h.entries(); ++e)
          for (int loc = 0; h.logistic(e) && loc < h.w * h.h; ++loc) dx[h.at(b, a, e, loc)] *= y[h.at(b, a, e, loc)] * (1 - y[h.at(b, a, e, loc)]);
    want.insert(want.end(), dx.begin(), dx.end());
    // A logistic rounded to half, then the stretch rounded again; the softmax rounds once;
    // the gradient takes three half products.
    check_on_backends(
        [&](void* handle) {
          auto l = make_head(handle, ORVA::TRAIN, h, batch);
          Buffer<Ftype> in(handle, x), down(handle, std::vector<Ftype>(n, Ftype{0}));
          ORVA::NetworkParams p = run_params(in, batch, down);
          l->forward(p);
          push(handle, l->_delta, dy);
          l->backward(p);
          std::vector<Ftype> got = pull(handle, l->_output, n), grad = down.download();
          got.insert(got.end(), grad.begin(), grad.end());
          return got;
        },
        want, kHalfChain, kHalfRounding, name_of(h).c_str());
  }
}

// ---- Decoding ----------------------------------------------------------------------------

struct Candidate {
  BBox box;
  double prob;
  int cls;
};

// Decoding of anchor n at cell (i, j) written from the head's definition.
Candidate ref_decode(const Head& h, const std::vector<double>& out, int n, int i, int j) {
  const int loc = j * h.w + i;
  auto v = [&](int e) { return out[h.at(0, n, e, loc)]; };
  const double aw = h.anchor(2 * n), ah = h.anchor(2 * n + 1);
  Candidate c;
  if (h.detobj()) {
    const double s = h.scale_xy;
    const double x1 = (i + 0.5 - aw / 2 + aw * v(1) * s) / h.w, x2 = (i + 0.5 + aw / 2 - aw * v(2) * s) / h.w;
    const double y1 = (j + 0.5 - ah / 2 + ah * v(3) * s) / h.h, y2 = (j + 0.5 + ah / 2 - ah * v(4) * s) / h.h;
    c.box = BBox{(float)((x1 + x2) / 2), (float)((y1 + y2) / 2), (float)std::fabs(x2 - x1), (float)std::fabs(y2 - y1)};
  } else {
    const double sw = h.squared() ? v(2) * v(2) : std::exp(v(2)), sh = h.squared() ? v(3) * v(3) : std::exp(v(3));
    c.box = BBox{(float)((i + v(0)) / h.w), (float)((j + v(1)) / h.h), (float)(sw * aw / h.w), (float)(sh * ah / h.h)};
  }
  double best = h.classes ? 0 : 1;
  c.cls = 0;
  for (int k = 0; k < h.classes; ++k)
    if (v(h.class_entry() + k) > best) best = v(h.class_entry() + k), c.cls = k;
  c.prob = best * v(h.obj_entry());
  return c;
}

TEST(RegionHeads, DecodingMatchesIndependentDecoder) {
  CudaHandle ctx{};
  create_handle(&ctx, -1);
  for (const Head& h : kHeads) {
    if (h.heatmap()) continue;
    auto l = make_head(&ctx, ORVA::TEST, h, 1);
    auto* region = static_cast<ORVA::RegionLayer*>(l.get());
    const int wh = h.w * h.h, count = region->getRegionOutputNum();
    ASSERT_EQ(count, wh * h.anchors);
    std::vector<float> out = random_floats((size_t)h.channels() * wh, -1.5f, 1.5f);
    if (h.classes > 1) {
      // Candidate 0: two classes tie for the maximum; candidate 1: no positive score.
      out[h.at(0, 0, h.class_entry(), 0)] = out[h.at(0, 0, h.class_entry() + 1, 0)] = 2.f;
      for (int k = 0; k < h.classes; ++k) out[h.at(0, 0, h.class_entry() + k, 1)] = -0.5f;
    }
    std::vector<float> prob(count);
    std::vector<int> cls(count);
    std::vector<BBox> box(count);
    region->getRegionBox(out.data(), 0.5f, prob.data(), cls.data(), box.data());
    const std::vector<double> outd(out.begin(), out.end());
    for (int j = 0; j < h.h; ++j)
      for (int i = 0; i < h.w; ++i)
        for (int n = 0; n < h.anchors; ++n) {
          const int idx = n * wh + j * h.w + i;
          const Candidate c = ref_decode(h, outd, n, i, j);
          SCOPED_TRACE(name_of(h) + " candidate " + std::to_string(idx));
          EXPECT_EQ(cls[idx], c.cls);
          EXPECT_NEAR(prob[idx], c.prob, 1e-6 * (1 + std::fabs(c.prob)));
          EXPECT_NEAR(box[idx].x, c.box.x, 1e-6);
          EXPECT_NEAR(box[idx].y, c.box.y, 1e-6);
          EXPECT_NEAR(box[idx].w, c.box.w, 1e-5 * c.box.w + 1e-7);
          EXPECT_NEAR(box[idx].h, c.box.h, 1e-5 * c.box.h + 1e-7);
        }
  }
  destroy_handle(&ctx);
}

// ---- Training gradients ------------------------------------------------------------------

// Truths (x, y, w, h, class) of two images on distinct cells.
const float kTruths[2][2][5] = {{{0.3f, 0.3f, 0.4f, 0.5f, 1}, {0.8f, 0.7f, 0.3f, 0.6f, 2}},
                                {{0.5f, 0.2f, 0.2f, 0.3f, 0}, {0, 0, 0, 0, 0}}};

// The loss whose negative gradient the head's training pass computes, with the choices that
// depend on the prediction (matched anchor, objectness target) frozen at the starting point.
struct FrozenLoss {
  const Head& h;
  int truths;
  std::vector<int> matched;     // per truth: anchor, -1 for none
  std::vector<double> target;   // per truth: objectness target
  static constexpr double kObj = 2, kNoobj = 0.5, kClass = 1.5, kCoord = 1.25;

  double operator()(const std::vector<double>& x) const {
    const std::vector<double> y = reference_forward(h, x, 2);
    const int wh = h.w * h.h;
    double loss = 0;
    std::vector<bool> is_matched((size_t)2 * h.anchors * wh, false);
    for (int b = 0; b < 2; ++b)
      for (int t = 0; t < 2; ++t) {
        const float* tr = kTruths[b][t];
        if (tr[0] == 0) continue;
        const int i = (int)(tr[0] * h.w), j = (int)(tr[1] * h.h), loc = j * h.w + i;
        int n = matched[b * 2 + t];
        if (h.heatmap()) {
          const int s = (int)std::sqrt((double)h.anchors);
          n = (int)(tr[0] * h.w * s - s * i) + (int)(tr[1] * h.h * s - s * j) * s;
        }
        is_matched[((size_t)b * h.anchors + n) * wh + loc] = true;
        const double obj = y[h.at(b, n, h.obj_entry(), loc)];
        loss += 0.5 * kObj * std::pow((h.heatmap() || h.yolo() ? 1.0 : target[b * 2 + t]) - obj, 2);
        const int cls = (int)tr[4];
        if (!h.yolo()) loss -= kClass * std::log(y[h.at(b, n, h.class_entry() + cls, loc)]);
        for (int k = 0; h.yolo() && k < h.classes; ++k)
          loss += 0.5 * kClass * std::pow((k == cls) - y[h.at(b, n, h.class_entry() + k, loc)], 2);
        if (h.heatmap()) continue;
        const double s = (2 - tr[2] * tr[3]) * kCoord;
        const double aw = h.anchor(2 * n), ah = h.anchor(2 * n + 1);
        double want[4];
        if (h.detobj()) {
          const double sw = aw * h.scale_xy, sh = ah * h.scale_xy;
          want[0] = ((tr[0] - tr[2] / 2) * h.w - (i + 0.5 - aw / 2)) / sw;
          want[1] = ((i + 0.5 + aw / 2) - (tr[0] + tr[2] / 2) * h.w) / sw;
          want[2] = ((tr[1] - tr[3] / 2) * h.h - (j + 0.5 - ah / 2)) / sh;
          want[3] = ((j + 0.5 + ah / 2) - (tr[1] + tr[3] / 2) * h.h) / sh;
        } else {
          want[0] = tr[0] * h.w - i;
          want[1] = tr[1] * h.h - j;
          want[2] = std::log(tr[2] * h.w / aw);
          want[3] = std::log(tr[3] * h.h / ah);
        }
        const int first = h.detobj() ? 1 : 0;
        for (int k = 0; k < 4; ++k) loss += 0.5 * s * std::pow(want[k] - y[h.at(b, n, first + k, loc)], 2);
      }
    for (int b = 0; b < 2; ++b)
      for (int n = 0; n < h.anchors; ++n)
        for (int loc = 0; loc < wh; ++loc)
          if (!is_matched[((size_t)b * h.anchors + n) * wh + loc])
            loss += 0.5 * kNoobj * std::pow(y[h.at(b, n, h.obj_entry(), loc)], 2);
    return loss;
  }
};

// Two images of two truths each (x, y, w, h, class; x = 0 ends an image's list) laid out as
// the layer reads its truth.
std::vector<float> truth_block(const ORVA::Layer& l, const float (&truths)[2][2][5]) {
  std::vector<float> truth((size_t)2 * l._truths + 1, 0.f);
  for (int b = 0; b < 2; ++b)
    for (int t = 0; t < 2; ++t)
      for (int k = 0; k < 5; ++k) truth[(size_t)b * l._truths + t * 5 + k] = truths[b][t][k];
  return truth;
}

// The gradient a head's training pass hands down for input x.
std::vector<Ftype> head_gradient(ORVA::Layer& l, void* ctx, const std::vector<Ftype>& x, std::vector<float>& truth) {
  Buffer<Ftype> in(ctx, x), grad(ctx, std::vector<Ftype>(x.size(), Ftype{0}));
  ORVA::NetworkParams p = run_params(in, 2, grad, truth.data());
  ::testing::internal::CaptureStdout();  // the training statistics line
  l.forward(p);
  ::testing::internal::GetCapturedStdout();
  l.backward(p);
  return grad.download();
}

// Minus the central differences of a loss at x: what the training pass must hand down.
template <typename Loss>
std::vector<double> descent(const Loss& loss, std::vector<double> x) {
  std::vector<double> want(x.size());
  for (size_t k = 0; k < x.size(); ++k) {
    const double keep = x[k], e = 1e-4;
    x[k] = keep + e;
    const double up = loss(x);
    x[k] = keep - e;
    want[k] = -(up - loss(x)) / (2 * e);
    x[k] = keep;
  }
  return want;
}

// The loss of each head in float64 (for yolo squared errors of the logistic classes and an
// objectness target of 1; ignore_thresh above any IoU keeps its loss smooth) against what the
// training pass hands down, element by element.
TEST(RegionHeads, TrainingGradientsMatchFiniteDifferences) {
  // Region with the exponential sizes, detobj, and a heat map; softmax classes throughout.
  const Head heads[] = {{"region", 3, 2, 0, 1.f, 1, 3, 2}, {"detobj", 3, 2, 0, 1.f, 1, 3, 2},
                        {"heatmap", 3, 4, 0, 1.f, 1, 3, 2}, {"yolo", 3, 2, 0, 1.f, 0, 3, 2}};
  CudaHandle ctx{};
  create_handle(&ctx, -1);
  for (const Head& h : heads) {
    SCOPED_TRACE(h.section);
    // No background exemption (thresh), so the loss is smooth around the starting point.
    const std::string scales = "object_scale=2\nnoobject_scale=0.5\nclass_scale=1.5\ncoord_scale=1.25\n"
                               "iou_normalizer=1.25\nignore_thresh=2\n";
    auto l = make_head(&ctx, ORVA::TRAIN, h, 2, scales + (h.heatmap() ? "thresh=0\n" : "thresh=1\n"));
    // Matched anchors and objectness targets of the starting point, from the test's decoder
    // (yolo matches by the anchor shapes alone). The head matches on outputs rounded to half:
    // inputs whose best anchor leads the next by less than 0.02 of IoU are drawn again, so the
    // two always pick the same anchor.
    FrozenLoss loss{h, 2, std::vector<int>(4, -1), std::vector<double>(4, 0)};
    std::vector<Ftype> xh;
    for (double margin = 0; margin < 0.02;) {
      xh = random_halves((size_t)2 * l->_outputs, -1.5f, 1.5f);
      const std::vector<double> y = reference_forward(h, to_doubles(xh), 2);
      margin = 1;
      for (int b = 0; b < 2 && !h.heatmap(); ++b)
        for (int t = 0; t < 2; ++t) {
          const float* tr = kTruths[b][t];
          if (tr[0] == 0) continue;
          const int i = (int)(tr[0] * h.w), j = (int)(tr[1] * h.h);
          const std::vector<double> img(y.begin() + (size_t)b * l->_outputs, y.begin() + (size_t)(b + 1) * l->_outputs);
          double best = 0, second = 0;
          int best_n = 0;
          for (int a = 0; a < h.anchors; ++a) {
            BBox pred = h.yolo() ? BBox{0, 0, (float)(h.anchor(2 * a) / h.w), (float)(h.anchor(2 * a + 1) / h.h)}
                                 : ref_decode(h, img, a, i, j).box;
            pred.x = pred.y = 0;
            const double iou = ORVA::box_iou(pred, BBox{0, 0, tr[2], tr[3]});
            if (iou > best) second = best, best = iou, best_n = a;
            else second = std::max(second, iou);
          }
          margin = std::min(margin, best - second);
          loss.matched[b * 2 + t] = best_n;
          if (!h.yolo()) loss.target[b * 2 + t] = ORVA::box_iou(ref_decode(h, img, best_n, i, j).box, BBox{tr[0], tr[1], tr[2], tr[3]});
        }
    }
    std::vector<float> truth = truth_block(*l, kTruths);
    const std::vector<float> got = to_floats(head_gradient(*l, &ctx, xh, truth));
    // The loss is float64 on the same half inputs (a step of 1e-4 leaves the difference exact
    // to 1e-7); the head rounds its outputs, the delta and the logistic's derivative to half:
    // 2e-3 of the value and 1e-3 besides hold about twice the worst of a thousand draws. A
    // target moved by a tenth moves its element by 1e-2 or more.
    const std::vector<double> want = descent(loss, to_doubles(xh));
    for (size_t k = 0; k < want.size(); ++k) EXPECT_NEAR(got[k], want[k], 1e-3 + 2e-3 * std::fabs(want[k])) << k;
  }
  destroy_handle(&ctx);
}

// A small detector inside the training loop learns squares of two sizes (class 0 small, class
// 1 large): a region head, and two yolo heads at two scales, where each truth trains only the
// head whose anchor of the whole list fits it best, so both heads' losses must fall for the
// total to fall this far. burn_in=1: with the default 0 the schedule's first rate is 0/0.
TEST(DetectionHeads, DetectorLossFallsInTheTrainingLoop) {
  const std::string conv = "[convolution]\nfilters=16\nsize=3\nactivation=leaky\n"
                           "[convolution]\nfilters=14\nsize=1\nactivation=linear\n";
  const std::string yolo = "[yolo]\nclasses=2\nnum=4\nanchors=2,2, 3,3, 6,6, 8,8\nnoobject_scale=0.25\nmask=";
  const struct {
    int side, batch, small, large, epochs;
    uint32_t seed;
    std::string layers;
  } cases[] = {
      {8, 4, 2, 4, 150, 11, conv + "[region]\nclasses=2\nnum=2\nsoftmax=1\nnoobject_scale=0.25\nanchors=2,2, 4,4\n"},
      {16, 8, 2, 7, 200, 5, conv + yolo + "0,1\n[route]\nlayers=0\n[maxpool]\nsize=2\nstride=2\n" + conv + yolo + "2,3\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.layers);
    const std::string cfg = temp_path("train.cfg"), side = std::to_string(c.side);
    write_file(cfg, "[network]\nwidth=" + side + "\nheight=" + side + "\nchannels=1\n[train]\nbatch=" +
                        std::to_string(c.batch) + "\nlearning_rate=0.02\nmomentum=0.9\ndecay=0.0005\nburn_in=1\n" +
                        c.layers);
    sqrand(c.seed);
    ORVA::Network net(ORVA::TEST, 1, -1);
    ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
    ORVA::TData d;
    d.X = ORVA::make_matrix(8, c.side * c.side);
    d.Y = ORVA::make_matrix(8, net.getOutputLayer()->_truths);
    for (int i = 0; i < 8; ++i) {
      // Each square at a place of its own.
      const int s = i % 2 ? c.large : c.small, x0 = (i * 5) % (c.side + 1 - s), y0 = (i * 3) % (c.side + 1 - s);
      for (int y = y0; y < y0 + s; ++y)
        for (int x = x0; x < x0 + s; ++x) d.X.vals[i][y * c.side + x] = 1.f;
      const float truth[5] = {(x0 + s / 2.f) / c.side, (y0 + s / 2.f) / c.side, (float)s / c.side, (float)s / c.side,
                              (float)(i % 2)};
      std::copy(truth, truth + 5, d.Y.vals[i]);
    }
    ::testing::internal::CaptureStdout();
    const float first = net.train(d);
    float last = first;
    for (int epoch = 0; epoch < c.epochs; ++epoch) last = net.train(d);
    ::testing::internal::GetCapturedStdout();
    EXPECT_LT(last, first / 10) << "first " << first << " last " << last;
    ORVA::free_data(d);
  }
}

// ---- Records and faults ------------------------------------------------------------------

TEST(RegionHeads, ModelFileRoundTripKeepsTheHead) {
  for (const char* head : {"[detobj]\nclasses=2\nnum=2\nscale_xy=1.25\nsoftmax=1\nanchors=1,2,3,4\n",
                           "[region]\nclasses=2\nnum=2\nloc_type=1\nbg_class=1\nanchors=1,2,3,4\n",
                           "[heatmap]\nclasses=3\nnum=4\nsoftmax=1\nbg_class=2\n"}) {
    const bool hm = head[1] == 'h';
    const std::string text = std::string("[network]\nwidth=6\nheight=4\nchannels=3\n[convolution]\nfilters=") +
                             (hm ? "16" : "14") + "\nsize=1\nactivation=linear\n" + head;
    SCOPED_TRACE(head);
    auto a = net_from_text(text, 1, -1);
    auto b = check_round_trip(text, 6, 4, 3);
    // Keys the output does not show (training, decoding) must survive the record too.
    auto *x = static_cast<ORVA::DetectionHead*>(a->getOutputLayer()), *y = static_cast<ORVA::DetectionHead*>(b->getOutputLayer());
    EXPECT_EQ(x->type, y->type);
    EXPECT_EQ(std::tie(x->_classes, x->_anchors, x->_softmax, x->_bg_class), std::tie(y->_classes, y->_anchors, y->_softmax, y->_bg_class));
    if (hm) continue;
    auto *rx = static_cast<ORVA::RegionLayer*>(x), *ry = static_cast<ORVA::RegionLayer*>(y);
    EXPECT_EQ(std::tie(rx->_loc_type, rx->_scale_xy), std::tie(ry->_loc_type, ry->_scale_xy));
    EXPECT_EQ(std::vector<float>(rx->_anchor, rx->_anchor + 4), std::vector<float>(ry->_anchor, ry->_anchor + 4));
  }
}

TEST(RegionHeads, DescriptionFaultsAreFatal) {
  CudaHandle ctx{};
  create_handle(&ctx, -1);
  ORVA::setFatalThrows(true);
  Head no_anchors = kHeads[0];
  no_anchors.without_anchors = true;
  const std::tuple<Head, int, const char*> faults[] = {
      {kHeads[0], 0, "Layer before region layer must output image."},
      {kHeads[2], 0, "Layer before qregion layer must output image."},
      {kHeads[3], 0, "Layer before region layer must output image."},
      {kHeads[5], 0, "Layer before heatmap layer must output image."},
      {kHeads[0], 17, "Layer input & output are mismatched."},
      {kHeads[5], 17, "Layer input & output are mismatched."},
      {no_anchors, -1, "Anchors must be defined"}};
  for (const auto& fault : faults) {
    const Head& head = std::get<0>(fault);
    const int channels = std::get<1>(fault);
    EXPECT_EQ(thrown<ORVA::FatalError>([&] { make_head(&ctx, ORVA::TEST, head, 1, "", channels); }), std::get<2>(fault));
  }
  ORVA::setFatalThrows(false);
  destroy_handle(&ctx);
}

}  // namespace
