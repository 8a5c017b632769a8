// Full-size agreement with OpenCV's DNN module on the darknet families (bench/yolo_families.h,
// random weights): each head's decoded rows and the boxes after one class-wise suppression on
// a picture, printed as a table row per network and size.
//
//   bench_yolo_agree [--network NAME] [--picture FILE]
//
// Columns: the largest difference of a box centre (fraction of the input), of a box size
// (relative), of an objectness and of a class score (OpenCV clears scores at or below 0.2, so
// those are compared where either side is above 0.21); then the final boxes of each engine
// (class score above kThresh, suppression at 0.45) and how many of ours have an OpenCV box of
// the same class at IoU >= 0.9.
#include <opencv2/dnn.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "darknet.h"
#include "layer/yolo_layer.h"
#include "model_build.h"
#include "orva/cuda.h"
#include "orva/networks.h"
#include "yolo_families.h"

namespace {

// Final boxes: class score above this, then suppression at IoU 0.45.
constexpr float kThresh = 0.33f;

cv::Mat synthetic_picture(int w, int h) {
  cv::Mat img(h, w, CV_8UC3);
  cv::randu(img, 60, 120);
  cv::rectangle(img, cv::Rect(w / 8, h / 6, w / 3, h / 3), cv::Scalar(20, 200, 240), cv::FILLED);
  cv::circle(img, cv::Point(2 * w / 3, 2 * h / 3), std::min(w, h) / 5, cv::Scalar(230, 40, 30), cv::FILLED);
  return img;
}

bool run(const yolo_families::Family& fam, int w, int h, const cv::Mat& source) {
  const std::string base = "/tmp/orva_agree_" + std::string(fam.name) + std::to_string(getpid());
  const std::string cfg = base + ".cfg", weights = base + ".weights", model = base + ".orva";
  std::ofstream(cfg) << fam.make(w, h);
  std::mt19937 rng(7);
  std::vector<ORVA::YoloLayer*> heads;
  std::unique_ptr<ORVA::DetectNetwork> ours;
  cv::dnn::Net peer;
  try {
    const auto sections = orvacli::readDarknetCfg(cfg);
    const auto shapes = orvacli::darknetToEngine(sections, cfg, nullptr, "").shapes;
    const std::vector<unsigned char> bytes = yolo_families::weights_file(yolo_families::random_weights(sections, shapes, rng));
    std::ofstream(weights, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    orvacli::writeModel(orvacli::darknetToEngine(sections, cfg, &bytes, weights), model);
    ours = std::make_unique<ORVA::DetectNetwork>(ORVA::TEST, 1, -1);
    if (ours->load(model.c_str()) != 0) throw std::runtime_error("load failed");
    peer = cv::dnn::readNetFromDarknet(cfg, weights);
  } catch (const std::exception& e) {
    fprintf(stderr, "%s: %s\n", fam.name, e.what());
    return false;
  }
  remove(cfg.c_str());
  remove(weights.c_str());
  remove(model.c_str());

  cv::Mat img;
  cv::resize(source, img, cv::Size(w, h));
  cv::Size size(w, h);
  ORVA::DetectObjList objs;
  const auto t0 = std::chrono::steady_clock::now();
  ours->detect(objs, img, size, kThresh, 0.45f);
  const double our_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  peer.setInput(cv::dnn::blobFromImage(img, 1 / 255.0, size, cv::Scalar(), true, false));
  std::vector<cv::Mat> outs;
  peer.forward(outs, peer.getUnconnectedOutLayersNames());
  for (int i = 0; i < ours->getLayerCount(); ++i)
    if (ours->getLayer(i)->type == ORVA::LAYER_YOLO) heads.push_back(static_cast<ORVA::YoloLayer*>(ours->getLayer(i)));
  if (heads.size() != outs.size()) {
    fprintf(stderr, "%s: %zu heads, OpenCV %zu\n", fam.name, heads.size(), outs.size());
    return false;
  }
  double centre = 0, extent = 0, obj_d = 0, cls_d = 0;
  std::vector<cv::Rect2d> boxes;
  std::vector<float> scores;
  std::vector<int> classes;
  for (size_t k = 0; k < heads.size(); ++k) {
    ORVA::YoloLayer* y = heads[k];
    std::vector<Ftype> half(y->_outputs);
    cuda_pull(y->_gpu_handle, half.data(), y->_output, half.size() * sizeof(Ftype));
    cuda_sync(y->_gpu_handle);
    std::vector<float> out(half.size());
    half2float_cpu(out.data(), reinterpret_cast<const _half*>(half.data()), out.size());
    const int W = y->_in_w, H = y->_in_h, A = y->_anchors, C = y->_classes;
    for (int j = 0; j < H; ++j)
      for (int i = 0; i < W; ++i)
        for (int a = 0; a < A; ++a) {
          const float* r = outs[k].ptr<float>((j * W + i) * A + a);
          const ORVA::BBox b = y->decode(out.data(), a, i, j);
          const float obj = out[y->_entry_index(0, a, j * W + i, 4)];
          centre = std::max({centre, (double)std::fabs(b.x - r[0]), (double)std::fabs(b.y - r[1])});
          extent = std::max({extent, (double)(std::fabs(b.w - r[2]) / std::max(r[2], 1e-3f)),
                             (double)(std::fabs(b.h - r[3]) / std::max(r[3], 1e-3f))});
          obj_d = std::max(obj_d, (double)std::fabs(obj - r[4]));
          int best = 0;
          for (int c = 0; c < C; ++c) {
            const float s = obj * out[y->_entry_index(0, a, j * W + i, 5 + c)];
            if (r[5 + c] > 0 || s > 0.21f) cls_d = std::max(cls_d, (double)std::fabs(s - r[5 + c]));
            if (r[5 + c] > r[5 + best]) best = c;
          }
          if (r[5 + best] > kThresh) {
            boxes.emplace_back((r[0] - r[2] / 2) * w, (r[1] - r[3] / 2) * h, r[2] * w, r[3] * h);
            scores.push_back(r[5 + best]);
            classes.push_back(best);
          }
        }
  }
  std::vector<cv::Rect2d> kept;
  std::vector<int> kept_class;
  for (int c = 0; c < heads.back()->_classes; ++c) {
    std::vector<cv::Rect2d> b;
    std::vector<float> s;
    for (size_t k = 0; k < boxes.size(); ++k)
      if (classes[k] == c) {
        b.push_back(boxes[k]);
        s.push_back(scores[k]);
      }
    std::vector<int> idx;
    cv::dnn::NMSBoxes(b, s, kThresh, 0.45f, idx);
    for (int k : idx) {
      kept.push_back(b[k]);
      kept_class.push_back(c);
    }
  }
  size_t matched = 0;
  // The engine's kept boxes in float pixels (centre and half sizes, in rank order).
  for (size_t n = 0; n < objs.size(); ++n) {
    const ORVA::BBox& f = ours->_box[ours->_rank[n]];
    const cv::Rect2d r(f.x - f.w, f.y - f.h, 2 * f.w, 2 * f.h);
    double best = 0;
    for (size_t k = 0; k < kept.size(); ++k) {
      if (kept_class[k] != objs[n].cid) continue;
      const cv::Rect2d& e = kept[k];
      const double inter = (r & e).area(), u = r.area() + e.area() - inter;
      best = std::max(best, u > 0 ? inter / u : 1.0);
    }
    matched += best >= 0.9;
  }
  printf("| %s | %d x %d | %zu | %.1e | %.1e | %.1e | %.1e | %zu / %zu | %zu | %.0f |\n", fam.name, w, h, heads.size(),
         centre, extent, obj_d, cls_d, objs.size(), kept.size(), matched, our_ms);
  fflush(stdout);
  return objs.size() == kept.size() && matched == objs.size();
}

}  // namespace

int main(int argc, char** argv) {
  std::string only, picture;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string key = argv[i];
    if (key == "--network") only = argv[i + 1];
    else if (key == "--picture") picture = argv[i + 1];
    else {
      fprintf(stderr, "usage: %s [--network NAME] [--picture FILE]\n", argv[0]);
      return 2;
    }
  }
  ORVA::setMsgLevel(WARNING);
  cv::Mat source = picture.empty() ? synthetic_picture(640, 480) : cv::imread(picture);
  if (source.empty()) {
    fprintf(stderr, "cannot read %s\n", picture.c_str());
    return 2;
  }
  printf("| network | input | heads | centre | size (rel.) | objectness | class score | boxes ours / OpenCV | ours matched | our pass ms |\n");
  printf("|---|---|---|---|---|---|---|---|---|---|\n");
  bool ok = true;
  for (const auto& fam : yolo_families::families()) {
    if (!only.empty() && only != fam.name) continue;
    for (const cv::Size s : {cv::Size(416, 416), cv::Size(608, 352)}) ok = run(fam, s.width, s.height, source) && ok;
  }
  return ok ? 0 : 1;
}
