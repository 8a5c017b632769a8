// NumPy .npy files of float32, little-endian, C order: the raw tensors `orva run` reads and
// writes.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace orvacli {

struct NpyArray {
  std::vector<int64_t> shape;
  std::vector<float> values;
};

// Throws std::runtime_error "PATH: problem" for anything but a whole float32 C-order array.
NpyArray readNpy(const std::string& path);
// The same from the file's bytes; `source` names it in messages.
NpyArray parseNpy(const std::string& bytes, const std::string& source);
// Format 1.0; throws std::runtime_error when the file can't be written.
std::string npyBytes(const NpyArray& a);

}  // namespace orvacli
