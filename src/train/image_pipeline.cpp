// Randomised augmentation of labelled images for detector training, and the label list.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <tbb/parallel_for.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "orva/train.h"
#include "orva/util.h"

namespace ORVA {

namespace {

float uniform(AugRng& rng, float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); }

// A factor in [1/s, s], as likely to shrink as to grow.
float rand_factor(AugRng& rng, float s) {
  if (s <= 1.f) return 1.f;
  const float r = uniform(rng, 1.f, s);
  return uniform(rng, 0.f, 1.f) < 0.5f ? r : 1.f / r;
}

}  // namespace

AugRng aug_rng(uint32_t seed, uint32_t epoch, uint32_t index) {
  std::seed_seq seq{seed, epoch, index, 0x4f52u};
  return AugRng(seq);
}

CropPlan image_rand_crop(const ExtImageParams& p, int src_w, int src_h, AugRng& rng) {
  // Each edge of the crop moves in or out by up to jitter of the side, so the crop both
  // zooms and shifts; parts outside the source become grey.
  const float jw = p.jitter * src_w, jh = p.jitter * src_h;
  const float left = uniform(rng, -jw, jw), right = uniform(rng, -jw, jw);
  const float top = uniform(rng, -jh, jh), bottom = uniform(rng, -jh, jh);
  const float cw = std::max(1.f, src_w - left - right), ch = std::max(1.f, src_h - top - bottom);
  CropPlan plan;
  plan.ox = left;
  plan.oy = top;
  plan.sx = p.out_w / cw;
  plan.sy = p.out_h / ch;
  if (p.letterbox) {
    const float s = std::min(plan.sx, plan.sy);
    plan.sx = plan.sy = s;
    plan.dx = (p.out_w - cw * s) * 0.5f;
    plan.dy = (p.out_h - ch * s) * 0.5f;
  }
  return plan;
}

bool image_rand_flip(const ExtImageParams& p, AugRng& rng) { return p.flip && uniform(rng, 0.f, 1.f) < 0.5f; }

cv::Vec3f image_rand_hsv(const ExtImageParams& p, AugRng& rng) {
  const float hue = uniform(rng, -p.hue, p.hue) * 360.f;
  const float sat = rand_factor(rng, p.saturation);
  const float val = rand_factor(rng, p.exposure);
  return cv::Vec3f(hue, sat, val);
}

cv::Mat image_rand_apply(const cv::Mat& src, const ExtImageParams& p, const CropPlan& plan) {
  // out = (src - origin) * scale + offset, mirrored afterwards when asked.
  double m[6] = {plan.sx, 0, plan.dx - plan.ox * plan.sx, 0, plan.sy, plan.dy - plan.oy * plan.sy};
  if (plan.flip) {
    m[0] = -m[0];
    m[2] = p.out_w - m[2];
  }
  cv::Mat out;
  cv::warpAffine(src, out, cv::Mat(2, 3, CV_64F, m), cv::Size(p.out_w, p.out_h), cv::INTER_LINEAR,
                 cv::BORDER_CONSTANT, cv::Scalar(128, 128, 128));
  return out;
}

void image_rand_distort(cv::Mat& bgr, const cv::Vec3f& hsv) {
  if (hsv[0] == 0.f && hsv[1] == 1.f && hsv[2] == 1.f) return;
  cv::Mat f, h;
  bgr.convertTo(f, CV_32F, 1.0 / 255);
  cv::cvtColor(f, h, cv::COLOR_BGR2HSV);  // H in degrees, S and V in [0, 1]
  for (int y = 0; y < h.rows; ++y) {
    cv::Vec3f* row = h.ptr<cv::Vec3f>(y);
    for (int x = 0; x < h.cols; ++x) {
      float hue = row[x][0] + hsv[0];
      hue = hue < 0.f ? hue + 360.f : (hue >= 360.f ? hue - 360.f : hue);
      row[x] = cv::Vec3f(hue, std::min(1.f, row[x][1] * hsv[1]), std::min(1.f, row[x][2] * hsv[2]));
    }
  }
  cv::cvtColor(h, f, cv::COLOR_HSV2BGR);
  f.convertTo(bgr, CV_8U, 255.0);
}

BoxLabelList image_rand_boxes(const BoxLabelList& in, const ExtImageParams& p, int src_w, int src_h,
                              const CropPlan& plan) {
  BoxLabelList out;
  for (const BoxLabel& b : in) {
    float l = ((b.x - b.w / 2) * src_w - plan.ox) * plan.sx + plan.dx;
    float r = ((b.x + b.w / 2) * src_w - plan.ox) * plan.sx + plan.dx;
    const float t = ((b.y - b.h / 2) * src_h - plan.oy) * plan.sy + plan.dy;
    const float u = ((b.y + b.h / 2) * src_h - plan.oy) * plan.sy + plan.dy;
    if (plan.flip) {
      const float nl = p.out_w - r;
      r = p.out_w - l;
      l = nl;
    }
    const float area = (r - l) * (u - t);
    const float cl = std::max(0.f, l), cr = std::min((float)p.out_w, r);
    const float ct = std::max(0.f, t), cu = std::min((float)p.out_h, u);
    const float w = (cr - cl) / p.out_w, h = (cu - ct) / p.out_h;
    if (w < p.min_side || h < p.min_side) continue;
    if (area <= 0.f || (cr - cl) * (cu - ct) < p.min_visible * area) continue;
    BoxLabel o;
    o.id = b.id;
    o.x = (cl + cr) * 0.5f / p.out_w;
    o.y = (ct + cu) * 0.5f / p.out_h;
    o.w = w;
    o.h = h;
    out.push_back(o);
  }
  return out;
}

