// Emulated CUDA: the cuDNN calls the engine makes, answered by plain reference arithmetic
// (float accumulation, one rounding into the output type) behind the argument checks cuDNN 9
// documents for each call, returning its status codes (the numbering comes from the toolkit's
// own cudnn.h).
//
// What it adds beyond arithmetic:
//  - every descriptor lives in a registry: a call on a destroyed or never-made descriptor is a
//    fault and CUDNN_STATUS_BAD_PARAM; orva_emu::cudnn_live_descriptors() counts the live ones
//    so a test can see a leak;
//  - workspace honesty: each algorithm needs the bytes the size query reports for it, a call
//    given fewer fails with CUDNN_STATUS_BAD_PARAM, and the workspace is filled with NaN
//    before every call that takes one, so nothing can rely on what it held;
//  - the algorithm searches list unsupported algorithms with their status and rank those with
//    the largest workspace first, as a real search may, so a caller that takes the first
//    entry without looking at its status and memory is caught.
//
// It cannot show speed, the rounding of a particular GPU algorithm, tensor-core conversions or
// anything that depends on the GPU's architecture; only a real GPU proves those.
#include "emu/cuda_emu.h"  // first: it settles the qualifiers the toolkit's headers use

#include <cudnn.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "emu/emu_state.h"

using orva_emu::device_range;
using orva_emu::fault;

namespace {

enum class Kind { Tensor, Filter, Convolution, Activation };
const char* kind_name(Kind k) {
  switch (k) {
    case Kind::Tensor: return "tensor";
    case Kind::Filter: return "filter";
    case Kind::Convolution: return "convolution";
    default: return "activation";
  }
}

struct Registry {
  std::mutex lock;
  std::unordered_set<const void*> made;  // every descriptor ever made (never freed, so never reused)
  std::atomic<long> live{0};
};
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

struct Descriptor {
  Kind kind;
  bool live = true;
  bool set = false;
  explicit Descriptor(Kind k) : kind(k) {}
};

}  // namespace

struct cudnnContext {
  cudaStream_t stream = nullptr;
};
struct cudnnTensorStruct : Descriptor {
  cudnnTensorStruct() : Descriptor(Kind::Tensor) {}
  cudnnDataType_t type = CUDNN_DATA_FLOAT;
  cudnnTensorFormat_t format = CUDNN_TENSOR_NCHW;
  int n = 0, c = 0, h = 0, w = 0;
};
struct cudnnFilterStruct : Descriptor {
  cudnnFilterStruct() : Descriptor(Kind::Filter) {}
  cudnnDataType_t type = CUDNN_DATA_FLOAT;
  cudnnTensorFormat_t format = CUDNN_TENSOR_NCHW;
  int k = 0, c = 0, h = 0, w = 0;
};
struct cudnnConvolutionStruct : Descriptor {
  cudnnConvolutionStruct() : Descriptor(Kind::Convolution) {}
  int pad_h = 0, pad_w = 0, u = 1, v = 1, dil_h = 1, dil_w = 1, groups = 1;
  cudnnConvolutionMode_t mode = CUDNN_CROSS_CORRELATION;
  cudnnDataType_t compute = CUDNN_DATA_FLOAT;
  cudnnMathType_t math = CUDNN_DEFAULT_MATH;
};
struct cudnnActivationStruct : Descriptor {
  cudnnActivationStruct() : Descriptor(Kind::Activation) {}
  cudnnActivationMode_t mode = CUDNN_ACTIVATION_IDENTITY;
  double coef = 0;
};

namespace orva_emu {
long cudnn_live_descriptors() { return registry().live.load(); }
}  // namespace orva_emu

namespace {

template <typename T>
cudnnStatus_t make(T** out) {
  if (!out) return CUDNN_STATUS_BAD_PARAM_NULL_POINTER;
  T* d = new T;
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.lock);
  r.made.insert(d);
  ++r.live;
  *out = d;
  return CUDNN_STATUS_SUCCESS;
}

// A descriptor that was made here and not destroyed; with `need_set`, also given its shape.
bool usable(const char* call, const void* p, Kind kind, bool need_set = true) {
  Registry& r = registry();
  {
    std::lock_guard<std::mutex> g(r.lock);
    if (!p || !r.made.count(p)) {
      fault("%s: %p is not a %s descriptor", call, p, kind_name(kind));
      return false;
    }
  }
  const Descriptor* d = static_cast<const Descriptor*>(p);
  if (d->kind != kind) {
    fault("%s: %p is a %s descriptor where a %s descriptor belongs", call, p, kind_name(d->kind), kind_name(kind));
    return false;
  }
  if (!d->live) {
    fault("%s: %s descriptor %p used after it was destroyed", call, kind_name(kind), p);
    return false;
  }
  if (need_set && !d->set) {
    fault("%s: %s descriptor %p was never set", call, kind_name(kind), p);
    return false;
  }
  return true;
}

cudnnStatus_t destroy(const char* call, void* p, Kind kind) {
  if (!p) return CUDNN_STATUS_SUCCESS;  // as cuDNN: destroying null does nothing
  if (!usable(call, p, kind, false)) return CUDNN_STATUS_BAD_PARAM;
  static_cast<Descriptor*>(p)->live = false;
  --registry().live;
  return CUDNN_STATUS_SUCCESS;
}

bool is_vector(cudnnDataType_t t) { return t == CUDNN_DATA_INT8x4 || t == CUDNN_DATA_UINT8x4 || t == CUDNN_DATA_INT8x32; }
int vector_width(cudnnDataType_t t) { return t == CUDNN_DATA_INT8x32 ? 32 : (is_vector(t) ? 4 : 1); }

size_t element_bytes(cudnnDataType_t t) {
  switch (t) {
    case CUDNN_DATA_FLOAT:
    case CUDNN_DATA_INT32: return 4;
    case CUDNN_DATA_DOUBLE: return 8;
    case CUDNN_DATA_HALF: return 2;
    case CUDNN_DATA_INT8:
    case CUDNN_DATA_UINT8:
    case CUDNN_DATA_INT8x4:
    case CUDNN_DATA_UINT8x4:
    case CUDNN_DATA_INT8x32: return 1;  // per element; a vector holds 4 or 32 of them
    default: return 0;
  }
}

bool integer_type(cudnnDataType_t t) { return t != CUDNN_DATA_FLOAT && t != CUDNN_DATA_DOUBLE && t != CUDNN_DATA_HALF; }

// The documented 4-d shape rules shared by tensors and filters: positive sizes, a known type
// and layout, vector types only in the vector layout with whole vectors of channels.
cudnnStatus_t check_4d(const char* call, cudnnTensorFormat_t format, cudnnDataType_t type, int n, int c, int h, int w) {
  const char* bad = nullptr;
  cudnnStatus_t status = CUDNN_STATUS_BAD_PARAM;
  if (n <= 0 || c <= 0 || h <= 0 || w <= 0)
    bad = "sizes must be positive";
  else if (format != CUDNN_TENSOR_NCHW && format != CUDNN_TENSOR_NHWC && format != CUDNN_TENSOR_NCHW_VECT_C)
    bad = "unknown layout";
  else if (!element_bytes(type))
    bad = "unknown data type";
  else if ((format == CUDNN_TENSOR_NCHW_VECT_C) != is_vector(type))
    bad = "vector data types go with the NCHW_VECT_C layout and only there";
  else if (c % vector_width(type))
    bad = "channels must fill whole vectors";
  else if ((double)n * c * h * w > 2147483647.0) {
    bad = "more than 2^31 elements";
    status = CUDNN_STATUS_NOT_SUPPORTED;
  }
  if (!bad) return CUDNN_STATUS_SUCCESS;
  fault("%s(format %d, type %d, %d x %d x %d x %d): %s", call, (int)format, (int)type, n, c, h, w, bad);
  return status;
}

