// Checksums: XXH32 (used by the model file) and Adler-32.
#pragma once

unsigned int xxh32(const void* data, unsigned int len, unsigned int seed);
unsigned int adler32(const void* data, unsigned int len, unsigned int adler);

