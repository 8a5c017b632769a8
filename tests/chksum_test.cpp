// Checksums against published test vectors, and the chained form the model file uses.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/chksum.h"

TEST(Checksum, Xxh32MatchesPublishedVectors) {
  EXPECT_EQ(xxh32("", 0, 0), 0x02CC5D05u);
  EXPECT_EQ(xxh32("", 0, 1), 0x0B2CB792u);
  EXPECT_EQ(xxh32("a", 1, 0), 0x550D7456u);
  EXPECT_EQ(xxh32("abc", 3, 0), 0x32D153FFu);
  const char* fox = "The quick brown fox jumps over the lazy dog";
  EXPECT_EQ(xxh32(fox, (unsigned)strlen(fox), 0), 0xE85EA4DEu);
  // 16 bytes and more go through the four-lane loop; 26 bytes leave a 10-byte tail
  const char* alpha = "abcdefghijklmnopqrstuvwxyz";
  EXPECT_EQ(xxh32(alpha, 26, 0), 0x63A14D5Fu);
}

TEST(Checksum, Xxh32ReadsUnalignedDataAndDependsOnEveryByte) {
  std::vector<unsigned char> data(1000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = (unsigned char)(i * 7 + 3);
  std::vector<unsigned char> shifted(data.size() + 1);
  memcpy(shifted.data() + 1, data.data(), data.size());
  const unsigned h = xxh32(data.data(), (unsigned)data.size(), 42);
  EXPECT_EQ(xxh32(shifted.data() + 1, (unsigned)data.size(), 42), h);
  for (size_t i = 0; i < data.size(); i += 97) {
    data[i] ^= 1;
    EXPECT_NE(xxh32(data.data(), (unsigned)data.size(), 42), h) << i;
    data[i] ^= 1;
  }
}

TEST(Checksum, Adler32MatchesPublishedVectorsAndContinues) {
  EXPECT_EQ(adler32("", 0, 1), 1u);
  EXPECT_EQ(adler32("a", 1, 1), 0x00620062u);
  EXPECT_EQ(adler32("abc", 3, 1), 0x024D0127u);
  EXPECT_EQ(adler32("Wikipedia", 9, 1), 0x11E60398u);
  const char* alpha = "abcdefghijklmnopqrstuvwxyz";
  EXPECT_EQ(adler32(alpha, 26, 1), 0x90860B20u);
  // continuing from a running value equals one pass over the concatenation
  EXPECT_EQ(adler32(alpha + 10, 16, adler32(alpha, 10, 1)), 0x90860B20u);
  // long input crosses the modulo reduction many times
  std::vector<unsigned char> ones(100000, 0xFF);
  unsigned a = 1, b = 0;
  for (unsigned char c : ones) a = (a + c) % 65521, b = (b + a) % 65521;
  EXPECT_EQ(adler32(ones.data(), (unsigned)ones.size(), 1), (b << 16) | a);
}