// Offset in elements (bytes for 8-bit types) of (n, c, h, w) in a packed 4-d layout.
size_t offset(cudnnTensorFormat_t f, cudnnDataType_t t, int N, int C, int H, int W, int n, int c, int h, int w) {
  (void)N;
  switch (f) {
    case CUDNN_TENSOR_NHWC: return (((size_t)n * H + h) * W + w) * C + c;
    case CUDNN_TENSOR_NCHW_VECT_C: {
      const int v = vector_width(t);
      return ((((size_t)n * (C / v) + c / v) * H + h) * W + w) * v + c % v;
    }
    default: return (((size_t)n * C + c) * H + h) * W + w;
  }
}

float load(const void* p, cudnnDataType_t t, size_t i) {
  switch (t) {
    case CUDNN_DATA_HALF: return __half2float(static_cast<const __half*>(p)[i]);
    case CUDNN_DATA_DOUBLE: return (float)static_cast<const double*>(p)[i];
    case CUDNN_DATA_INT32: return (float)static_cast<const int32_t*>(p)[i];
    case CUDNN_DATA_INT8:
    case CUDNN_DATA_INT8x4:
    case CUDNN_DATA_INT8x32: return static_cast<const int8_t*>(p)[i];
    case CUDNN_DATA_UINT8:
    case CUDNN_DATA_UINT8x4: return static_cast<const uint8_t*>(p)[i];
    default: return static_cast<const float*>(p)[i];
  }
}

void store(void* p, cudnnDataType_t t, size_t i, float v) {
  const auto saturate = [](float x, float lo, float hi) { return x != x ? 0.f : std::min(hi, std::max(lo, std::nearbyint(x))); };
  switch (t) {
    case CUDNN_DATA_HALF: static_cast<__half*>(p)[i] = __float2half_rn(v); break;
    case CUDNN_DATA_DOUBLE: static_cast<double*>(p)[i] = v; break;
    case CUDNN_DATA_INT32: static_cast<int32_t*>(p)[i] = (int32_t)saturate(v, -2147483648.f, 2147483520.f); break;
    case CUDNN_DATA_INT8:
    case CUDNN_DATA_INT8x4:
    case CUDNN_DATA_INT8x32: static_cast<int8_t*>(p)[i] = (int8_t)saturate(v, -128.f, 127.f); break;
    case CUDNN_DATA_UINT8:
    case CUDNN_DATA_UINT8x4: static_cast<uint8_t*>(p)[i] = (uint8_t)saturate(v, 0.f, 255.f); break;
    default: static_cast<float*>(p)[i] = v;
  }
}

// A view of one tensor or filter argument: shape, layout and data.
struct View {
  cudnnDataType_t type;
  cudnnTensorFormat_t format;
  int n, c, h, w;
  const void* p;
  size_t elements() const { return (size_t)n * c * h * w; }
  size_t index(int i, int j, int y, int x) const { return offset(format, type, n, c, h, w, i, j, y, x); }
  float at(int i, int j, int y, int x) const { return load(p, type, index(i, j, y, x)); }
  void put(int i, int j, int y, int x, float v) const { store(const_cast<void*>(p), type, index(i, j, y, x), v); }
};
View view(const cudnnTensorStruct* d, const void* p) { return {d->type, d->format, d->n, d->c, d->h, d->w, p}; }
View view(const cudnnFilterStruct* d, const void* p) { return {d->type, d->format, d->k, d->c, d->h, d->w, p}; }

bool inside(const char* call, const char* what, const View& v) {
  if (device_range(v.p, v.elements() * element_bytes(v.type))) return true;
  fault("%s: %s %p (%d x %d x %d x %d) is not inside one device allocation", call, what, v.p, v.n, v.c, v.h, v.w);
  return false;
}

// Scalars are double for double data and float otherwise.
float scalar(const void* p, cudnnDataType_t data) {
  return data == CUDNN_DATA_DOUBLE ? (float)*static_cast<const double*>(p) : *static_cast<const float*>(p);
}

// --- convolution geometry, type support and algorithms ------------------------------------

struct ConvArgs {
  const cudnnTensorStruct* x;
  const cudnnFilterStruct* w;
  const cudnnConvolutionStruct* conv;
  const cudnnTensorStruct* y;
};

int out_dim(int in, int pad, int filter, int dilation, int stride) {
  return (in + 2 * pad - ((filter - 1) * dilation + 1)) / stride + 1;
}

// Shapes: x.C = w.C x groups, the filters split evenly into groups, y equal to the
// convolution's output-dimension rule.
cudnnStatus_t check_geometry(const char* call, const ConvArgs& a) {
  const cudnnConvolutionStruct* cv = a.conv;
  char why[200] = "";
  if (a.x->c != a.w->c * cv->groups)
    snprintf(why, sizeof(why), "input channels %d != filter channels %d x groups %d", a.x->c, a.w->c, cv->groups);
  else if (a.w->k % cv->groups)
    snprintf(why, sizeof(why), "filters %d do not split into %d groups", a.w->k, cv->groups);
  else if (a.x->h + 2 * cv->pad_h < (a.w->h - 1) * cv->dil_h + 1 || a.x->w + 2 * cv->pad_w < (a.w->w - 1) * cv->dil_w + 1)
    snprintf(why, sizeof(why), "filter extent exceeds the padded input");
  else {
    const int oh = out_dim(a.x->h, cv->pad_h, a.w->h, cv->dil_h, cv->u);
    const int ow = out_dim(a.x->w, cv->pad_w, a.w->w, cv->dil_w, cv->v);
    if (a.y->n != a.x->n || a.y->c != a.w->k || a.y->h != oh || a.y->w != ow)
      snprintf(why, sizeof(why), "output %d x %d x %d x %d, the convolution gives %d x %d x %d x %d", a.y->n, a.y->c,
               a.y->h, a.y->w, a.x->n, a.w->k, oh, ow);
  }
  if (!*why) return CUDNN_STATUS_SUCCESS;
  fault("%s: %s", call, why);
  return CUDNN_STATUS_BAD_PARAM;
}

// The data-type combinations of the forward support table: float, double, true and pseudo
// half, and the 8-bit ones (plain NHWC or four-channel vectors, signed or unsigned input,
// signed weights, 32-bit integer compute, 8-bit or float output).
bool forward_types_supported(const ConvArgs& a) {
  const cudnnDataType_t x = a.x->type, w = a.w->type, y = a.y->type, c = a.conv->compute;
  if (x == CUDNN_DATA_FLOAT) return w == x && y == x && c == CUDNN_DATA_FLOAT;
  if (x == CUDNN_DATA_DOUBLE) return w == x && y == x && c == CUDNN_DATA_DOUBLE;
  if (x == CUDNN_DATA_HALF) return w == x && y == x && (c == CUDNN_DATA_HALF || c == CUDNN_DATA_FLOAT);
  if (c != CUDNN_DATA_INT32) return false;
  if (x == CUDNN_DATA_INT8)
    return w == CUDNN_DATA_INT8 && a.x->format == CUDNN_TENSOR_NHWC && a.w->format == CUDNN_TENSOR_NHWC &&
           (y == CUDNN_DATA_INT8 || y == CUDNN_DATA_FLOAT);
  if (x == CUDNN_DATA_INT8x4 || x == CUDNN_DATA_UINT8x4)
    return w == CUDNN_DATA_INT8x4 && (y == x || y == CUDNN_DATA_INT8x4 || y == CUDNN_DATA_FLOAT);
  return false;
}

