// Synthetic detection scenes (coloured shapes on textured backgrounds, deterministic from a
// seed), the decoding of a grid detector's output and the mean average precision of a set of
// detections. Shared by the training proof and the training subcommand.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "orva/train.h"

namespace synth {

constexpr int kClasses = 3;
inline const char* class_name(int k) {
  static const char* names[kClasses] = {"circle", "rectangle", "triangle"};
  return names[k];
}

inline float box_iou(const ORVA::BoxLabel& a, const ORVA::BoxLabel& b) {
  const float l = std::max(a.x - a.w / 2, b.x - b.w / 2), r = std::min(a.x + a.w / 2, b.x + b.w / 2);
  const float t = std::max(a.y - a.h / 2, b.y - b.h / 2), u = std::min(a.y + a.h / 2, b.y + b.h / 2);
  if (r <= l || u <= t) return 0.f;
  const float inter = (r - l) * (u - t);
  return inter / (a.w * a.h + b.w * b.h - inter);
}

// Fraction of a's area that b covers.
inline float covered(const ORVA::BoxLabel& a, const ORVA::BoxLabel& b) {
  const float l = std::max(a.x - a.w / 2, b.x - b.w / 2), r = std::min(a.x + a.w / 2, b.x + b.w / 2);
  const float t = std::max(a.y - a.h / 2, b.y - b.h / 2), u = std::min(a.y + a.h / 2, b.y + b.h / 2);
  if (r <= l || u <= t) return 0.f;
  return (r - l) * (u - t) / (a.w * a.h);
}

// Scene number `index` of the set `seed`: side x side pixels.
// Plain scenes: 1 to 4 objects of 0.12 to 0.32 of the side that neither overlap nor share a
// cell of a grid x grid partition (grid is used only here).
// Crowded scenes (crowded = true): 1 to 6 objects whose sizes are spread evenly in log scale
// over 0.07 to 0.56 of the side (8x), placed anywhere or (half the time) near an earlier
// object's centre, and drawn in order; a new object may
// overlap earlier ones by IoU up to 0.25 as long as the later objects together hide at most
// 40% of each earlier one's box.
inline cv::Mat make_scene(uint32_t seed, uint32_t index, int side, int grid, ORVA::BoxLabelList& boxes,
                          bool crowded = false) {
  std::seed_seq seq{seed, index, 0x5ce9eu};
  std::mt19937 g(seq);
  auto u = [&](float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(g); };
  // Background: a tinted gradient, stripes at a random angle and pixel noise.
  cv::Mat hsv(side, side, CV_8UC3);
  const float h0 = u(0, 180), dh = u(-30, 30), angle = u(0, (float)M_PI), freq = u(0.08f, 0.4f);
  const float sat = u(20, 90), v0 = u(70, 190), stripe = u(10, 45);
  const float ca = std::cos(angle), sa = std::sin(angle);
  std::normal_distribution<float> noise(0.f, 8.f);
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) {
      const float t = (float)(x + y) / (2 * side);
      const float s = std::sin((x * ca + y * sa) * freq);
      float h = std::fmod(h0 + dh * t + 180.f, 180.f);
      const float v = std::min(255.f, std::max(0.f, v0 + stripe * s + noise(g)));
      hsv.at<cv::Vec3b>(y, x) = cv::Vec3b((unsigned char)h, (unsigned char)sat, (unsigned char)v);
    }
  cv::Mat img;
  cv::cvtColor(hsv, img, cv::COLOR_HSV2BGR);
  boxes.clear();
  const int count = 1 + (int)(g() % (crowded ? 6 : 4));
  const float most = crowded ? 0.6f : 0.4f;
  std::vector<int> used_cells;
  std::vector<float> hidden;  // share of each object's box under later ones (overlaps counted twice)
  for (int tries = 0; (int)boxes.size() < count && tries < 50; ++tries) {
    ORVA::BoxLabel b;
    b.id = (int)(g() % kClasses);
    const float size = (crowded ? 0.07f * std::exp2(u(0.f, 3.f)) : u(0.12f, 0.32f)) * side;
    float w = size, h = size;
    if (b.id == 1) {
      const float aspect = u(0.6f, 1.6f);
      w = size * std::sqrt(aspect);
      h = size / std::sqrt(aspect);
    }
    w = std::min(w, most * side);
    h = std::min(h, most * side);
    float cx = u(w / 2 + 1, side - w / 2 - 1), cy = u(h / 2 + 1, side - h / 2 - 1);
    if (crowded && !boxes.empty() && g() % 2) {
      // Half the time next to an earlier object, often in its cell.
      const ORVA::BoxLabel& o = boxes[g() % boxes.size()];
      cx = std::min(std::max(o.x * side + u(-0.6f, 0.6f) * o.w * side, w / 2 + 1), side - w / 2 - 1);
      cy = std::min(std::max(o.y * side + u(-0.6f, 0.6f) * o.h * side, h / 2 + 1), side - h / 2 - 1);
    }
    b.x = cx / side;
    b.y = cy / side;
    b.w = w / side;
    b.h = h / side;
    const int cell = (int)(b.y * grid) * grid + (int)(b.x * grid);
    bool ok = crowded || std::find(used_cells.begin(), used_cells.end(), cell) == used_cells.end();
    for (size_t k = 0; k < boxes.size(); ++k)
      ok = ok && (crowded ? box_iou(boxes[k], b) <= 0.25f && hidden[k] + covered(boxes[k], b) <= 0.4f
                          : box_iou(boxes[k], b) == 0.f);
    if (!ok) continue;
    for (size_t k = 0; k < boxes.size(); ++k) hidden[k] += covered(boxes[k], b);
    hidden.push_back(0.f);
    // A saturated colour of any hue, bright enough to stand out of the textures.
    cv::Mat c1(1, 1, CV_8UC3, cv::Scalar(u(0, 180), u(170, 255), u(160, 255))), c2;
    cv::cvtColor(c1, c2, cv::COLOR_HSV2BGR);
    const cv::Vec3b c = c2.at<cv::Vec3b>(0, 0);
    const cv::Scalar colour(c[0], c[1], c[2]);
    const float l = cx - w / 2, t = cy - h / 2;
    if (b.id == 0) {
      // The rotated-rectangle form takes the full box size (the other form takes half axes).
      cv::ellipse(img, cv::RotatedRect(cv::Point2f(cx, cy), cv::Size2f(w, h), 0.f), colour, cv::FILLED, cv::LINE_AA);
    } else if (b.id == 1) {
      cv::rectangle(img, cv::Point((int)std::lround(l), (int)std::lround(t)),
                    cv::Point((int)std::lround(l + w) - 1, (int)std::lround(t + h) - 1), colour, cv::FILLED);
    } else {
      const cv::Point pts[3] = {cv::Point((int)std::lround(cx), (int)std::lround(t)),
                                cv::Point((int)std::lround(l + w), (int)std::lround(t + h)),
                                cv::Point((int)std::lround(l), (int)std::lround(t + h))};
      cv::fillConvexPoly(img, pts, 3, colour, cv::LINE_AA);
    }
    used_cells.push_back(cell);
    boxes.push_back(b);
  }
  return img;
}

