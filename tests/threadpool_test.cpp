// The parallel-loop pool: every index is visited exactly once, whatever the shape.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "base/pthreadpool.h"

namespace {

struct Visits {
  std::vector<std::atomic<int>> count;
  size_t cols;
  Visits(size_t rows, size_t c) : count(rows * c), cols(c) {}
  bool each_once() const {
    for (auto& c : count)
      if (c.load() != 1) return false;
    return true;
  }
};

void visit_1d(void* ctx, size_t i) { static_cast<Visits*>(ctx)->count[i]++; }
void visit_1d_tiled(void* ctx, size_t i, size_t tile) {
  for (size_t k = i; k < i + tile; ++k) static_cast<Visits*>(ctx)->count[k]++;
}
void visit_2d(void* ctx, size_t i, size_t j) {
  auto* v = static_cast<Visits*>(ctx);
  v->count[i * v->cols + j]++;
}
void visit_2d_tiled(void* ctx, size_t i, size_t j, size_t ti, size_t tj) {
  auto* v = static_cast<Visits*>(ctx);
  for (size_t a = i; a < i + ti; ++a)
    for (size_t b = j; b < j + tj; ++b) v->count[a * v->cols + b]++;
}

TEST(ThreadPool, EveryIndexExactlyOnce) {
  for (size_t threads : {0, 1, 2, 5}) {
    pthreadpool_t pool = pthreadpool_create(threads);
    ASSERT_NE(pool, nullptr);
    EXPECT_GE(pthreadpool_get_threads_count(pool), 1u);
    for (size_t range : {0, 1, 7, 1000, 100003}) {
      Visits v(range, 1);
      pthreadpool_compute_1d(pool, visit_1d, &v, range);
      EXPECT_TRUE(v.each_once()) << "1d " << range << " threads " << threads;
      for (size_t tile : {1, 3, 64, 200000}) {
        Visits t(range, 1);
        pthreadpool_compute_1d_tiled(pool, visit_1d_tiled, &t, range, tile);
        EXPECT_TRUE(t.each_once()) << "1d tiled " << range << "/" << tile;
      }
    }
    for (auto shape : {std::pair<size_t, size_t>{1, 1}, {3, 700}, {257, 13}, {0, 5}}) {
      Visits v(shape.first, shape.second);
      pthreadpool_compute_2d(pool, visit_2d, &v, shape.first, shape.second);
      EXPECT_TRUE(v.each_once()) << "2d " << shape.first << "x" << shape.second;
      Visits t(shape.first, shape.second);
      pthreadpool_compute_2d_tiled(pool, visit_2d_tiled, &t, shape.first, shape.second, 4, 9);
      EXPECT_TRUE(t.each_once()) << "2d tiled " << shape.first << "x" << shape.second;
    }
    pthreadpool_destroy(pool);
  }
  Visits v(10, 1);
  pthreadpool_compute_1d(nullptr, visit_1d, &v, 10);  // no pool: the caller's thread
  EXPECT_TRUE(v.each_once());
}

}  // namespace
