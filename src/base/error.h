// How the library refuses a call it can't carry out (a launcher's bad argument, a misused
// object): std::runtime_error with a message naming the function, the argument, its value
// and the limit it breaks. Nothing has been touched when it is thrown.
#pragma once
#include <cstdarg>
#include <cstdio>
#include <stdexcept>

namespace ORVA {
[[noreturn]] inline void throw_error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline void throw_error(const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  throw std::runtime_error(text);
}
}  // namespace ORVA

#define ORVA_THROW(...) ORVA::throw_error(__VA_ARGS__)