struct Detection {
  int image;
  ORVA::BoxLabel box;  // id = class
  float score;
};

// Decodes one sample of a grid head laid out as encode_grid_truth lays out its targets
// (objectness, x, y, sqrt w, sqrt h, classes; one plane each) and suppresses overlaps per class.
inline void decode_grid(const float* out, int grid_w, int grid_h, int classes, int image, float thresh, float nms,
                        std::vector<Detection>& dets) {
  const size_t plane = (size_t)grid_w * grid_h;
  std::vector<Detection> mine;
  for (int j = 0; j < grid_h; ++j)
    for (int i = 0; i < grid_w; ++i) {
      const size_t cell = (size_t)j * grid_w + i;
      // A linear head may overshoot the 0..1 targets; scores are clamped back.
      auto unit = [](float v) { return std::min(1.f, std::max(0.f, v)); };
      for (int k = 0; k < classes; ++k) {
        const float score = unit(out[cell]) * unit(out[(5 + k) * plane + cell]);
        if (score < thresh) continue;
        Detection d;
        d.image = image;
        d.score = score;
        d.box.id = k;
        d.box.x = (i + out[plane + cell]) / grid_w;
        d.box.y = (j + out[2 * plane + cell]) / grid_h;
        d.box.w = out[3 * plane + cell] * out[3 * plane + cell];
        d.box.h = out[4 * plane + cell] * out[4 * plane + cell];
        mine.push_back(d);
      }
    }
  std::sort(mine.begin(), mine.end(), [](const Detection& a, const Detection& b) { return a.score > b.score; });
  std::vector<bool> gone(mine.size(), false);
  for (size_t a = 0; a < mine.size(); ++a) {
    if (gone[a]) continue;
    dets.push_back(mine[a]);
    for (size_t b = a + 1; b < mine.size(); ++b)
      if (mine[b].box.id == mine[a].box.id && box_iou(mine[a].box, mine[b].box) > nms) gone[b] = true;
  }
}

// Mean over classes of the average precision at IoU >= iou_thresh (all-point interpolation).
inline float mean_ap(const std::vector<Detection>& dets, const std::vector<ORVA::BoxLabelList>& truth, int classes,
                     float iou_thresh = 0.5f) {
  float sum = 0.f;
  int counted = 0;
  for (int k = 0; k < classes; ++k) {
    std::vector<const Detection*> mine;
    for (const Detection& d : dets)
      if (d.box.id == k) mine.push_back(&d);
    std::sort(mine.begin(), mine.end(), [](const Detection* a, const Detection* b) { return a->score > b->score; });
    int positives = 0;
    std::vector<std::vector<bool>> taken(truth.size());
    for (size_t i = 0; i < truth.size(); ++i) {
      taken[i].assign(truth[i].size(), false);
      for (const ORVA::BoxLabel& t : truth[i]) positives += t.id == k;
    }
    if (positives == 0) continue;
    std::vector<float> precision, recall;
    int tp = 0, fp = 0;
    for (const Detection* d : mine) {
      const ORVA::BoxLabelList& gt = truth[d->image];
      int best = -1;
      float best_iou = iou_thresh;
      for (size_t t = 0; t < gt.size(); ++t) {
        if (gt[t].id != k) continue;
        const float iou = box_iou(gt[t], d->box);
        if (iou >= best_iou) {
          best_iou = iou;
          best = (int)t;
        }
      }
      if (best >= 0 && !taken[d->image][best]) {
        taken[d->image][best] = true;
        ++tp;
      } else {
        ++fp;
      }
      precision.push_back((float)tp / (tp + fp));
      recall.push_back((float)tp / positives);
    }
    // Precision made monotone from the right, then summed over the recall steps.
    for (size_t i = precision.size(); i-- > 1;) precision[i - 1] = std::max(precision[i - 1], precision[i]);
    float ap = 0.f, prev_recall = 0.f;
    for (size_t i = 0; i < precision.size(); ++i) {
      ap += (recall[i] - prev_recall) * precision[i];
      prev_recall = recall[i];
    }
    sum += ap;
    ++counted;
  }
  return counted ? sum / counted : 0.f;
}

}  // namespace synth