bool backward_types_supported(cudnnDataType_t data, cudnnDataType_t compute) {
  if (data == CUDNN_DATA_HALF) return compute == CUDNN_DATA_HALF || compute == CUDNN_DATA_FLOAT;
  return (data == CUDNN_DATA_FLOAT || data == CUDNN_DATA_DOUBLE) && compute == data;
}

cudnnStatus_t check_conv(const char* call, cudnnHandle_t h, const ConvArgs& a) {
  if (!h) {
    fault("%s: no handle", call);
    return CUDNN_STATUS_BAD_PARAM;
  }
  if (!usable(call, a.x, Kind::Tensor) || !usable(call, a.w, Kind::Filter) || !usable(call, a.conv, Kind::Convolution) ||
      !usable(call, a.y, Kind::Tensor))
    return CUDNN_STATUS_BAD_PARAM;
  return check_geometry(call, a);
}

size_t gemm_columns(const ConvArgs& a) {
  const int oh = a.y->h, ow = a.y->w;
  return (size_t)a.w->c * a.w->h * a.w->w * oh * ow * a.conv->groups;
}

// Workspace of each emulated algorithm: the unfolded input of the whole batch for GEMM, an
// index table for the precomputed implicit GEMM, padded transforms of input and filters
// for the FFT; -1 for an algorithm that cannot run this convolution.
long long forward_need(const ConvArgs& a, int algo) {
  const cudnnConvolutionStruct* cv = a.conv;
  const bool eight_bit = integer_type(a.x->type);
  const bool plain = cv->u == 1 && cv->v == 1 && cv->dil_h == 1 && cv->dil_w == 1 && cv->groups == 1;
  const size_t elem = element_bytes(a.x->type);
  switch (algo) {
    case CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM: return eight_bit ? -1 : 0;
    case CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM: return (long long)a.w->c * a.w->h * a.w->w * 4 + 256;
    case CUDNN_CONVOLUTION_FWD_ALGO_GEMM: return eight_bit ? -1 : (long long)(a.x->n * gemm_columns(a) * elem);
    case CUDNN_CONVOLUTION_FWD_ALGO_FFT:
      if (eight_bit || !plain) return -1;
      return (long long)a.x->n * (a.x->c + a.w->k) * (a.x->h + 2 * cv->pad_h) * (a.x->w + 2 * cv->pad_w) * 8;
    default: return -1;
  }
}

long long backward_need(const ConvArgs& a, int algo) {
  // Algorithm 0 works in place; 1 unfolds the whole batch; FFT as forward; the rest are not
  // emulated and report themselves unsupported.
  if (!backward_types_supported(a.x->type, a.conv->compute)) return -1;
  if (algo == 0) return 0;
  if (algo == 1) return (long long)(a.x->n * gemm_columns(a) * element_bytes(a.x->type));
  if (algo == 2) return forward_need(a, CUDNN_CONVOLUTION_FWD_ALGO_FFT);
  return -1;
}

template <typename Perf, typename Need>
cudnnStatus_t search(const char* call, cudnnHandle_t h, const ConvArgs& a, bool types_ok, int algos, Need need,
                     int requested, int* returned, Perf* perf) {
  cudnnStatus_t st = check_conv(call, h, a);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  if (requested < 1 || !returned || !perf) {
    fault("%s: %d results asked for, count %p, results %p", call, requested, (void*)returned, (void*)perf);
    return CUDNN_STATUS_BAD_PARAM;
  }
  std::vector<Perf> all;
  for (int algo = 0; algo < algos; ++algo) {
    Perf p;
    memset(&p, 0, sizeof(p));
    p.algo = (decltype(p.algo))algo;
    const long long bytes = types_ok ? need(a, algo) : -1;
    p.status = bytes < 0 ? CUDNN_STATUS_NOT_SUPPORTED : CUDNN_STATUS_SUCCESS;
    p.memory = bytes < 0 ? 0 : (size_t)bytes;
    // The emulator's "timings" favour the hungriest algorithms, as fast GPU ones often are.
    p.time = bytes < 0 ? -1.f : 1.f / (1.f + std::log2(1.f + (float)bytes));
    p.determinism = CUDNN_DETERMINISTIC;
    p.mathType = a.conv->math;
    all.push_back(p);
  }
  // Largest workspace first; an unsupported algorithm goes first among those needing none, so
  // a caller that never looks at the status meets it whenever no supported one needs memory.
  std::stable_sort(all.begin(), all.end(), [](const Perf& l, const Perf& r) {
    const long long lm = l.status ? 0 : (long long)l.memory + 1, rm = r.status ? 0 : (long long)r.memory + 1;
    return lm > rm;
  });
  *returned = std::min(requested, (int)all.size());
  std::copy(all.begin(), all.begin() + *returned, perf);
  return CUDNN_STATUS_SUCCESS;
}

bool poison_workspace(const char* call, void* ws, size_t bytes, long long need) {
  if (need < 0) return true;
  if (bytes < (size_t)need) {
    fault("%s: workspace of %zu bytes, the algorithm needs %lld", call, bytes, need);
    return false;
  }
  if (!need) return true;
  if (!device_range(ws, (size_t)need)) {
    fault("%s: workspace %p of %lld bytes is not inside one device allocation", call, ws, need);
    return false;
  }
  memset(ws, 0xff, (size_t)bytes);  // a NaN in every float and half
  return true;
}

// Reference convolution sum at one output position, in float (exact int32 for 8-bit data).
float conv_sum(const ConvArgs& a, const View& x, const View& w, int n, int k, int oy, int ox) {
  const cudnnConvolutionStruct* cv = a.conv;
  const int cpg = a.w->c, fpg = a.w->k / cv->groups, g = k / fpg;
  const bool exact = integer_type(a.x->type);
  float acc = 0.f;
  int32_t iacc = 0;
  for (int c = 0; c < cpg; ++c)
    for (int ky = 0; ky < a.w->h; ++ky) {
      const int iy = oy * cv->u - cv->pad_h + ky * cv->dil_h;
      if (iy < 0 || iy >= a.x->h) continue;
      for (int kx = 0; kx < a.w->w; ++kx) {
        const int ix = ox * cv->v - cv->pad_w + kx * cv->dil_w;
        if (ix < 0 || ix >= a.x->w) continue;
        const float xv = x.at(n, g * cpg + c, iy, ix), wv = w.at(k, c, ky, kx);
        if (exact)
          iacc += (int32_t)xv * (int32_t)wv;
        else
          acc += xv * wv;
      }
    }
  return exact ? (float)iacc : acc;
}

}  // namespace

// --- context --------------------------------------------------------------------------------

