// Twins of the device image conversions, and the byte-to-float table they share with the
// host image record conversions.
#pragma once
#include "orva/float16.h"

// Entry i is i / 255 in single precision.
extern const float _ctable[256];

namespace cpu {
// The host reads the caller's bytes in place: there is no device to stage through, so `raw`
// is left untouched.
void cv2data(void* handle, const unsigned char* src, Ftype* dst, unsigned char* raw, int npix, int c, int groups);
void data2cv(void* handle, const Ftype* src, unsigned char* dst, unsigned char* raw, int npix, int c);
}  // namespace cpu

namespace gpu {
// groups: interleaved groups of c channels, npix pixels each, laid one after another.
void cv2data(void* handle, const unsigned char* src, Ftype* dst, unsigned char* raw, int npix, int c, int groups);
void data2cv(void* handle, const Ftype* src, unsigned char* dst, unsigned char* raw, int npix, int c);
}  // namespace gpu
