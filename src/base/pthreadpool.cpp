#include "base/pthreadpool.h"

#include <tbb/blocked_range.h>
#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <memory>

struct pthreadpool {
  std::unique_ptr<tbb::task_arena> arena;
  size_t threads;
};

pthreadpool_t pthreadpool_create(size_t threads_count) {
  auto* pool = new pthreadpool;
  // More threads than cores would only make TBB complain and time-slice.
  const size_t cores = (size_t)tbb::this_task_arena::max_concurrency();
  pool->threads = threads_count && threads_count < cores ? threads_count : cores;
  pool->arena.reset(new tbb::task_arena((int)pool->threads));
  return pool;
}

void pthreadpool_destroy(pthreadpool_t pool) { delete pool; }

size_t pthreadpool_get_threads_count(pthreadpool_t pool) { return pool ? pool->threads : 1; }

namespace {
template <typename Body>
void run(pthreadpool_t pool, Body&& body) {
  if (pool && pool->threads > 1)
    pool->arena->execute(body);
  else
    body();
}
}  // namespace

void pthreadpool_compute_1d(pthreadpool_t pool, pthreadpool_function_1d_t function, void* context,
                            size_t range) {
  if (!pool || pool->threads <= 1) {
    for (size_t i = 0; i < range; ++i) function(context, i);
    return;
  }
  run(pool, [&] {
    tbb::parallel_for(tbb::blocked_range<size_t>(0, range), [&](const tbb::blocked_range<size_t>& r) {
      for (size_t i = r.begin(); i != r.end(); ++i) function(context, i);
    });
  });
}

void pthreadpool_compute_1d_tiled(pthreadpool_t pool, pthreadpool_function_1d_tiled_t function,
                                  void* context, size_t range, size_t tile) {
  if (tile == 0) tile = 1;
  const size_t tiles = (range + tile - 1) / tile;
  auto one = [&](size_t t) {
    const size_t start = t * tile;
    function(context, start, std::min(tile, range - start));
  };
  if (!pool || pool->threads <= 1) {
    for (size_t t = 0; t < tiles; ++t) one(t);
    return;
  }
  run(pool, [&] {
    tbb::parallel_for(tbb::blocked_range<size_t>(0, tiles), [&](const tbb::blocked_range<size_t>& r) {
      for (size_t t = r.begin(); t != r.end(); ++t) one(t);
    });
  });
}

void pthreadpool_compute_2d(pthreadpool_t pool, pthreadpool_function_2d_t function, void* context,
                            size_t range_i, size_t range_j) {
  if (!pool || pool->threads <= 1) {
    for (size_t i = 0; i < range_i; ++i)
      for (size_t j = 0; j < range_j; ++j) function(context, i, j);
    return;
  }
  run(pool, [&] {
    tbb::parallel_for(tbb::blocked_range2d<size_t>(0, range_i, 0, range_j),
                      [&](const tbb::blocked_range2d<size_t>& r) {
                        for (size_t i = r.rows().begin(); i != r.rows().end(); ++i)
                          for (size_t j = r.cols().begin(); j != r.cols().end(); ++j) function(context, i, j);
                      });
  });
}

void pthreadpool_compute_2d_tiled(pthreadpool_t pool, pthreadpool_function_2d_tiled_t function,
                                  void* context, size_t range_i, size_t range_j, size_t tile_i,
                                  size_t tile_j) {
  if (tile_i == 0) tile_i = 1;
  if (tile_j == 0) tile_j = 1;
  const size_t ti = (range_i + tile_i - 1) / tile_i, tj = (range_j + tile_j - 1) / tile_j;
  auto one = [&](size_t a, size_t b) {
    const size_t i = a * tile_i, j = b * tile_j;
    function(context, i, j, std::min(tile_i, range_i - i), std::min(tile_j, range_j - j));
  };
  if (!pool || pool->threads <= 1) {
    for (size_t a = 0; a < ti; ++a)
      for (size_t b = 0; b < tj; ++b) one(a, b);
    return;
  }
  run(pool, [&] {
    tbb::parallel_for(tbb::blocked_range2d<size_t>(0, ti, 0, tj), [&](const tbb::blocked_range2d<size_t>& r) {
      for (size_t a = r.rows().begin(); a != r.rows().end(); ++a)
        for (size_t b = r.cols().begin(); b != r.cols().end(); ++b) one(a, b);
    });
  });
}