cudnnStatus_t cudnnCreate(cudnnHandle_t* handle) {
  if (!handle) return CUDNN_STATUS_BAD_PARAM_NULL_POINTER;
  *handle = new cudnnContext;
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnDestroy(cudnnHandle_t handle) {
  delete handle;
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnSetStream(cudnnHandle_t handle, cudaStream_t stream) {
  if (!handle) return CUDNN_STATUS_BAD_PARAM;
  if (!orva_emu::stream_valid(stream)) {
    fault("cudnnSetStream: stream %p was not made or was destroyed", (void*)stream);
    return CUDNN_STATUS_BAD_PARAM;
  }
  handle->stream = stream;
  return CUDNN_STATUS_SUCCESS;
}

const char* cudnnGetErrorString(cudnnStatus_t status) {
  switch (status) {
    case CUDNN_STATUS_SUCCESS: return "CUDNN_STATUS_SUCCESS";
    case CUDNN_STATUS_NOT_INITIALIZED: return "CUDNN_STATUS_NOT_INITIALIZED";
    case CUDNN_STATUS_BAD_PARAM: return "CUDNN_STATUS_BAD_PARAM";
    case CUDNN_STATUS_BAD_PARAM_NULL_POINTER: return "CUDNN_STATUS_BAD_PARAM_NULL_POINTER";
    case CUDNN_STATUS_NOT_SUPPORTED: return "CUDNN_STATUS_NOT_SUPPORTED";
    case CUDNN_STATUS_INTERNAL_ERROR: return "CUDNN_STATUS_INTERNAL_ERROR";
    case CUDNN_STATUS_EXECUTION_FAILED: return "CUDNN_STATUS_EXECUTION_FAILED";
    default: return "CUDNN_STATUS_UNKNOWN";
  }
}

// --- descriptors ------------------------------------------------------------------------------

cudnnStatus_t cudnnCreateTensorDescriptor(cudnnTensorDescriptor_t* d) { return make(d); }
cudnnStatus_t cudnnCreateFilterDescriptor(cudnnFilterDescriptor_t* d) { return make(d); }
cudnnStatus_t cudnnCreateConvolutionDescriptor(cudnnConvolutionDescriptor_t* d) { return make(d); }
cudnnStatus_t cudnnCreateActivationDescriptor(cudnnActivationDescriptor_t* d) { return make(d); }
cudnnStatus_t cudnnDestroyTensorDescriptor(cudnnTensorDescriptor_t d) {
  return destroy("cudnnDestroyTensorDescriptor", d, Kind::Tensor);
}
cudnnStatus_t cudnnDestroyFilterDescriptor(cudnnFilterDescriptor_t d) {
  return destroy("cudnnDestroyFilterDescriptor", d, Kind::Filter);
}
cudnnStatus_t cudnnDestroyConvolutionDescriptor(cudnnConvolutionDescriptor_t d) {
  return destroy("cudnnDestroyConvolutionDescriptor", d, Kind::Convolution);
}
cudnnStatus_t cudnnDestroyActivationDescriptor(cudnnActivationDescriptor_t d) {
  return destroy("cudnnDestroyActivationDescriptor", d, Kind::Activation);
}

cudnnStatus_t cudnnSetTensor4dDescriptor(cudnnTensorDescriptor_t d, cudnnTensorFormat_t format, cudnnDataType_t type,
                                         int n, int c, int h, int w) {
  const char* call = "cudnnSetTensor4dDescriptor";
  if (!usable(call, d, Kind::Tensor, false)) return CUDNN_STATUS_BAD_PARAM;
  const cudnnStatus_t st = check_4d(call, format, type, n, c, h, w);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  d->type = type;
  d->format = format;
  d->n = n, d->c = c, d->h = h, d->w = w;
  d->set = true;
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnSetFilter4dDescriptor(cudnnFilterDescriptor_t d, cudnnDataType_t type, cudnnTensorFormat_t format,
                                         int k, int c, int h, int w) {
  const char* call = "cudnnSetFilter4dDescriptor";
  if (!usable(call, d, Kind::Filter, false)) return CUDNN_STATUS_BAD_PARAM;
  const cudnnStatus_t st = check_4d(call, format, type, k, c, h, w);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  d->type = type;
  d->format = format;
  d->k = k, d->c = c, d->h = h, d->w = w;
  d->set = true;
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnSetConvolution2dDescriptor(cudnnConvolutionDescriptor_t d, int pad_h, int pad_w, int u, int v,
                                              int dil_h, int dil_w, cudnnConvolutionMode_t mode,
                                              cudnnDataType_t compute) {
  const char* call = "cudnnSetConvolution2dDescriptor";
  if (!usable(call, d, Kind::Convolution, false)) return CUDNN_STATUS_BAD_PARAM;
  if (pad_h < 0 || pad_w < 0 || u <= 0 || v <= 0 || dil_h <= 0 || dil_w <= 0 ||
      (mode != CUDNN_CONVOLUTION && mode != CUDNN_CROSS_CORRELATION) || !element_bytes(compute) || is_vector(compute)) {
    fault("%s(pad %d %d, stride %d %d, dilation %d %d, mode %d, compute %d): out of range", call, pad_h, pad_w, u, v,
          dil_h, dil_w, (int)mode, (int)compute);
    return CUDNN_STATUS_BAD_PARAM;
  }
  d->pad_h = pad_h, d->pad_w = pad_w, d->u = u, d->v = v, d->dil_h = dil_h, d->dil_w = dil_w;
  d->mode = mode;
  d->compute = compute;
  d->set = true;
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnSetConvolutionGroupCount(cudnnConvolutionDescriptor_t d, int groups) {
  const char* call = "cudnnSetConvolutionGroupCount";
  if (!usable(call, d, Kind::Convolution, false)) return CUDNN_STATUS_BAD_PARAM;
  if (groups < 1) {
    fault("%s(%d): groups must be positive", call, groups);
    return CUDNN_STATUS_BAD_PARAM;
  }
  d->groups = groups;
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnSetConvolutionMathType(cudnnConvolutionDescriptor_t d, cudnnMathType_t math) {
  const char* call = "cudnnSetConvolutionMathType";
  if (!usable(call, d, Kind::Convolution, false)) return CUDNN_STATUS_BAD_PARAM;
  if (math != CUDNN_DEFAULT_MATH && math != CUDNN_TENSOR_OP_MATH && math != CUDNN_TENSOR_OP_MATH_ALLOW_CONVERSION &&
      math != CUDNN_FMA_MATH) {
    fault("%s(%d): unknown math type", call, (int)math);
    return CUDNN_STATUS_BAD_PARAM;
  }
  d->math = math;
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnSetActivationDescriptor(cudnnActivationDescriptor_t d, cudnnActivationMode_t mode,
                                           cudnnNanPropagation_t nan, double coef) {
  const char* call = "cudnnSetActivationDescriptor";
  if (!usable(call, d, Kind::Activation, false)) return CUDNN_STATUS_BAD_PARAM;
  if ((int)mode < CUDNN_ACTIVATION_SIGMOID || (int)mode > CUDNN_ACTIVATION_SWISH ||
      (nan != CUDNN_NOT_PROPAGATE_NAN && nan != CUDNN_PROPAGATE_NAN)) {
    fault("%s(mode %d, nan %d): out of range", call, (int)mode, (int)nan);
    return CUDNN_STATUS_BAD_PARAM;
  }
  d->mode = mode;
  d->coef = coef;
  d->set = true;
  return CUDNN_STATUS_SUCCESS;
}

// --- algorithm choice and workspace ------------------------------------------------------

cudnnStatus_t cudnnGetConvolutionForwardAlgorithm_v7(cudnnHandle_t h, const cudnnTensorDescriptor_t x,
                                                     const cudnnFilterDescriptor_t w,
                                                     const cudnnConvolutionDescriptor_t conv,
                                                     const cudnnTensorDescriptor_t y, const int requested,
                                                     int* returned, cudnnConvolutionFwdAlgoPerf_t* perf) {
  const ConvArgs a{x, w, conv, y};
  const char* call = "cudnnGetConvolutionForwardAlgorithm_v7";
  if (check_conv(call, h, a) != CUDNN_STATUS_SUCCESS) return CUDNN_STATUS_BAD_PARAM;
  return search(call, h, a, forward_types_supported(a), CUDNN_CONVOLUTION_FWD_ALGO_COUNT, forward_need, requested,
                returned, perf);
}

cudnnStatus_t cudnnFindConvolutionForwardAlgorithm(cudnnHandle_t h, const cudnnTensorDescriptor_t x,
                                                   const cudnnFilterDescriptor_t w,
                                                   const cudnnConvolutionDescriptor_t conv,
                                                   const cudnnTensorDescriptor_t y, const int requested, int* returned,
                                                   cudnnConvolutionFwdAlgoPerf_t* perf) {
  const ConvArgs a{x, w, conv, y};
  const char* call = "cudnnFindConvolutionForwardAlgorithm";
  if (check_conv(call, h, a) != CUDNN_STATUS_SUCCESS) return CUDNN_STATUS_BAD_PARAM;
  return search(call, h, a, forward_types_supported(a), CUDNN_CONVOLUTION_FWD_ALGO_COUNT, forward_need, requested,
                returned, perf);
}

cudnnStatus_t cudnnGetConvolutionForwardWorkspaceSize(cudnnHandle_t h, const cudnnTensorDescriptor_t x,
                                                      const cudnnFilterDescriptor_t w,
                                                      const cudnnConvolutionDescriptor_t conv,
                                                      const cudnnTensorDescriptor_t y, cudnnConvolutionFwdAlgo_t algo,
                                                      size_t* bytes) {
  const ConvArgs a{x, w, conv, y};
  const char* call = "cudnnGetConvolutionForwardWorkspaceSize";
  const cudnnStatus_t st = check_conv(call, h, a);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  if (!bytes) return CUDNN_STATUS_BAD_PARAM_NULL_POINTER;
  const long long need = forward_types_supported(a) ? forward_need(a, algo) : -1;
  if (need < 0) {
    fault("%s: algorithm %d cannot run this convolution", call, (int)algo);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  *bytes = (size_t)need;
  return CUDNN_STATUS_SUCCESS;
}

// The backward calls describe the same convolution with x as the input-gradient and y as the
// output-gradient tensor.
cudnnStatus_t cudnnGetConvolutionBackwardDataAlgorithm_v7(cudnnHandle_t h, const cudnnFilterDescriptor_t w,
                                                          const cudnnTensorDescriptor_t dy,
                                                          const cudnnConvolutionDescriptor_t conv,
                                                          const cudnnTensorDescriptor_t dx, const int requested,
                                                          int* returned, cudnnConvolutionBwdDataAlgoPerf_t* perf) {
  const ConvArgs a{dx, w, conv, dy};
  return search("cudnnGetConvolutionBackwardDataAlgorithm_v7", h, a, true, CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT,
                backward_need, requested, returned, perf);
}

cudnnStatus_t cudnnFindConvolutionBackwardDataAlgorithm(cudnnHandle_t h, const cudnnFilterDescriptor_t w,
                                                        const cudnnTensorDescriptor_t dy,
                                                        const cudnnConvolutionDescriptor_t conv,
                                                        const cudnnTensorDescriptor_t dx, const int requested,
                                                        int* returned, cudnnConvolutionBwdDataAlgoPerf_t* perf) {
  const ConvArgs a{dx, w, conv, dy};
  return search("cudnnFindConvolutionBackwardDataAlgorithm", h, a, true, CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT,
                backward_need, requested, returned, perf);
}

cudnnStatus_t cudnnGetConvolutionBackwardFilterAlgorithm_v7(cudnnHandle_t h, const cudnnTensorDescriptor_t x,
                                                            const cudnnTensorDescriptor_t dy,
                                                            const cudnnConvolutionDescriptor_t conv,
                                                            const cudnnFilterDescriptor_t dw, const int requested,
                                                            int* returned, cudnnConvolutionBwdFilterAlgoPerf_t* perf) {
  const ConvArgs a{x, dw, conv, dy};
  return search("cudnnGetConvolutionBackwardFilterAlgorithm_v7", h, a, true, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT,
                backward_need, requested, returned, perf);
}

cudnnStatus_t cudnnFindConvolutionBackwardFilterAlgorithm(cudnnHandle_t h, const cudnnTensorDescriptor_t x,
                                                          const cudnnTensorDescriptor_t dy,
                                                          const cudnnConvolutionDescriptor_t conv,
                                                          const cudnnFilterDescriptor_t dw, const int requested,
                                                          int* returned, cudnnConvolutionBwdFilterAlgoPerf_t* perf) {
  const ConvArgs a{x, dw, conv, dy};
  return search("cudnnFindConvolutionBackwardFilterAlgorithm", h, a, true, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT,
                backward_need, requested, returned, perf);
}

namespace {
cudnnStatus_t backward_size(const char* call, cudnnHandle_t h, const ConvArgs& a, int algo, size_t* bytes) {
  const cudnnStatus_t st = check_conv(call, h, a);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  if (!bytes) return CUDNN_STATUS_BAD_PARAM_NULL_POINTER;
  const long long need = backward_need(a, algo);
  if (need < 0) {
    fault("%s: algorithm %d cannot run this convolution", call, algo);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  *bytes = (size_t)need;
  return CUDNN_STATUS_SUCCESS;
}
}  // namespace

cudnnStatus_t cudnnGetConvolutionBackwardDataWorkspaceSize(cudnnHandle_t h, const cudnnFilterDescriptor_t w,
                                                           const cudnnTensorDescriptor_t dy,
                                                           const cudnnConvolutionDescriptor_t conv,
                                                           const cudnnTensorDescriptor_t dx,
                                                           cudnnConvolutionBwdDataAlgo_t algo, size_t* bytes) {
  return backward_size("cudnnGetConvolutionBackwardDataWorkspaceSize", h, {dx, w, conv, dy}, algo, bytes);
}

cudnnStatus_t cudnnGetConvolutionBackwardFilterWorkspaceSize(cudnnHandle_t h, const cudnnTensorDescriptor_t x,
                                                             const cudnnTensorDescriptor_t dy,
                                                             const cudnnConvolutionDescriptor_t conv,
                                                             const cudnnFilterDescriptor_t dw,
                                                             cudnnConvolutionBwdFilterAlgo_t algo, size_t* bytes) {
  return backward_size("cudnnGetConvolutionBackwardFilterWorkspaceSize", h, {x, dw, conv, dy}, algo, bytes);
}

// --- convolutions ----------------------------------------------------------------------------

namespace {

// Checks shared by the forward calls; on success the output may be written.
cudnnStatus_t forward_checks(const char* call, cudnnHandle_t h, const ConvArgs& a, const void* x, const void* w,
                             void* y, int algo, void* ws, size_t ws_bytes) {
  cudnnStatus_t st = check_conv(call, h, a);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  if (!forward_types_supported(a)) {
    fault("%s: input type %d, filter type %d, compute type %d, output type %d is not a supported combination", call,
          (int)a.x->type, (int)a.w->type, (int)a.conv->compute, (int)a.y->type);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  const long long need = forward_need(a, algo);
  if (need < 0) {
    fault("%s: algorithm %d cannot run this convolution", call, algo);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  if (!inside(call, "x", view(a.x, x)) || !inside(call, "w", view(a.w, w)) || !inside(call, "y", view(a.y, y)))
    return CUDNN_STATUS_BAD_PARAM;
  if (!poison_workspace(call, ws, ws_bytes, need)) return CUDNN_STATUS_BAD_PARAM;
  return CUDNN_STATUS_SUCCESS;
}

}  // namespace

cudnnStatus_t cudnnConvolutionForward(cudnnHandle_t h, const void* alpha, const cudnnTensorDescriptor_t xd,
                                      const void* x, const cudnnFilterDescriptor_t wd, const void* w,
                                      const cudnnConvolutionDescriptor_t conv, cudnnConvolutionFwdAlgo_t algo,
                                      void* ws, size_t ws_bytes, const void* beta, const cudnnTensorDescriptor_t yd,
                                      void* y) {
  const ConvArgs a{xd, wd, conv, yd};
  const cudnnStatus_t st = forward_checks("cudnnConvolutionForward", h, a, x, w, y, algo, ws, ws_bytes);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  const View X = view(xd, x), W = view(wd, w), Y = view(yd, y);
  const float al = scalar(alpha, yd->type), be = scalar(beta, yd->type);
  for (int n = 0; n < yd->n; ++n)
    for (int k = 0; k < yd->c; ++k)
      for (int oy = 0; oy < yd->h; ++oy)
        for (int ox = 0; ox < yd->w; ++ox) {
          float v = al * conv_sum(a, X, W, n, k, oy, ox);
          if (be != 0.f) v += be * Y.at(n, k, oy, ox);
          Y.put(n, k, oy, ox, v);
        }
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnConvolutionBiasActivationForward(
    cudnnHandle_t h, const void* alpha1, const cudnnTensorDescriptor_t xd, const void* x,
    const cudnnFilterDescriptor_t wd, const void* w, const cudnnConvolutionDescriptor_t conv,
    cudnnConvolutionFwdAlgo_t algo, void* ws, size_t ws_bytes, const void* alpha2, const cudnnTensorDescriptor_t zd,
    const void* z, const cudnnTensorDescriptor_t bd, const void* bias, const cudnnActivationDescriptor_t act,
    const cudnnTensorDescriptor_t yd, void* y) {
  const char* call = "cudnnConvolutionBiasActivationForward";
  const ConvArgs a{xd, wd, conv, yd};
  cudnnStatus_t st = check_conv(call, h, a);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  if (!usable(call, zd, Kind::Tensor) || !usable(call, bd, Kind::Tensor) || !usable(call, act, Kind::Activation))
    return CUDNN_STATUS_BAD_PARAM;
  if (zd->n != yd->n || zd->c != yd->c || zd->h != yd->h || zd->w != yd->w || bd->n != 1 || bd->c != yd->c ||
      bd->h != 1 || bd->w != 1) {
    fault("%s: z must have y's shape and the bias 1 x %d x 1 x 1 (z %d x %d x %d x %d, bias %d x %d x %d x %d)", call,
          yd->c, zd->n, zd->c, zd->h, zd->w, bd->n, bd->c, bd->h, bd->w);
    return CUDNN_STATUS_BAD_PARAM;
  }
  // The fused call's table: z matches y, and 8-bit inputs take a float bias (and 8-bit or
  // float output); float and half data take a bias of their own type.
  const bool eight_bit = integer_type(xd->type);
  const bool bias_ok = eight_bit ? bd->type == CUDNN_DATA_FLOAT : bd->type == yd->type;
  if (zd->type != yd->type || !bias_ok) {
    fault("%s: input type %d with output type %d, z type %d and bias type %d is not a supported combination", call,
          (int)xd->type, (int)yd->type, (int)zd->type, (int)bd->type);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  if (act->mode != CUDNN_ACTIVATION_RELU && act->mode != CUDNN_ACTIVATION_IDENTITY) {
    fault("%s: activation mode %d; only RELU and IDENTITY are fused", call, (int)act->mode);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  if (act->mode == CUDNN_ACTIVATION_IDENTITY && algo != CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM) {
    fault("%s: the identity activation needs IMPLICIT_PRECOMP_GEMM, not algorithm %d", call, (int)algo);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  st = forward_checks(call, h, a, x, w, y, algo, ws, ws_bytes);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  const View X = view(xd, x), W = view(wd, w), Y = view(yd, y), Z = view(zd, z), B = view(bd, bias);
  const float a1 = scalar(alpha1, yd->type), a2 = scalar(alpha2, yd->type);
  if (!inside(call, "bias", B) || (a2 != 0.f && !inside(call, "z", Z))) return CUDNN_STATUS_BAD_PARAM;
  for (int n = 0; n < yd->n; ++n)
    for (int k = 0; k < yd->c; ++k) {
      const float b = B.at(0, k, 0, 0);
      for (int oy = 0; oy < yd->h; ++oy)
        for (int ox = 0; ox < yd->w; ++ox) {
          float v = a1 * conv_sum(a, X, W, n, k, oy, ox);
          if (a2 != 0.f) v += a2 * Z.at(n, k, oy, ox);
          v += b;
          if (act->mode == CUDNN_ACTIVATION_RELU) v = v > 0.f ? v : 0.f;
          Y.put(n, k, oy, ox, v);
        }
    }
  return CUDNN_STATUS_SUCCESS;
}

namespace {
cudnnStatus_t backward_checks(const char* call, cudnnHandle_t h, const ConvArgs& a, const void* x, const void* w,
                              const void* y, int algo, void* ws, size_t ws_bytes) {
  cudnnStatus_t st = check_conv(call, h, a);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  if (a.x->type != a.w->type || a.y->type != a.x->type || !backward_types_supported(a.x->type, a.conv->compute)) {
    fault("%s: data types %d, %d, %d with compute type %d are not a supported combination", call, (int)a.x->type,
          (int)a.w->type, (int)a.y->type, (int)a.conv->compute);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  const long long need = backward_need(a, algo);
  if (need < 0) {
    fault("%s: algorithm %d cannot run this convolution", call, algo);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  if (!inside(call, "x", view(a.x, x)) || !inside(call, "w", view(a.w, w)) || !inside(call, "y", view(a.y, y)))
    return CUDNN_STATUS_BAD_PARAM;
  return poison_workspace(call, ws, ws_bytes, need) ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_BAD_PARAM;
}

// Calls body(n, k, oy, ox, c_in, iy, ix, c_filter, ky, kx) for every product of the convolution.
template <typename Body>
void for_each_tap(const ConvArgs& a, Body body) {
  const cudnnConvolutionStruct* cv = a.conv;
  const int cpg = a.w->c, fpg = a.w->k / cv->groups;
  for (int n = 0; n < a.y->n; ++n)
    for (int k = 0; k < a.y->c; ++k) {
      const int g = k / fpg;
      for (int oy = 0; oy < a.y->h; ++oy)
        for (int ox = 0; ox < a.y->w; ++ox)
          for (int c = 0; c < cpg; ++c)
            for (int ky = 0; ky < a.w->h; ++ky) {
              const int iy = oy * cv->u - cv->pad_h + ky * cv->dil_h;
              if (iy < 0 || iy >= a.x->h) continue;
              for (int kx = 0; kx < a.w->w; ++kx) {
                const int ix = ox * cv->v - cv->pad_w + kx * cv->dil_w;
                if (ix < 0 || ix >= a.x->w) continue;
                body(n, k, oy, ox, g * cpg + c, iy, ix, c, ky, kx);
              }
            }
    }
}
}  // namespace

cudnnStatus_t cudnnConvolutionBackwardData(cudnnHandle_t h, const void* alpha, const cudnnFilterDescriptor_t wd,
                                           const void* w, const cudnnTensorDescriptor_t dyd, const void* dy,
                                           const cudnnConvolutionDescriptor_t conv, cudnnConvolutionBwdDataAlgo_t algo,
                                           void* ws, size_t ws_bytes, const void* beta,
                                           const cudnnTensorDescriptor_t dxd, void* dx) {
  const ConvArgs a{dxd, wd, conv, dyd};
  const cudnnStatus_t st = backward_checks("cudnnConvolutionBackwardData", h, a, dx, w, dy, algo, ws, ws_bytes);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  const View W = view(wd, w), DY = view(dyd, dy), DX = view(dxd, dx);
  std::vector<float> acc(DX.elements(), 0.f);
  for_each_tap(a, [&](int n, int k, int oy, int ox, int ci, int iy, int ix, int c, int ky, int kx) {
    acc[(((size_t)n * dxd->c + ci) * dxd->h + iy) * dxd->w + ix] += W.at(k, c, ky, kx) * DY.at(n, k, oy, ox);
  });
  const float al = scalar(alpha, dxd->type), be = scalar(beta, dxd->type);
  size_t i = 0;
  for (int n = 0; n < dxd->n; ++n)
    for (int c = 0; c < dxd->c; ++c)
      for (int y = 0; y < dxd->h; ++y)
        for (int x = 0; x < dxd->w; ++x, ++i) DX.put(n, c, y, x, al * acc[i] + (be != 0.f ? be * DX.at(n, c, y, x) : 0.f));
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnConvolutionBackwardFilter(cudnnHandle_t h, const void* alpha, const cudnnTensorDescriptor_t xd,
                                             const void* x, const cudnnTensorDescriptor_t dyd, const void* dy,
                                             const cudnnConvolutionDescriptor_t conv,
                                             cudnnConvolutionBwdFilterAlgo_t algo, void* ws, size_t ws_bytes,
                                             const void* beta, const cudnnFilterDescriptor_t dwd, void* dw) {
  const ConvArgs a{xd, dwd, conv, dyd};
  const cudnnStatus_t st = backward_checks("cudnnConvolutionBackwardFilter", h, a, x, dw, dy, algo, ws, ws_bytes);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  const View X = view(xd, x), DY = view(dyd, dy), DW = view(dwd, dw);
  std::vector<float> acc(DW.elements(), 0.f);
  for_each_tap(a, [&](int n, int k, int oy, int ox, int ci, int iy, int ix, int c, int ky, int kx) {
    acc[(((size_t)k * dwd->c + c) * dwd->h + ky) * dwd->w + kx] += X.at(n, ci, iy, ix) * DY.at(n, k, oy, ox);
  });
  const float al = scalar(alpha, dwd->type), be = scalar(beta, dwd->type);
  size_t i = 0;
  for (int k = 0; k < dwd->k; ++k)
    for (int c = 0; c < dwd->c; ++c)
      for (int y = 0; y < dwd->h; ++y)
        for (int x = 0; x < dwd->w; ++x, ++i) DW.put(k, c, y, x, al * acc[i] + (be != 0.f ? be * DW.at(k, c, y, x) : 0.f));
  return CUDNN_STATUS_SUCCESS;
}

// --- tensor transform ------------------------------------------------------------------------

cudnnStatus_t cudnnTransformTensor(cudnnHandle_t h, const void* alpha, const cudnnTensorDescriptor_t xd,
                                   const void* x, const void* beta, const cudnnTensorDescriptor_t yd, void* y) {
  const char* call = "cudnnTransformTensor";
  if (!h) return CUDNN_STATUS_BAD_PARAM;
  if (!usable(call, xd, Kind::Tensor) || !usable(call, yd, Kind::Tensor)) return CUDNN_STATUS_BAD_PARAM;
  if (xd->n != yd->n || xd->c != yd->c || xd->h != yd->h || xd->w != yd->w) {
    fault("%s: shapes differ (%d x %d x %d x %d to %d x %d x %d x %d)", call, xd->n, xd->c, xd->h, xd->w, yd->n, yd->c,
          yd->h, yd->w);
    return CUDNN_STATUS_BAD_PARAM;
  }
  // Between 8-bit layouts the bytes move unchanged; 8-bit and wider types don't mix here.
  if (integer_type(xd->type) != integer_type(yd->type)) {
    fault("%s: from type %d to type %d is not supported", call, (int)xd->type, (int)yd->type);
    return CUDNN_STATUS_NOT_SUPPORTED;
  }
  const View X = view(xd, x), Y = view(yd, y);
  if (!inside(call, "x", X) || !inside(call, "y", Y)) return CUDNN_STATUS_BAD_PARAM;
  const float al = scalar(alpha, yd->type), be = scalar(beta, yd->type);
  const bool bytes = element_bytes(xd->type) == 1 && element_bytes(yd->type) == 1 && al == 1.f && be == 0.f;
  std::vector<float> copy;
  for (int n = 0; n < xd->n; ++n)
    for (int c = 0; c < xd->c; ++c)
      for (int yy = 0; yy < xd->h; ++yy)
        for (int xx = 0; xx < xd->w; ++xx) {
          if (bytes) {
            static_cast<char*>(y)[Y.index(n, c, yy, xx)] = static_cast<const char*>(x)[X.index(n, c, yy, xx)];
            continue;
          }
          float v = al * X.at(n, c, yy, xx);
          if (be != 0.f) v += be * Y.at(n, c, yy, xx);
          Y.put(n, c, yy, xx, v);
        }
  return CUDNN_STATUS_SUCCESS;
}

// --- batch normalisation -----------------------------------------------------------------

namespace {
cudnnStatus_t bn_checks(const char* call, cudnnHandle_t h, cudnnBatchNormMode_t mode,
                        std::initializer_list<cudnnTensorDescriptor_t> data, cudnnTensorDescriptor_t param,
                        double epsilon) {
  if (!h) return CUDNN_STATUS_BAD_PARAM;
  for (cudnnTensorDescriptor_t d : data)
    if (!usable(call, d, Kind::Tensor)) return CUDNN_STATUS_BAD_PARAM;
  if (!usable(call, param, Kind::Tensor)) return CUDNN_STATUS_BAD_PARAM;
  const cudnnTensorDescriptor_t x = *data.begin();
  char why[200] = "";
  if (mode != CUDNN_BATCHNORM_SPATIAL && mode != CUDNN_BATCHNORM_PER_ACTIVATION &&
      mode != CUDNN_BATCHNORM_SPATIAL_PERSISTENT)
    snprintf(why, sizeof(why), "unknown mode %d", (int)mode);
  else if (mode == CUDNN_BATCHNORM_PER_ACTIVATION)
    snprintf(why, sizeof(why), "per-activation mode is not emulated");
  else if (epsilon < CUDNN_BN_MIN_EPSILON)
    snprintf(why, sizeof(why), "epsilon %.17g below the minimum %.17g", epsilon, (double)CUDNN_BN_MIN_EPSILON);
  else if (param->n != 1 || param->c != x->c || param->h != 1 || param->w != 1)
    snprintf(why, sizeof(why), "per-channel tensor %d x %d x %d x %d for %d channels", param->n, param->c, param->h,
             param->w, x->c);
  else if (param->type != (x->type == CUDNN_DATA_DOUBLE ? CUDNN_DATA_DOUBLE : CUDNN_DATA_FLOAT))
    snprintf(why, sizeof(why), "per-channel type %d with data type %d", (int)param->type, (int)x->type);
  else
    for (cudnnTensorDescriptor_t d : data)
      if (d->n != x->n || d->c != x->c || d->h != x->h || d->w != x->w || d->type != x->type)
        snprintf(why, sizeof(why), "data tensors differ in shape or type");
  if (!*why) return CUDNN_STATUS_SUCCESS;
  fault("%s: %s", call, why);
  return CUDNN_STATUS_BAD_PARAM;
}

bool params_inside(const char* call, cudnnTensorDescriptor_t param, std::initializer_list<const void*> ps) {
  for (const void* p : ps)
    if (p && !inside(call, "per-channel tensor", view(param, p))) return false;
  return true;
}
}  // namespace

cudnnStatus_t cudnnBatchNormalizationForwardTraining(
    cudnnHandle_t h, cudnnBatchNormMode_t mode, const void* alpha, const void* beta, const cudnnTensorDescriptor_t xd,
    const void* x, const cudnnTensorDescriptor_t yd, void* y, const cudnnTensorDescriptor_t pd, const void* scale,
    const void* bias, double factor, void* running_mean, void* running_var, double epsilon, void* saved_mean,
    void* saved_invstd) {
  const char* call = "cudnnBatchNormalizationForwardTraining";
  cudnnStatus_t st = bn_checks(call, h, mode, {xd, yd}, pd, epsilon);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  if ((running_mean == nullptr) != (running_var == nullptr) || (saved_mean == nullptr) != (saved_invstd == nullptr)) {
    fault("%s: running (or saved) mean and variance must be given together", call);
    return CUDNN_STATUS_BAD_PARAM;
  }
  const View X = view(xd, x), Y = view(yd, y);
  if (!inside(call, "x", X) || !inside(call, "y", Y) ||
      !params_inside(call, pd, {scale, bias, running_mean, running_var, saved_mean, saved_invstd}))
    return CUDNN_STATUS_BAD_PARAM;
  const float al = scalar(alpha, yd->type), be = scalar(beta, yd->type);
  const int N = xd->n, C = xd->c, HW = xd->h * xd->w;
  const double m = (double)N * HW;
  for (int c = 0; c < C; ++c) {
    float sum = 0.f;
    for (int n = 0; n < N; ++n)
      for (int i = 0; i < HW; ++i) sum += X.at(n, c, i / xd->w, i % xd->w);
    const float mean = sum / (float)m;
    float sq = 0.f;
    for (int n = 0; n < N; ++n)
      for (int i = 0; i < HW; ++i) {
        const float d = X.at(n, c, i / xd->w, i % xd->w) - mean;
        sq += d * d;
      }
    const float var = sq / (float)m;
    const float invstd = 1.f / std::sqrt(var + (float)epsilon);
    const float g = load(scale, pd->type, c), b = load(bias, pd->type, c);
    for (int n = 0; n < N; ++n)
      for (int i = 0; i < HW; ++i) {
        const int yy = i / xd->w, xx = i % xd->w;
        float v = al * (g * (X.at(n, c, yy, xx) - mean) * invstd + b);
        if (be != 0.f) v += be * Y.at(n, c, yy, xx);
        Y.put(n, c, yy, xx, v);
      }
    if (running_mean) {
      // The running variance takes the unbiased estimate.
      const float unbiased = m > 1 ? (float)(sq / (m - 1)) : var;
      const float f = (float)factor;
      store(running_mean, pd->type, c, (1.f - f) * load(running_mean, pd->type, c) + f * mean);
      store(running_var, pd->type, c, (1.f - f) * load(running_var, pd->type, c) + f * unbiased);
    }
    if (saved_mean) {
      store(saved_mean, pd->type, c, mean);
      store(saved_invstd, pd->type, c, invstd);
    }
  }
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnBatchNormalizationBackward(cudnnHandle_t h, cudnnBatchNormMode_t mode, const void* alpha_data,
                                              const void* beta_data, const void* alpha_param, const void* beta_param,
                                              const cudnnTensorDescriptor_t xd, const void* x,
                                              const cudnnTensorDescriptor_t dyd, const void* dy,
                                              const cudnnTensorDescriptor_t dxd, void* dx,
                                              const cudnnTensorDescriptor_t pd, const void* scale, void* dscale,
                                              void* dbias, double epsilon, const void* saved_mean,
                                              const void* saved_invstd) {
  const char* call = "cudnnBatchNormalizationBackward";
  cudnnStatus_t st = bn_checks(call, h, mode, {xd, dyd, dxd}, pd, epsilon);
  if (st != CUDNN_STATUS_SUCCESS) return st;
  if ((saved_mean == nullptr) != (saved_invstd == nullptr)) {
    fault("%s: saved mean and inverse deviation must be given together", call);
    return CUDNN_STATUS_BAD_PARAM;
  }
  const View X = view(xd, x), DY = view(dyd, dy), DX = view(dxd, dx);
  if (!inside(call, "x", X) || !inside(call, "dy", DY) || !inside(call, "dx", DX) ||
      !params_inside(call, pd, {scale, dscale, dbias, saved_mean, saved_invstd}))
    return CUDNN_STATUS_BAD_PARAM;
  const float ad = scalar(alpha_data, dxd->type), bd = scalar(beta_data, dxd->type);
  const float ap = scalar(alpha_param, dxd->type), bp = scalar(beta_param, dxd->type);
  const int N = xd->n, C = xd->c, W = xd->w, HW = xd->h * xd->w;
  const float m = (float)N * HW;
  for (int c = 0; c < C; ++c) {
    float mean, invstd;
    if (saved_mean) {
      mean = load(saved_mean, pd->type, c);
      invstd = load(saved_invstd, pd->type, c);
    } else {
      float sum = 0.f, sq = 0.f;
      for (int n = 0; n < N; ++n)
        for (int i = 0; i < HW; ++i) sum += X.at(n, c, i / W, i % W);
      mean = sum / m;
      for (int n = 0; n < N; ++n)
        for (int i = 0; i < HW; ++i) {
          const float d = X.at(n, c, i / W, i % W) - mean;
          sq += d * d;
        }
      invstd = 1.f / std::sqrt(sq / m + (float)epsilon);
    }
    float sum_dy = 0.f, sum_dy_xhat = 0.f;
    for (int n = 0; n < N; ++n)
      for (int i = 0; i < HW; ++i) {
        const float g = DY.at(n, c, i / W, i % W);
        sum_dy += g;
        sum_dy_xhat += g * (X.at(n, c, i / W, i % W) - mean) * invstd;
      }
    const float gamma = load(scale, pd->type, c);
    for (int n = 0; n < N; ++n)
      for (int i = 0; i < HW; ++i) {
        const int yy = i / W, xx = i % W;
        const float xhat = (X.at(n, c, yy, xx) - mean) * invstd;
        float v = gamma * invstd * (DY.at(n, c, yy, xx) - sum_dy / m - xhat * sum_dy_xhat / m);
        v *= ad;
        if (bd != 0.f) v += bd * DX.at(n, c, yy, xx);
        DX.put(n, c, yy, xx, v);
      }
    const float ds = ap * sum_dy_xhat + (bp != 0.f ? bp * load(dscale, pd->type, c) : 0.f);
    const float db = ap * sum_dy + (bp != 0.f ? bp * load(dbias, pd->type, c) : 0.f);
    store(dscale, pd->type, c, ds);
    store(dbias, pd->type, c, db);
  }
  return CUDNN_STATUS_SUCCESS;
}
