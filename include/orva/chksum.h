// Checksums: XXH32 (used by the model file) and Adler-32.
#pragma once
#include "orva/export.h"

ORVA_API_BEGIN
unsigned int xxh32(const void* data, unsigned int len, unsigned int seed);
unsigned int adler32(const void* data, unsigned int len, unsigned int adler);

ORVA_API_END
