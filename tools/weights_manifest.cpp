#include "weights_manifest.h"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "model_build.h"
#include "orva/float16.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace orvacli {

namespace {

// Tensors larger than this are not weights of any network the engine runs.
constexpr uint64_t kMaxElements = 1ull << 28;

}  // namespace

int64_t wholeNumber(const json& v, int64_t lo, int64_t hi) {
  int64_t out;
  if (v.is_number_unsigned()) {
    if (v.get<uint64_t>() > (uint64_t)INT64_MAX) throw std::out_of_range("number");
    out = (int64_t)v.get<uint64_t>();
  } else if (v.is_number_integer()) {
    out = v.get<int64_t>();
  } else if (v.is_number_float()) {
    const double d = v.get<double>();
    // The range test comes first: converting a double past int64 is undefined.
    if (!(d >= -9.2e18 && d <= 9.2e18) || d != std::floor(d)) throw std::out_of_range("number");
    out = (int64_t)d;
  } else if (v.is_string()) {
    const std::string s = v.get<std::string>();
    size_t used = 0;
    out = std::stoll(s, &used);
    if (used != s.size()) throw std::invalid_argument("number");
  } else {
    throw std::invalid_argument("number");
  }
  if (out < lo || out > hi) throw std::out_of_range("number");
  return out;
}

std::vector<NamedTensor> readWeightGroups(const json& manifest, const ShardReader& read, const std::string& src) {
  std::vector<NamedTensor> out;
  if (!manifest.is_array()) throw ConvertError(src + ": weightsManifest is not a list of groups");
  for (const json& group : manifest) {
    // A group's files hold its tensors back to back, in the order listed.
    std::vector<unsigned char> bytes;
    std::string files;
    for (const json& p : group.at("paths")) {
      const std::string path = p.get<std::string>();
      const std::vector<unsigned char> part = read(path);
      bytes.insert(bytes.end(), part.begin(), part.end());
      files += (files.empty() ? "" : ", ") + path;
    }
    size_t pos = 0;
    for (const json& w : group.at("weights")) {
      NamedTensor t;
      t.name = w.at("name").get<std::string>();
      const std::string where = src + ": tensor '" + t.name + "'";
      uint64_t n = 1;
      for (const json& d : w.at("shape")) {
        const int64_t v = wholeNumber(d, 0, INT32_MAX);
        if (v > 0 && n > kMaxElements / (uint64_t)v) throw ConvertError(where + ": absurd shape");
        n *= (uint64_t)v;
        t.shape.push_back((int)v);
      }
      const std::string dtype = w.value("dtype", "float32");
      if (dtype != "float32" && dtype != "int32")
        throw ConvertError(where + ": dtype " + dtype + " is not supported (float32 and int32 are)");
      std::string stored = dtype;
      double scale = 1, min = 0;
      if (w.contains("quantization")) {
        const json& q = w.at("quantization");
        stored = q.at("dtype").get<std::string>();
        if (stored == "uint8" || stored == "uint16") {
          scale = q.at("scale").get<double>();
          min = q.at("min").get<double>();
        } else if (stored != "float16") {
          throw ConvertError(where + ": quantisation " + stored + " is not supported (float16, uint8, uint16 are)");
        }
      }
      const size_t width = stored == "uint8" ? 1 : (stored == "uint16" || stored == "float16") ? 2 : 4;
      if (bytes.size() - pos < n * width)
        throw ConvertError(where + ": the weight files (" + files + ", " + std::to_string(bytes.size()) +
                           " bytes) end inside it: it needs " + std::to_string(n * width) + " bytes from offset " +
                           std::to_string(pos));
      t.values.resize(n);
      const unsigned char* b = bytes.data() + pos;
      for (uint64_t i = 0; i < n; ++i) {
        if (stored == "float16") {
          uint16_t h;
          memcpy(&h, b + 2 * i, 2);
          t.values[i] = half2float_cpu(h);
        } else if (stored == "uint8") {
          t.values[i] = (float)(b[i] * scale + min);
        } else if (stored == "uint16") {
          uint16_t q;
          memcpy(&q, b + 2 * i, 2);
          t.values[i] = (float)(q * scale + min);
        } else if (stored == "int32") {
          int32_t v;
          memcpy(&v, b + 4 * i, 4);
          t.values[i] = (float)v;
        } else {
          memcpy(&t.values[i], b + 4 * i, 4);
        }
      }
      pos += n * width;
      out.push_back(std::move(t));
    }
    if (pos != bytes.size())
      throw ConvertError(src + ": the weight files " + files + " hold " + std::to_string(bytes.size() - pos) +
                         " bytes more than their tensors");
  }
  return out;
}

std::vector<NamedTensor> readWeightsManifest(const std::string& manifest_path) {
  std::ifstream f(manifest_path);
  if (!f) throw ConvertError(manifest_path + ": can't open");
  json doc;
  try {
    doc = json::parse(f);
  } catch (const json::exception& e) {
    throw ConvertError(manifest_path + ": not JSON (" + e.what() + ")");
  }
  const fs::path dir = fs::path(manifest_path).parent_path();
  auto read = [&](const std::string& path) {
    std::ifstream s(dir / path, std::ios::binary);
    if (!s) throw ConvertError((dir / path).string() + ": can't open (listed in " + manifest_path + ")");
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(s)), std::istreambuf_iterator<char>());
  };
  try {
    return readWeightGroups(doc, read, manifest_path);
  } catch (const json::exception& e) {
    throw ConvertError(manifest_path + ": malformed manifest (" + e.what() + ")");
  } catch (const std::invalid_argument&) {
    throw ConvertError(manifest_path + ": malformed manifest (a number that is not one)");
  } catch (const std::out_of_range&) {
    throw ConvertError(manifest_path + ": malformed manifest (a number out of range)");
  }
}

}  // namespace orvacli
