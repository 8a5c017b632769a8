// Launchers of the detection-head operations: argument checks, then the backend's twin.
#include "kernels/region.h"

#include "base/error.h"
#include "backend/backend.h"
#include "kernels/region_kernel.h"
#include "orva/util.h"

namespace {

// Zero counts are empty calls; negative ones, null tensors and runs that would overlap
// their neighbours are refused with a line naming the launcher.
bool runs_ok(const char* fn, const void* x, const void* y, int batch, int batch_offset, int groups, int group_offset,
             int n) {
  if (!x || !y)
    ORVA_THROW("%s: null tensor", fn);
  if (batch < 0 || groups < 0 || n < 0 || batch_offset < 0 || group_offset < 0) {
    ORVA_THROW("%s: batch %d, batch_offset %d, groups %d, group_offset %d, n %d must not be negative", fn, batch,
               batch_offset, groups, group_offset, n);
  }
  return batch > 0 && groups > 0 && n > 0;
}

}  // namespace

void region_logistic(void* handle, Ftype* x, int batch, int batch_offset, int groups, int group_offset, int n,
                     float scale) {
  if (!runs_ok("region_logistic", x, x, batch, batch_offset, groups, group_offset, n)) return;
  // Below or at 1 the offsets are left as the logistic gives them.
  const float s = scale > 1.f ? scale : 1.f;
  const float shift = (1.f - s) * 0.5f;
  ORVA_DISPATCH(handle, region::logistic, x, batch, batch_offset, groups, group_offset, n, s, shift);
}

void region_logistic_gradient(void* handle, const Ftype* y, Ftype* delta, int batch, int batch_offset, int groups,
                              int group_offset, int n) {
  if (!runs_ok("region_logistic_gradient", y, delta, batch, batch_offset, groups, group_offset, n)) return;
  ORVA_DISPATCH(handle, region::logistic_gradient, y, delta, batch, batch_offset, groups, group_offset, n);
}
