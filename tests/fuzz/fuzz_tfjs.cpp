// The TF.js graph-model importer: the input is model.json's text, a zero byte, then the one
// weight file its manifest may name. Seeds: a small graph, and the CenterNet model when it
// has been fetched.
#include <cstring>
#include <fstream>

#include "fuzz_common.h"
#include "tfjs.h"

namespace {

const char* kSmallGraph = R"({"format":"graph-model","modelTopology":{"node":[
{"name":"in","op":"Placeholder","attr":{"shape":{"shape":{"dim":[{"size":"1"},{"size":"8"},{"size":"8"},{"size":"3"}]}}}},
{"name":"w","op":"Const"},{"name":"b","op":"Const"},{"name":"three","op":"Const"},{"name":"sixth","op":"Const"},
{"name":"c","op":"_FusedConv2D","input":["in","w","b"],"attr":{"strides":{"list":{"i":["1","2","2","1"]}},
"padding":{"s":"U0FNRQ=="},"fused_ops":{"list":{"s":["Qmlhc0FkZA=="]}},"num_args":{"i":"1"}}},
{"name":"m","op":"Mul","input":["sixth","c"]},{"name":"a","op":"Add","input":["c","three"]},
{"name":"r","op":"Relu6","input":["a"]},{"name":"y","op":"Mul","input":["m","r"]}]},
"weightsManifest":[{"paths":["g.bin"],"weights":[
{"name":"w","shape":[3,3,3,2],"dtype":"float32","quantization":{"dtype":"float16"}},
{"name":"b","shape":[2],"dtype":"float32"},{"name":"three","shape":[],"dtype":"float32"},
{"name":"sixth","shape":[],"dtype":"float32","quantization":{"dtype":"uint8","scale":0.16666667,"min":0}}]}]})";

std::vector<uint8_t> small_seed() {
  std::vector<uint8_t> s(kSmallGraph, kSmallGraph + strlen(kSmallGraph));
  s.push_back(0);
  for (int i = 0; i < 54; ++i) s.insert(s.end(), {0x00, 0x3C});  // float16 1.0
  const float rest[3] = {0.5f, -0.5f, 3.f};
  const uint8_t* r = reinterpret_cast<const uint8_t*>(rest);
  s.insert(s.end(), r, r + sizeof rest);
  s.push_back(1);
  return s;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::setup();
  fuzz::seeds_option(argc, argv, [](const std::string& dir) {
    fuzz::write_seed(dir, "small", small_seed());
    const std::string models = ORVA_FUZZ_MODELS_DIR "/human-models/";
    std::ifstream j(models + "centernet.json", std::ios::binary), b(models + "centernet.bin", std::ios::binary);
    if (!j || !b) return;
    std::vector<uint8_t> seed((std::istreambuf_iterator<char>(j)), std::istreambuf_iterator<char>());
    seed.push_back(0);
    seed.insert(seed.end(), std::istreambuf_iterator<char>(b), std::istreambuf_iterator<char>());
    fuzz::write_seed(dir, "centernet", seed);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint8_t* zero = static_cast<const uint8_t*>(memchr(data, 0, size));
  const size_t text_size = zero ? (size_t)(zero - data) : size;
  const std::string text(reinterpret_cast<const char*>(data), text_size);
  const std::vector<unsigned char> shard(zero ? zero + 1 : data + size, data + size);
  try {
    orvacli::tfjsToEngine(text, [&](const std::string&) { return shard; }, "fuzz.json");
  } catch (const orvacli::ConvertError&) {
  }
  return 0;
}
