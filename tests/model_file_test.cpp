// Model file and weights-only file: round trips, the chained checksum, the version gates and
// files outside the format, which must end in std::runtime_error and never crash.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "layer_test_util.h"

using namespace orva_test;

namespace {

// The error of a load; a failed load must leave nothing that predict would run.
std::string expect_load_error(const std::string& path) {
  ORVA::Network net(ORVA::TEST, 1, -1);
  try {
    net.load(path.c_str(), false, false);
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(net.getLayerCount(), 0);
    EXPECT_THROW(net.predict(1), std::runtime_error);
    return e.what();
  }
  return "(loaded)";
}

void set_u32(std::vector<unsigned char>& b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }
void set_i16(std::vector<unsigned char>& b, size_t at, int16_t v) { memcpy(&b[at], &v, 2); }
uint32_t get_u32(const std::vector<unsigned char>& b, size_t at) {
  uint32_t v;
  memcpy(&v, &b[at], 4);
  return v;
}

class ModelFile : public ::testing::Test {
 protected:
  void SetUp() override {
    model = temp_path("net.orva");
    net = std::make_unique<ORVA::Network>(ORVA::TEST, 2, -1);
    ASSERT_EQ(net->load(data_path("conv_small.cfg").c_str(), nullptr), 0);
    randomize_network(*net);
    input = random_floats(2 * 6 * 5 * 3, 0.f, 1.f);
    expected = predict_copy(*net, input, 2);
    ::testing::internal::CaptureStdout();
    net->save(model.c_str(), true);
    ::testing::internal::GetCapturedStdout();
    bytes = read_bytes(model);
  }
  // Writes the file with a version and, for format 4 and later, a matching checksum.
  std::string variant(std::vector<unsigned char> b, int major, int minor, const char* name) {
    set_i16(b, 8, (int16_t)major);
    set_i16(b, 10, (int16_t)minor);
    const std::string path = temp_path(name);
    write_bytes(path, b);
    ORVA::Network probe(ORVA::TEST, 1, -1);
    set_u32(b, 60, probe.getChecksum(path.c_str()));
    write_bytes(path, b);
    return path;
  }
  std::string model;
  std::unique_ptr<ORVA::Network> net;
  std::vector<float> input, expected;
  std::vector<unsigned char> bytes;
};

TEST_F(ModelFile, RoundTripReproducesLayersShapesAndOutputs) {
  ASSERT_GT(bytes.size(), 64u);
  EXPECT_EQ(memcmp(bytes.data(), "ORVA    ", 8), 0);
  EXPECT_EQ(get_u32(bytes, 60), net->getChecksum(model.c_str()));

  ORVA::Network loaded(ORVA::TEST, 2, -1);
  ASSERT_EQ(loaded.load(model.c_str(), false, false), 0);
  EXPECT_EQ(std::string(loaded.getVersion()).rfind("v4.0 (", 0), 0u) << loaded.getVersion();
  EXPECT_EQ(predict_copy(loaded, input, 2), expected);
  std::ifstream cfg(data_path("conv_small.cfg"));
  check_round_trip(std::string(std::istreambuf_iterator<char>(cfg), {}), 6, 5, 3);
}

TEST_F(ModelFile, AnyChangedByteFailsTheChecksum) {
  std::vector<size_t> offsets;
  for (size_t i = 0; i < 60; ++i) offsets.push_back(i);
  for (size_t i : {size_t(64), size_t(70), size_t(80), size_t(88), bytes.size() / 2, bytes.size() - 1})
    offsets.push_back(i);
  for (size_t at : offsets) {
    std::vector<unsigned char> b = bytes;
    b[at] ^= 0x01;
    const std::string path = temp_path("flipped.orva");
    write_bytes(path, b);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(expect_load_error(path), "Invalid checksum") << "byte " << at;
    ::testing::internal::GetCapturedStdout();
  }
  const std::string short_path = temp_path("short.orva");
  write_bytes(short_path, std::vector<unsigned char>(bytes.begin(), bytes.begin() + 63));
  EXPECT_EQ(expect_load_error(short_path), "Invalid checksum");
  EXPECT_EQ(net->getChecksum(short_path.c_str()), 0u);
  EXPECT_EQ(expect_load_error(temp_path("missing.orva")), "Can't open model file");
}

TEST_F(ModelFile, VersionGates) {
  // 3.3 has the same records and no checksum test: a wrong checksum still loads.
  std::vector<unsigned char> old = bytes;
  set_u32(old, 60, 0xDEADBEEF);
  set_i16(old, 8, 3);
  set_i16(old, 10, 3);
  const std::string v33 = temp_path("v33.orva");
  write_bytes(v33, old);
  ORVA::Network loaded(ORVA::TEST, 2, -1);
  loaded.load(v33.c_str(), false, false);
  EXPECT_EQ(predict_copy(loaded, input, 2), expected);

  // 3.2 has no siamese field.
  std::vector<unsigned char> v32b(old);
  v32b.erase(v32b.begin() + 84, v32b.begin() + 88);
  set_i16(v32b, 10, 2);
  const std::string v32 = temp_path("v32.orva");
  write_bytes(v32, v32b);
  ORVA::Network loaded32(ORVA::TEST, 2, -1);
  loaded32.load(v32.c_str(), false, false);
  EXPECT_EQ(loaded32.getSiamese(), 1);
  EXPECT_EQ(predict_copy(loaded32, input, 2), expected);

  ::testing::internal::CaptureStdout();
  EXPECT_EQ(expect_load_error(variant(bytes, 4, 1, "v41.orva")), "Must engine version >= model version");
  ::testing::internal::GetCapturedStdout();
  std::vector<unsigned char> bad_magic = old;
  bad_magic[0] = 'X';
  const std::string magic_path = temp_path("magic.orva");
  write_bytes(magic_path, bad_magic);
  EXPECT_EQ(expect_load_error(magic_path), "Invalid model format");
}

TEST_F(ModelFile, WeightsOnlyFileRestoresWeightsAndSeen) {
  const std::string weights = temp_path("net.weights");
  net->setSeen(123456789012ULL);
  net->save(weights.c_str(), false);
  const std::vector<unsigned char> w = read_bytes(weights);
  ASSERT_GE(w.size(), 20u);
  EXPECT_EQ(get_u32(w, 4), 2u);
  ORVA::Network loaded(ORVA::TEST, 2, -1);
  ASSERT_EQ(loaded.load(data_path("conv_small.cfg").c_str(), weights.c_str()), 0);
  EXPECT_EQ(loaded.getSeen(), 123456789012ULL);
  EXPECT_EQ(predict_copy(loaded, input, 2), expected);


  // Shorter: the short count of the read, a line naming the file, and nothing left built.
  write_bytes(weights, std::vector<unsigned char>(w.begin(), w.end() - 3));
  ORVA::Network truncated(ORVA::TEST, 2, -1);
  ::testing::internal::CaptureStderr();
  EXPECT_THROW(truncated.load(data_path("conv_small.cfg").c_str(), weights.c_str()), size_t);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find(weights + " has " + std::to_string(w.size() - 3) + " bytes"),
            std::string::npos);
  EXPECT_EQ(truncated.getLayerCount(), 0);
  EXPECT_THROW(truncated.predict(input.data(), 2), std::runtime_error);

