// Messages, the random generator, aligned host memory and small float reductions.
#pragma once
#include "orva/export.h"
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <stdexcept>

ORVA_API_BEGIN

enum MsgLevel { DEBUG = 0, INFO = 1, WARNING = 2, ALERT = 3 };

namespace ORVA {
extern int _msg_level;
void setMsgLevel(int level);

// "[path function:line] ERROR: text\n" on stderr, never suppressed.
void _print_error(const char* file, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
// Source path relative to the source root.
const char* _source_path(const char* file);

// What a fatal fault throws when setFatalThrows(true) is in force.
struct FatalError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A fatal fault in a description or a layer's configuration: prints the error line, then
// ends the process with status -1 (the default), or throws ORVA::FatalError carrying the
// same text when the application chose that with setFatalThrows(true). Library-wide.
[[noreturn]] void _fatal(const char* file, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void setFatalThrows(bool on);
bool fatalThrows();
}  // namespace ORVA

#define ORVA_ERROR(...) ORVA::_print_error(__FILE__, __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__)
#define ORVA_FATAL(...) ORVA::_fatal(__FILE__, __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__)
// A line of severity `level`, printed when the process-wide level allows it.
#define ORVA_MSG(level, ...)                                  \
  do {                                                        \
    if (ORVA::_msg_level <= (level)) fprintf(stderr, __VA_ARGS__); \
  } while (0)

extern uint64_t _qrstate_;
unsigned int qrand();
unsigned int qrand_r(void* state);
void sqrand(unsigned int seed);
float rand_uniform(float min, float max);
float rand_normal(float sigma);
float rand_scale(float s);

void* malloc_aligned(size_t size);
void* calloc_aligned(size_t n, size_t size);
void free_aligned(void* p);

float sum_array(float* a, int n);
float mag_array(float* a, int n);

ORVA_API_END
