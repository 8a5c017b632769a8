// TensorFlow.js weight manifests: groups of weight files holding named tensors back to back,
// float32 or int32, optionally stored quantised (uint8, uint16 with scale and min, float16).
// Shared by the face-api and the graph-model converters.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace orvacli {

struct NamedTensor {
  std::string name;
  std::vector<int> shape;
  std::vector<float> values;  // dequantised, in the manifest's storage order
  size_t size() const { return values.size(); }
};

// Reads the weight files listed by the manifest, by their path as written there.
using ShardReader = std::function<std::vector<unsigned char>(const std::string& path)>;

// Every tensor of the manifest (a list of groups), in file order. Throws ConvertError naming
// `source`, the tensor and the problem; a malformed entry throws nlohmann::json::exception,
// std::invalid_argument or std::out_of_range for the caller to name.
std::vector<NamedTensor> readWeightGroups(const nlohmann::json& manifest, const ShardReader& read,
                                          const std::string& source);

// Reads the manifest file and the weight files it lists (relative to the manifest).
std::vector<NamedTensor> readWeightsManifest(const std::string& manifest_path);

// A whole number as TF.js files write them: a JSON number or a decimal string (int64
// attributes arrive as strings). A fractional or out-of-range value throws std::out_of_range,
// anything else std::invalid_argument; never a silent cast.
int64_t wholeNumber(const nlohmann::json& v, int64_t lo, int64_t hi);
inline int wholeInt(const nlohmann::json& v) { return (int)wholeNumber(v, INT32_MIN, INT32_MAX); }

}  // namespace orvacli
