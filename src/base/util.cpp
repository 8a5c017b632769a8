#include "orva/util.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace ORVA {
int _msg_level = ALERT;

void setMsgLevel(int level) { _msg_level = level; }

const char* _source_path(const char* file) {
#ifdef ORVA_SOURCE_ROOT
  static const size_t root_len = strlen(ORVA_SOURCE_ROOT);
  if (strncmp(file, ORVA_SOURCE_ROOT, root_len) == 0) return file + root_len;
#endif
  // A compiler cache may hand the compiler paths relative to the build folder inside the tree.
  while (strncmp(file, "../", 3) == 0 || strncmp(file, "./", 2) == 0) file += file[1] == '.' ? 3 : 2;
  return file;
}

// The signature as GCC writes it, whichever compiler built the library: clang spells
// "const char *" and "(anonymous namespace)", and error lines must not depend on that.
static void signature(const char* func, char* out, size_t size) {
  static const char kClangAnon[] = "(anonymous namespace)";
  size_t n = 0;
  for (const char* p = func; *p && n + 1 < size;) {
    if (strncmp(p, kClangAnon, sizeof(kClangAnon) - 1) == 0) {
      const int put = snprintf(out + n, size - n, "{anonymous}");
      n = std::min(size - 1, n + (size_t)std::max(put, 0));
      p += sizeof(kClangAnon) - 1;
      continue;
    }
    if (*p == ' ' && (p[1] == '*' || p[1] == '&')) {
      ++p;
      continue;
    }
    out[n++] = *p++;
  }
  out[n] = 0;
}

static void print_error_v(const char* file, const char* func, int line, const char* text) {
  char sig[512];
  signature(func, sig, sizeof(sig));
  // One fprintf for the whole line keeps lines from two threads apart.
  size_t len = strlen(text);
  fprintf(stderr, "[%s %s:%d] ERROR: %s%s", _source_path(file), sig, line, text,
          (len && text[len - 1] == '\n') ? "" : "\n");
}

void _print_error(const char* file, const char* func, int line, const char* fmt, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  print_error_v(file, func, line, text);
}

static std::atomic<bool> fatal_throws{false};
void setFatalThrows(bool on) { fatal_throws.store(on); }
bool fatalThrows() { return fatal_throws.load(); }

void _fatal(const char* file, const char* func, int line, const char* fmt, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  print_error_v(file, func, line, text);
  if (fatal_throws.load()) {
    size_t len = strlen(text);
    if (len && text[len - 1] == '\n') text[len - 1] = 0;
    throw FatalError(text);
  }
  exit(-1);
}
}  // namespace ORVA

static const uint64_t kInitialState = 0x12345678000FFFFFull;
uint64_t _qrstate_ = kInitialState;

unsigned int qrand_r(void* state) {
  // Lock-free on purpose: two threads drawing at once may draw the same number.
  auto* word = reinterpret_cast<std::atomic<uint64_t>*>(state);
  uint64_t s = word->load(std::memory_order_acquire);
  uint32_t z = (uint32_t)s, w = (uint32_t)(s >> 32);
  if (z == 0) z = 0xAAAA;
  if (w == 0) w = 0xBBBB;
  z = 36969u * (z & 0xFFFFu) + (z >> 16);
  w = 18000u * (w & 0xFFFFu) + (w >> 16);
  word->store(((uint64_t)w << 32) | z, std::memory_order_release);
  return ((z << 16) + w) & 0x7FFFFFFFu;
}

unsigned int qrand() { return qrand_r(&_qrstate_); }

void sqrand(unsigned int seed) {
  // The multiply spreads every non-zero seed over both registers.
  _qrstate_ = seed == 0 ? kInitialState : (uint64_t)seed * kInitialState;
}

float rand_uniform(float min, float max) {
  float lo = min, hi = max;
  if (max < min || (max == min && std::signbit(max))) {
    lo = max;
    hi = min;
  }
  const float u = (float)qrand() * 4.656613e-10f;
  return std::fma(hi - lo, u, lo);
}

static int haveSpare = 0;
static float rand1, rand2;

float rand_normal(float sigma) {
  if (haveSpare) {
    haveSpare = 0;
    return std::sqrt(rand1) * std::sin(rand2) * sigma;
  }
  haveSpare = 1;
  rand1 = (float)qrand() * 4.656613e-10f;
  if (rand1 < 1e-10f) {
    uint32_t bits = 0x423834F1;
    memcpy(&rand1, &bits, 4);
  } else {
    rand1 = -2.0f * std::log(rand1);
  }
  rand2 = (float)qrand() * 2.9258362e-09f;
  return std::sqrt(rand1) * std::cos(rand2) * sigma;
}

float rand_scale(float s) {
  float r = rand_uniform(1, s);
  if (qrand() & 1) return r;
  return (float)(1.0 / (double)r);
}

void* malloc_aligned(size_t size) {
  // aligned_alloc wants a multiple of the alignment
  size_t rounded = (size + 63) & ~(size_t)63;
  if (rounded < size) return nullptr;
  return aligned_alloc(64, rounded ? rounded : 64);
}

void* calloc_aligned(size_t n, size_t size) {
  if (size && n > SIZE_MAX / size) return nullptr;
  void* p = malloc_aligned(n * size);
  if (p) memset(p, 0, n * size);
  return p;
}

void free_aligned(void* p) { free(p); }

float sum_array(float* a, int n) {
  if (n < 1) return 0;
  float lane[4] = {0, 0, 0, 0};
  int i = 0;
  for (; i + 4 <= n; i += 4)
    for (int k = 0; k < 4; ++k) lane[k] += a[i + k];
  float s = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  for (; i < n; ++i) s += a[i];
  return s;
}

float mag_array(float* a, int n) {
  if (n < 1) return 0;
  float lane[4] = {0, 0, 0, 0};
  int i = 0;
  for (; i + 4 <= n; i += 4)
    for (int k = 0; k < 4; ++k) lane[k] = std::fma(a[i + k], a[i + k], lane[k]);
  float s = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  for (; i < n; ++i) s = std::fma(a[i], a[i], s);
  return std::sqrt(s);
}
