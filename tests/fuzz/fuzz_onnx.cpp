// The ONNX importer of the orva program (the protobuf reader and the mapping onto layers),
// and the .npy reader of `orva run`, on the same inputs. External data reads as a short
// fixed file. Seeds: a small classifier written here, and the models of the ONNX test cases
// when libonnx-testdata is installed.
#include <cstring>
#include <filesystem>
#include <fstream>

#include "fuzz_common.h"
#include "npy.h"
#include "onnx.h"

namespace {

struct Pb {
  std::string b;
  void put(uint64_t v) {
    for (; v >= 0x80; v >>= 7) b += (char)(v | 0x80);
    b += (char)v;
  }
  Pb& i(int field, int64_t v) { put((uint64_t)field << 3); put((uint64_t)v); return *this; }
  Pb& s(int field, const std::string& v) { put((uint64_t)field << 3 | 2); put(v.size()); b += v; return *this; }
};

std::string tensor(const std::string& name, std::initializer_list<int64_t> dims) {
  Pb t;
  size_t n = 1;
  for (int64_t d : dims) t.i(1, d), n *= (size_t)d;
  std::string raw(n * 4, '\0');
  for (size_t k = 0; k < n; ++k) raw[k * 4 + 3] = 0x3F;  // 0.5
  return t.i(2, 1).s(8, name).s(9, raw).b;
}

std::string small_model() {
  auto node = [](const std::string& op, std::initializer_list<std::string> in, const std::string& out,
                 const std::string& attr = "") {
    Pb n;
    for (const std::string& i : in) n.s(1, i);
    n.s(2, out).s(3, out).s(4, op);
    if (!attr.empty()) n.s(5, attr);
    return n.b;
  };
  const std::string pads = Pb().s(1, "pads").i(8, 1).i(8, 1).i(8, 1).i(8, 1).i(20, 7).b;
  const std::string kernel = Pb().s(1, "kernel_shape").i(8, 2).i(8, 2).i(20, 7).b;
  Pb shape;
  for (int64_t d : {1, 3, 8, 8}) shape.s(1, Pb().i(1, d).b);
  Pb g;
  g.s(1, node("Conv", {"x", "w", "b"}, "c", pads))
      .s(1, node("BatchNormalization", {"c", "s", "b", "b", "s"}, "n"))
      .s(1, node("Relu", {"n"}, "r"))
      .s(1, node("MaxPool", {"r"}, "p", kernel))
      .s(1, node("GlobalAveragePool", {"p"}, "a"))
      .s(1, node("Flatten", {"a"}, "f"))
      .s(1, node("Gemm", {"f", "m"}, "y"))
      .s(5, tensor("w", {4, 3, 3, 3})).s(5, tensor("b", {4})).s(5, tensor("s", {4})).s(5, tensor("m", {4, 2}))
      .s(11, Pb().s(1, "x").s(2, Pb().s(1, Pb().i(1, 1).s(2, shape.b).b).b).b)
      .s(12, Pb().s(1, "y").b);
  return Pb().i(1, 7).s(8, Pb().s(1, "").i(2, 13).b).s(7, g.b).b;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::setup();
  fuzz::seeds_option(argc, argv, [](const std::string& dir) {
    const std::string m = small_model();
    fuzz::write_seed(dir, "small", std::vector<uint8_t>(m.begin(), m.end()));
    const std::filesystem::path data = "/usr/share/libonnx-testdata/data/pytorch-converted";
    if (!std::filesystem::is_directory(data)) return;
    for (const char* name : {"test_Conv2d_groups", "test_BatchNorm2d_eval", "test_MaxPool2d", "test_Linear"}) {
      std::ifstream f(data / name / "model.onnx", std::ios::binary);
      if (f) fuzz::write_seed(dir, name, std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {}));
    }
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  try {
    orvacli::onnxToEngine(bytes, "fuzz.onnx", [](const std::string&) { return std::string(64, '\1'); });
  } catch (const orvacli::ConvertError&) {
  }
  try {
    orvacli::parseNpy(bytes, "fuzz.npy");
  } catch (const std::runtime_error&) {
  }
  return 0;
}
