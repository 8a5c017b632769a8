// Box overlap, suppression of overlapping candidates and conversion to frame pixels.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_sort.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>

#include "orva/networks.h"

namespace ORVA {

float box_iou(const BBox& a, const BBox& b) {
  const float ow = std::min(a.x + a.w / 2, b.x + b.w / 2) - std::max(a.x - a.w / 2, b.x - b.w / 2);
  const float oh = std::min(a.y + a.h / 2, b.y + b.h / 2) - std::max(a.y - a.h / 2, b.y - b.h / 2);
  const float inter = (ow >= 0 && oh >= 0) ? ow * oh : 0.f;
  return inter / (a.w * a.h + b.w * b.h - inter);
}

float box_iou_dist(const BBox& a, const BBox& b, float beta) {
  const float iou = box_iou(a, b);
  const float cw = std::max(a.x + a.w / 2, b.x + b.w / 2) - std::min(a.x - a.w / 2, b.x - b.w / 2);
  const float ch = std::max(a.y + a.h / 2, b.y + b.h / 2) - std::min(a.y - a.h / 2, b.y - b.h / 2);
  const float dx = a.x - b.x, dy = a.y - b.y;
  const float d = beta * (dx * dx + dy * dy) / (cw * cw + ch * ch);
  return iou > d ? iou - d : 0.f;
}

namespace {

void sort_by_score(const float* prob, int* rank, int n) {
  std::iota(rank, rank + n, 0);
  auto by_score = [prob](int a, int b) { return prob[a] > prob[b]; };
  // A head's few thousand candidates sort faster than TBB hands the pieces out.
  if (n < 4096)
    std::sort(rank, rank + n, by_score);
  else
    tbb::parallel_sort(rank, rank + n, by_score);
}

// False when the boxes are apart: their IoU is 0 then, which neither rule acts on (hard
// suppression needs IoU > nms > 0, soft needs a score above thresh to fall below it).
inline bool touching(const BBox& a, const BBox& b) {
  return std::min(a.x + a.w / 2, b.x + b.w / 2) >= std::max(a.x - a.w / 2, b.x - b.w / 2) &&
         std::min(a.y + a.h / 2, b.y + b.h / 2) >= std::max(a.y - a.h / 2, b.y - b.h / 2);
}

// Length of the leading run of rank scoring strictly above thresh.
int above(const float* prob, const int* rank, int n, float thresh) {
  int m = 0;
  while (m < n && prob[rank[m]] > thresh) ++m;
  return m;
}

// Zeroes the score of every candidate j < m (in rank order) for which drop(i, j) holds with
// some better-ranked i. Whether i was itself dropped is not consulted, so the outcome does
// not depend on the order of evaluation. Each task owns its j, so no score is written by two
// threads and none is read while another thread writes it.
template <typename Drop>
void sweep(float* prob, const int* rank, int m, Drop drop) {
  auto rows = [&](int lo, int hi) {
    for (int j = lo; j < hi; ++j)
      for (int i = 0; i < j; ++i)
        if (drop(rank[i], rank[j])) {
          prob[rank[j]] = 0;
          break;
        }
  };
  // Below a few dozen candidates the pairs cost less than handing them to other threads.
  if (m < 48) {
    rows(1, m);
    return;
  }
  tbb::parallel_for(tbb::blocked_range<int>(1, m, 8),
                    [&](const tbb::blocked_range<int>& r) { rows(r.begin(), r.end()); });
}

// Truncation toward zero that stays defined for values outside int (and NaN, taken as 0).
int trunc_int(double v) {
  if (!(v > -2147483648.0)) return v < 0 ? INT32_MIN : 0;
  return v < 2147483647.0 ? (int)v : INT32_MAX;
}

// After a sweep over the leading m of a ranked array: the survivors to the front, still by
// descending score, and the candidates zeroed by the sweep behind every positive score of the
// untouched tail, which is already in order. Same result as sorting the whole array again.
void rerank(const float* prob, int* rank, int n, int m) {
  int* zeroed = std::partition(rank, rank + m, [prob](int r) { return prob[r] != 0; });
  std::sort(rank, zeroed, [prob](int a, int b) { return prob[a] > prob[b]; });
  int* tail_end = std::partition_point(rank + m, rank + n, [prob](int r) { return prob[r] > 0; });
  std::rotate(zeroed, rank + m, tail_end);
}

}  // namespace

void box_nms(BBox* boxes, float* prob, int* rank, int n, float nms, float thresh) {
  if (n <= 0) return;
  sort_by_score(prob, rank, n);
  if (nms >= 1.f) return;
  const int m = above(prob, rank, n, thresh);
  sweep(prob, rank, m, [&](int a, int b) { return touching(boxes[a], boxes[b]) && box_iou(boxes[a], boxes[b]) > nms; });
  rerank(prob, rank, n, m);
}

void box_nms_class(BBox* boxes, float* prob, const int* cid, int* rank, int n, float nms, float thresh, float beta) {
  if (n <= 0) return;
  sort_by_score(prob, rank, n);
  if (nms >= 1.f) return;
  const int m = above(prob, rank, n, thresh);
  // Greedy in rank order: only a candidate still standing suppresses the ones after it.
  for (int i = 0; i < m; ++i) {
    const int a = rank[i];
    if (prob[a] == 0) continue;
    for (int j = i + 1; j < m; ++j) {
      const int b = rank[j];
      if (prob[b] == 0 || cid[a] != cid[b] || !touching(boxes[a], boxes[b])) continue;
      const float o = beta >= 0 ? box_iou_dist(boxes[a], boxes[b], beta) : box_iou(boxes[a], boxes[b]);
      if (o > nms) prob[b] = 0;
    }
  }
  rerank(prob, rank, n, m);
}

void box_nms_soft(BBox* boxes, float* prob, int* rank, int n, float thresh) {
  if (n <= 0) return;
  sort_by_score(prob, rank, n);
  const int m = above(prob, rank, n, thresh);
  sweep(prob, rank, m, [&](int a, int b) {
    if (!touching(boxes[a], boxes[b])) return false;
    const float o = box_iou(boxes[a], boxes[b]);
    return std::exp(-2.f * o * o) * prob[b] < thresh;
  });
  rerank(prob, rank, n, m);
}

void box_correct(DetectObjList& objs, float* prob, int* cid, BBox* boxes, int* rank, int n, float thresh, int W,
                 int H, int nw, int nh) {
  objs.clear();
  if (W <= 0 || H <= 0 || nw <= 0 || nh <= 0) return;
  // Where the frame sits inside the network input after a ratio-preserving resize.
  int new_w, new_h;
  double sx = 1.0, sy = 1.0;
  if ((long long)nw * H < (long long)nh * W) {
    new_w = nw;
    new_h = std::max(1, (int)(((long long)nw * H) / W));
    sy = (double)nh / new_h;
  } else {
    new_h = nh;
    new_w = std::max(1, (int)(((long long)nh * W) / H));
    sx = (double)nw / new_w;
  }
  const double fx = W * sx, fy = H * sy;
  const double ox = (double)(nw - new_w) / (2.0 * nw), oy = (double)(nh - new_h) / (2.0 * nh);
  for (int k = 0; k < n; ++k) {
    const int r = rank[k];
    if (!(prob[r] > thresh)) break;
    BBox& b = boxes[r];
    const double cx = (b.x - ox) * fx, cy = (b.y - oy) * fy;
    const double hw = b.w * fx * 0.5, hh = b.h * fy * 0.5;
    b = BBox{(float)cx, (float)cy, (float)hw, (float)hh};
    const int left = std::max(trunc_int(cx - hw), 0), top = std::max(trunc_int(cy - hh), 0);
    const int right = std::min(trunc_int(cx + hw), W - 1), bottom = std::min(trunc_int(cy + hh), H - 1);
    objs.push_back(DetectObj{cid[r], -1, prob[r], cv::Rect(left, top, right - left, bottom - top)});
  }
}

}  // namespace ORVA
