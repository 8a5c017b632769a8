// Symbol export of the library's application interface. The library is built with hidden
// visibility; each public header wraps its declarations in ORVA_API_BEGIN / ORVA_API_END,
// so everything declared between them is exported and everything else stays inside.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ORVA_API_BEGIN _Pragma("GCC visibility push(default)")
#define ORVA_API_END _Pragma("GCC visibility pop")
#else
#define ORVA_API_BEGIN
#define ORVA_API_END
#endif
