// Parallel-loop pool with the pthreadpool interface, running on TBB.
#pragma once
#include <cstddef>


typedef struct pthreadpool* pthreadpool_t;
typedef void (*pthreadpool_function_1d_t)(void* context, size_t i);
typedef void (*pthreadpool_function_1d_tiled_t)(void* context, size_t i, size_t tile);
typedef void (*pthreadpool_function_2d_t)(void* context, size_t i, size_t j);
typedef void (*pthreadpool_function_2d_tiled_t)(void* context, size_t i, size_t j, size_t tile_i,
                                                size_t tile_j);

// threads_count 0 means as many as the machine has.
pthreadpool_t pthreadpool_create(size_t threads_count);
void pthreadpool_destroy(pthreadpool_t pool);
size_t pthreadpool_get_threads_count(pthreadpool_t pool);
// A null pool runs the loop on the calling thread.
void pthreadpool_compute_1d(pthreadpool_t pool, pthreadpool_function_1d_t function, void* context,
                            size_t range);
void pthreadpool_compute_1d_tiled(pthreadpool_t pool, pthreadpool_function_1d_tiled_t function,
                                  void* context, size_t range, size_t tile);
void pthreadpool_compute_2d(pthreadpool_t pool, pthreadpool_function_2d_t function, void* context,
                            size_t range_i, size_t range_j);
void pthreadpool_compute_2d_tiled(pthreadpool_t pool, pthreadpool_function_2d_tiled_t function,
                                  void* context, size_t range_i, size_t range_j, size_t tile_i,
                                  size_t tile_j);

