// Sample blocks for training and their transfer into a network's buffers.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "orva/cuda.h"
#include "orva/train.h"

namespace ORVA {

Matrix make_matrix(int rows, int cols) {
  Matrix m;
  m.rows = rows;
  m.cols = cols;
  m.vals = new float*[rows > 0 ? rows : 1];
  float* block = new float[(size_t)std::max(rows, 1) * std::max(cols, 1)]();
  for (int i = 0; i < rows; ++i) m.vals[i] = block + (size_t)i * cols;
  if (rows < 1) m.vals[0] = block;
  return m;
}

void free_matrix(Matrix& m) {
  if (m.vals) {
    delete[] m.vals[0];
    delete[] m.vals;
  }
  m = Matrix();
}

void free_data(TData& d) {
  if (!d.shallow) {
    free_matrix(d.X);
    free_matrix(d.Y);
  }
  d.X = Matrix();
  d.Y = Matrix();
  d.boxes.clear();
}

void encode_box_truth(const BoxLabelList& boxes, float* row, int max_boxes) {
  memset(row, 0, sizeof(float) * 5 * max_boxes);
  int k = 0;
  for (const BoxLabel& b : boxes) {
    // x = 0 would end the list early; such a box sits on the frame edge and is nudged in.
    if (k == max_boxes) break;
    float* r = row + 5 * k++;
    r[0] = b.x > 0 ? b.x : 1e-6f;
    r[1] = b.y;
    r[2] = b.w;
    r[3] = b.h;
    r[4] = (float)b.id;
  }
}

void encode_grid_truth(const BoxLabelList& boxes, int grid_w, int grid_h, int classes, float* row) {
  const size_t plane = (size_t)grid_w * grid_h;
  memset(row, 0, sizeof(float) * plane * (5 + classes));
  // Larger boxes first, so a small box sharing a cell keeps it.
  std::vector<const BoxLabel*> order;
  for (const BoxLabel& b : boxes) order.push_back(&b);
  std::stable_sort(order.begin(), order.end(),
                   [](const BoxLabel* a, const BoxLabel* b) { return a->w * a->h > b->w * b->h; });
  for (const BoxLabel* b : order) {
    const int i = std::min(grid_w - 1, std::max(0, (int)(b->x * grid_w)));
    const int j = std::min(grid_h - 1, std::max(0, (int)(b->y * grid_h)));
    const size_t cell = (size_t)j * grid_w + i;
    row[cell] = 1.f;
    row[plane + cell] = b->x * grid_w - i;
    row[2 * plane + cell] = b->y * grid_h - j;
    row[3 * plane + cell] = std::sqrt(std::max(0.f, b->w));
    row[4 * plane + cell] = std::sqrt(std::max(0.f, b->h));
    for (int k = 0; k < classes; ++k) row[(5 + k) * plane + cell] = k == b->id ? 1.f : 0.f;
  }
}

}  // namespace ORVA

void get_next_batch(void* handle, ORVA::TData& d, int n, int offset, void* input, float* truth) {
  const int cols = d.X.cols;
  std::vector<_half> staged((size_t)n * cols);
  for (int i = 0; i < n; ++i) float2half_cpu(d.X.vals[offset + i], staged.data() + (size_t)i * cols, cols);
  cuda_push(handle, input, staged.data(), staged.size() * sizeof(_half));
  if (truth)
    for (int i = 0; i < n; ++i) memcpy(truth + (size_t)i * d.Y.cols, d.Y.vals[offset + i], sizeof(float) * d.Y.cols);
}