BoxLabelList image_ext_pipeline(const cv::Mat& src, const BoxLabelList& boxes, const ExtImageParams& p,
                                AugRng& rng, float* dst) {
  CropPlan plan = image_rand_crop(p, src.cols, src.rows, rng);
  plan.flip = image_rand_flip(p, rng);
  const cv::Vec3f hsv = image_rand_hsv(p, rng);
  cv::Mat img = image_rand_apply(src, p, plan);
  image_rand_distort(img, hsv);
  // Planar RGB in [0, 1], plane 0 red, as the network's input conversion lays it out.
  const size_t plane = (size_t)p.out_w * p.out_h;
  for (int y = 0; y < p.out_h; ++y) {
    const unsigned char* row = img.ptr<unsigned char>(y);
    for (int x = 0; x < p.out_w; ++x)
      for (int c = 0; c < 3; ++c) dst[(2 - c) * plane + (size_t)y * p.out_w + x] = row[3 * x + c] * (1.f / 255);
  }
  return image_rand_boxes(boxes, p, src.cols, src.rows, plan);
}

bool read_label_list(const char* path, std::vector<LabelledImage>& out, int classes, int* faults) {
  std::ifstream in(path);
  if (!in) {
    ORVA_ERROR("Can't open label list %s", path);
    return false;
  }
  int bad = 0, lineno = 0;
  std::string line;
  while (std::getline(in, line)) {
    ++lineno;
    const size_t hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    std::istringstream fields(line);
    LabelledImage item;
    if (!(fields >> item.image)) continue;  // blank or comment
    std::string tok;
    std::vector<std::string> toks;
    while (fields >> tok) toks.push_back(tok);
    const char* why = nullptr;
    if (toks.size() % 5 != 0) why = "expected groups of five values: class x y w h";
    for (size_t k = 0; !why && k < toks.size(); k += 5) {
      BoxLabel b;
      char* end = nullptr;
      errno = 0;
      const long id = strtol(toks[k].c_str(), &end, 10);
      if (*end || errno || id < 0 || id >= classes) {
        why = "class is not an integer in 0 .. classes - 1";
        break;
      }
      float v[4];
      for (int j = 0; j < 4 && !why; ++j) {
        v[j] = strtof(toks[k + 1 + j].c_str(), &end);
        if (*end || !std::isfinite(v[j])) why = "box value is not a number";
      }
      if (why) break;
      b.id = (int)id;
      b.x = v[0];
      b.y = v[1];
      b.w = v[2];
      b.h = v[3];
      if (!(b.w > 0 && b.h > 0 && b.w <= 1 && b.h <= 1 && b.x >= 0 && b.x <= 1 && b.y >= 0 && b.y <= 1))
        why = "box out of range (x, y in [0, 1], w, h in (0, 1])";
      item.boxes.push_back(b);
    }
    if (!why && !std::ifstream(item.image).good()) why = "image file can't be opened";
    if (why) {
      fprintf(stderr, "%s:%d: %s; line skipped\n", path, lineno, why);
      ++bad;
      continue;
    }
    out.push_back(item);
  }
  if (faults) *faults = bad;
  return true;
}

void ExtImagePipeline::load(TData& d, int n, size_t first) {
  const size_t plane = (size_t)_p.out_w * _p.out_h * 3;
  if (d.X.rows != n || (size_t)d.X.cols != plane) {
    free_matrix(d.X);
    d.X = make_matrix(n, (int)plane);
  }
  d.w = _p.out_w;
  d.h = _p.out_h;
  d.shallow = 0;
  d.boxes.assign(n, BoxLabelList());
  const size_t count = _list.size();
  if (count == 0) return;
  // Each sample draws from its own generator, so the result does not depend on scheduling.
  tbb::parallel_for(0, n, [&](int i) {
    size_t k = first + i;
    cv::Mat img;
    // An unreadable image is reported and the next one taken; a list of unreadable images
    // leaves the sample grey after one full round.
    for (size_t tries = 0; tries < count; ++tries, ++k) {
      img = cv::imread(_list[k % count].image, cv::IMREAD_COLOR);
      if (!img.empty()) break;
      fprintf(stderr, "%s: image can't be read; the next one is used\n", _list[k % count].image.c_str());
    }
    if (img.empty()) {
      std::fill(d.X.vals[i], d.X.vals[i] + plane, 0.5f);
      return;
    }
    AugRng rng = aug_rng(_p.seed, (uint32_t)(k / count), (uint32_t)(k % count));
    d.boxes[i] = image_ext_pipeline(img, _list[k % count].boxes, _p, rng, d.X.vals[i]);
  });
}

}  // namespace ORVA