  // Longer: loads, with a warning that gives both sizes.
  std::vector<unsigned char> longer = w;
  longer.resize(w.size() + 8, 0);
  write_bytes(weights, longer);
  ORVA::setMsgLevel(WARNING);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(loaded.load(data_path("conv_small.cfg").c_str(), weights.c_str()), 0);
  ORVA::setMsgLevel(ALERT);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find(std::to_string(longer.size()) + " bytes, the network reads " +
                                                          std::to_string(w.size())),
            std::string::npos);
  EXPECT_EQ(predict_copy(loaded, input, 2), expected);

  EXPECT_EQ(thrown<std::runtime_error>([&] { loaded.load(data_path("conv_small.cfg").c_str(), temp_path("missing.weights").c_str()); }),
            "Can't open weights file " + temp_path("missing.weights"));
}

// Format 3.3 files skip the checksum, so these reach the record parser directly. Damage at
// random is the model-file fuzz target's work (tests/fuzz/fuzz_model.cpp).
TEST_F(ModelFile, FilesOutsideTheFormatThrow) {
  std::vector<unsigned char> v33 = bytes;
  set_i16(v33, 8, 3);
  set_i16(v33, 10, 3);
  const std::string path = temp_path("bad.orva");
  auto load_variant = [&](const std::vector<unsigned char>& b) {
    write_bytes(path, b);
    return expect_load_error(path);
  };
  for (size_t cut : {size_t(66), size_t(80), size_t(90), size_t(100), v33.size() - 1}) {
    const std::string what = load_variant(std::vector<unsigned char>(v33.begin(), v33.begin() + cut));
    EXPECT_NE(what, "(loaded)") << "cut at " << cut;
  }
  // One field changed: its offset, the value written (16 bits for the version) and the error.
  const struct {
    size_t at;
    int64_t value;
    const char* want;
  } fields[] = {
      {88, 7, "unknown layer type 7"},             // first record's type id: a gap in the table
      {76, 0x7FFFFFFF, "Invalid model format"},    // layer count
      {76, -1, "Invalid model format"},            // negative layer count
      {8, -1, "Invalid model format"},             // a negative major would pass as an old format
      {64, 1 << 20, "Invalid model format"},
      {92, 1 << 30, "convolution"},                // filters of the first convolution
      {96, 0, "convolution"},                      // kernel size 0
  };
  for (const auto& f : fields) {
    std::vector<unsigned char> b = v33;
    if (f.at == 8)
      set_i16(b, f.at, (int16_t)f.value);
    else
      set_u32(b, f.at, (uint32_t)f.value);
    EXPECT_NE(load_variant(b).find(f.want), std::string::npos) << "offset " << f.at;
  }
}

}  // namespace
