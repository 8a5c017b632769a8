// The convert command's converters: face-api manifests and the darknet dialect (TF.js graph
// models are in tfjs_test.cpp).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <nlohmann/json.hpp>

#include "darknet.h"
#include "faceapi.h"
#include "harness.h"
#include "network_test_util.h"
#include "orva/config.h"

namespace {

using orva_test::temp_path;
using orva_test::write_file;
using orvacli::ConvertError;
using orvacli::ConvertedModel;

ConfigReader read_cfg(const std::string& text) {
  const std::string path = temp_path("engine.cfg");
  write_file(path, text);
  ConfigReader r;
  EXPECT_EQ(r.load(path.c_str()), 0);
  return r;
}

// The conversion must fail with a message containing `want`.
template <typename F>
void expect_convert_error(F convert, const std::string& want, const std::string& input = "") {
  EXPECT_TRUE(orva_test::Contains(orva_test::thrown<ConvertError>(convert), want)) << input;
}

// ---- face-api manifests ----

// A face detector with few channels: every tensor the mapping reads, in random uint8 bytes,
// except conv8/bias which is stored as plain float32.
struct FakeFaceModel {
  struct T {
    std::string name;
    std::vector<int> shape;
    double scale, min;
    std::vector<unsigned char> bytes;
    std::vector<float> plain;  // when not quantised
    float at(size_t i) const { return plain.empty() ? (float)(bytes[i] * scale + min) : plain[i]; }
  };
  std::vector<T> t;
  std::map<std::string, size_t> idx;

  FakeFaceModel() {
    const int ch[6] = {2, 3, 2, 2, 2, 4};
    add("conv0/filters", {3, 3, 3, ch[0]});
    add("conv0/bias", {ch[0]});
    for (int k = 1; k <= 5; ++k) {
      const std::string p = "conv" + std::to_string(k);
      add(p + "/depthwise_filter", {3, 3, ch[k - 1], 1});
      add(p + "/pointwise_filter", {1, 1, ch[k - 1], ch[k]});
      add(p + "/bias", {ch[k]});
    }
    add("conv8/filters", {1, 1, ch[5], 25});
    add("conv8/bias", {25}, true);
  }
  void add(const std::string& name, std::vector<int> shape, bool plain = false) {
    size_t n = 1;
    for (int d : shape) n *= d;
    T x{name, shape, 0.01 + 0.001 * t.size(), -0.5 - 0.01 * t.size(), {}, {}};
    if (plain)
      x.plain = orva_test::random_floats(n, -1, 1);
    else
      for (size_t i = 0; i < n; ++i) x.bytes.push_back((unsigned char)(orva_test::rng()() & 255));
    idx[name] = t.size();
    t.push_back(x);
  }
  const T& operator[](const std::string& n) const { return t[idx.at(n)]; }

  // Writes the manifest and the weights over two files; `drop` leaves one tensor out. (Stray
  // or missing bytes are the shared manifest reader's, checked in tfjs_test.cpp.)
  std::string write(const std::string& drop = "") const {
    nlohmann::json weights = nlohmann::json::array();
    std::vector<unsigned char> bin;
    for (const T& x : t) {
      if (x.name == drop) continue;
      nlohmann::json w = {{"name", x.name}, {"shape", x.shape}, {"dtype", "float32"}};
      if (x.plain.empty()) {
        w["quantization"] = {{"dtype", "uint8"}, {"scale", x.scale}, {"min", x.min}};
        bin.insert(bin.end(), x.bytes.begin(), x.bytes.end());
      } else {
        const auto* p = reinterpret_cast<const unsigned char*>(x.plain.data());
        bin.insert(bin.end(), p, p + 4 * x.plain.size());
      }
      weights.push_back(w);
    }
    const size_t half = bin.size() / 2;
    orva_test::write_bytes(temp_path("w1.bin"), std::vector<unsigned char>(bin.begin(), bin.begin() + half));
    orva_test::write_bytes(temp_path("w2.bin"), std::vector<unsigned char>(bin.begin() + half, bin.end()));
    const std::string manifest = temp_path("manifest.json");
    nlohmann::json doc = nlohmann::json::array(
        {{{"paths", {std::filesystem::path(temp_path("w1.bin")).filename().string(),
                     std::filesystem::path(temp_path("w2.bin")).filename().string()}},
          {"weights", weights}}});
    write_file(manifest, doc.dump());
    return manifest;
  }
};

TEST(FaceApiConverter, DequantisesAndReordersIntoEngineRecords) {
  FakeFaceModel f;
  const std::string manifest = f.write();
  const ConvertedModel m = orvacli::tinyFaceDetector(orvacli::readWeightsManifest(manifest), 66, manifest);
  const std::vector<float>& w = m.weights;
  size_t at = 0;
  auto near = [](double a, double b) { return std::fabs(a - b) <= 1e-5 * (1 + std::fabs(b)); };

  // conv0: the mean folded into the bias; filters [kh][kw][in][out] to [out][in][kh][kw].
  const auto& f0 = f["conv0/filters"];
  for (int o = 0; o < 2; ++o) {
    double bias = f["conv0/bias"].at(o);
    for (int i = 0; i < 27; ++i) bias -= f0.at(i * 2 + o) * orvacli::kFaceMean[i % 3] / 255.0;
    EXPECT_TRUE(near(w[at + o], bias)) << o;
  }
  at += 2;
  for (int o = 0; o < 2; ++o)
    for (int c = 0; c < 3; ++c)
      for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x) ASSERT_TRUE(near(w[at++], f0.at(((y * 3 + x) * 3 + c) * 2 + o)));

  // conv1 depthwise ([kh][kw][channel][1], zero biases) then pointwise, 2 -> 3 channels.
  for (int o = 0; o < 2; ++o) EXPECT_EQ(w[at++], 0.f);
  const auto& dw = f["conv1/depthwise_filter"];
  for (int ch = 0; ch < 2; ++ch)
    for (int k = 0; k < 9; ++k) ASSERT_TRUE(near(w[at++], dw.at(k * 2 + ch)));
  for (int o = 0; o < 3; ++o) EXPECT_TRUE(near(w[at++], f["conv1/bias"].at(o)));
  for (int o = 0; o < 3; ++o)
    for (int c = 0; c < 2; ++c) ASSERT_TRUE(near(w[at++], f["conv1/pointwise_filter"].at(c * 3 + o)));

  // The head's last record: per anchor five entries plus a constant class score of 1.
  const size_t head = w.size() - 30 - 30 * 4;
  const auto& b8 = f["conv8/bias"];
  const auto& f8 = f["conv8/filters"];
  for (int a = 0; a < 5; ++a) {
    for (int e = 0; e < 5; ++e) EXPECT_EQ(w[head + a * 6 + e], b8.at(a * 5 + e));
    EXPECT_EQ(w[head + a * 6 + 5], 1.f);
    for (int c = 0; c < 4; ++c) {
      EXPECT_TRUE(near(w[head + 30 + (a * 6 + 2) * 4 + c], f8.at(c * 25 + a * 5 + 2)));
      EXPECT_EQ(w[head + 30 + (a * 6 + 5) * 4 + c], 0.f);
    }
  }

  ConfigReader r = read_cfg(m.cfg);
  EXPECT_EQ(r.findInt(r.findSection("network", 0), "width", 0, true), 66);
  const int c0 = r.findSection("convolution", 0);
  EXPECT_EQ(r.findInt(c0, "pad", -1, true), 0);
  EXPECT_EQ(r.findInt(r.findSection("convolution", c0 + 1), "groups", 0, true), 2);
  const int reg = r.findSection("region", 0);
  EXPECT_EQ(r.findInt(reg, "classes", 0, true), 1);
  EXPECT_EQ(r.findInt(reg, "num", 0, true), 5);
  EXPECT_EQ(m.shapes.back().w, 2);  // 66 - 2 = 64 halves five times; the 2 x 2 / 1 pool keeps it
  EXPECT_EQ(m.names, std::vector<std::string>{"face"});
}

TEST(FaceApiConverter, FaultsNameTheFileAndTheTensor) {
  FakeFaceModel f;
  const struct {
    const char* drop;
    int size;
    const char* want;
  } cases[] = {{"conv3/bias", 66, "manifest.json: no tensor 'conv3/bias'"}, {"", 64, "input size 64"}};
  for (const auto& c : cases) {
    const std::string manifest = f.write(c.drop);
    expect_convert_error([&] { orvacli::tinyFaceDetector(orvacli::readWeightsManifest(manifest), c.size, manifest); }, c.want);
  }
}

// ---- darknet dialect ----

ConvertedModel convert_darknet(const std::string& text, const std::vector<float>* floats = nullptr,
                               int major = 0, int minor = 2) {
  const std::string cfg = temp_path("dn.cfg");
  write_file(cfg, text);
  std::vector<unsigned char> bytes;
  if (floats) {
    const int32_t head[3] = {major, minor, 0};
    bytes.resize(12);
    std::memcpy(bytes.data(), head, 12);
    const uint64_t seen = 1234;
    const size_t seen_bytes = major * 10 + minor >= 2 ? 8 : 4;
    bytes.insert(bytes.end(), reinterpret_cast<const unsigned char*>(&seen),
                 reinterpret_cast<const unsigned char*>(&seen) + seen_bytes);
    const auto* p = reinterpret_cast<const unsigned char*>(floats->data());
    bytes.insert(bytes.end(), p, p + 4 * floats->size());
  }
  return orvacli::darknetToEngine(orvacli::readDarknetCfg(cfg), cfg, floats ? &bytes : nullptr, "dn.weights");
}

const char* kDarknetNet = R"(# a small classifier
[net]
batch=64
width = 8
height=8
channels=3
learning_rate=0.001

[convolutional]
batch_normalize=1
filters=4
size=3
stride=1
pad=1
activation=leaky

[maxpool]
size=2
stride=2

[dropout]
probability=0.3

[convolutional]
filters=2
size=1

[route]
layers=-1,-2

[connected]
output=3
batch_normalize=1
activation=linear

[softmax]
groups=1
)";

TEST(DarknetImport, SectionsKeysDefaultsAndWeightOrder) {
  // conv1: 4 biases, 3 x 4 normalisation, 4 x 3 x 9 weights; conv2: 2 + 2 x 4;
  // connected over the 4 x 4 x 6 route: 3 biases, 3 x 96 weights, 3 x 3 normalisation.
  const size_t conv = 4 + 12 + 108 + 2 + 8, fc_in = 96;
  std::vector<float> floats(conv + 3 + 3 * fc_in + 9);
  for (size_t i = 0; i < floats.size(); ++i) floats[i] = (float)i;
  const ConvertedModel m = convert_darknet(kDarknetNet, &floats);
  EXPECT_EQ(m.seen, 1234u);

  ConfigReader r = read_cfg(m.cfg);
  const int c1 = r.findSection("convolution", 0), c2 = r.findSection("convolution", c1 + 1);
  EXPECT_EQ(r.findInt(c1, "pad", -1, true), 1);           // pad=1 means size / 2
  EXPECT_EQ(r.findInt(c1, "batch_normalize", 0, true), 1);
  EXPECT_STREQ(r.findStr(c2, "activation", "", true), "logistic");  // the dialect's default
  EXPECT_EQ(r.findInt(c2, "pad", -1, true), 0);
  EXPECT_EQ(r.findInt(r.findSection("maxpool", 0), "pad", -1, true), 0);
  EXPECT_STREQ(r.findStr(r.findSection("route", 0), "layers", "", true), "2,1");  // absolute, past the dropped dropout
  EXPECT_EQ(r.findInt(r.findSection("fconn", 0), "output", 0, true), 3);
  EXPECT_EQ(r.findSection("train", 0), -1);
  ASSERT_EQ(m.shapes.size(), 6u);
  EXPECT_EQ(m.shapes[3].c, 6);
  EXPECT_EQ(m.shapes[3].w, 4);

  // Convolutions keep their order; the connected layer's normalisation moves before its weights.
  ASSERT_EQ(m.weights.size(), floats.size());
  for (size_t i = 0; i < conv + 3; ++i) ASSERT_EQ(m.weights[i], floats[i]);
  EXPECT_EQ(m.weights[conv + 3], floats[conv + 3 + 3 * fc_in]);
  EXPECT_EQ(m.weights[conv + 3 + 9], floats[conv + 3]);

  // Weights of version 0.1 count samples in 32 bits.
  EXPECT_EQ(convert_darknet(kDarknetNet, &floats, 0, 1).weights.size(), floats.size());
}

// A [yolo] over 14 channels: (5 + 2 classes) x 2 masked anchors of 3; the mask line follows.
const char* kYoloHead = "[convolutional]\nfilters=14\nsize=1\n[yolo]\nclasses=2\nnum=3\nanchors=1,2,3,4,5,6\n";

TEST(DarknetImport, FaultsNameTheLineAndTheKey) {
  const std::string head = "[net]\nwidth=8\nheight=8\nchannels=3\n";
  struct Case {
    std::string text;
    const char* expect;
  } cases[] = {
      {head + "[crnn]\n", "dn.cfg:5: [crnn] this section cannot be expressed"},
      {head + "[convolutional]\nfilters=2\nsize=3\nfancy=1\n", "dn.cfg:8: [convolutional] key 'fancy'"},
      {head + "[convolutional]\nfilters=2\nsize=3\nstride_x=2\n", "'stride_x': only 1"},
      {head + "[convolutional]\nfilters=2\nactivation=gelu\n", "'activation': 'gelu' has no counterpart"},
      {head + kYoloHead + "mask=1,3\n", "dn.cfg:12: [yolo] 'mask': 3 names no anchor (num=3)"},
      {head + kYoloHead + "mask=0\n", "dn.cfg:9: [yolo] 'classes': the layer before gives 14 channels"},
      {head + kYoloHead + "mask=0,1\nnms_kind=cornersnms\n", "dn.cfg:13: [yolo] 'nms_kind': 'cornersnms' cannot"},
      {head + kYoloHead + "mask=0,1\nanchors=1,2,3\n", "dn.cfg:13: [yolo] 'anchors': 3 values for num=3"},
      {head + "[convolutional]\nfilters=6\n[route]\nlayers=-1\ngroups=4\n", "dn.cfg:9: [route] 'groups': 4 does not divide the 6"},
      {head + "[route]\nlayers=-1\ngroups=2\ngroup_id=2\n", "'group_id': 2 is not below groups = 2"},
      {head + "[convolutional]\nfilters=two\n", "'filters': 'two' is not an integer"},
      {head + "[convolutional]\nfilters=4\ngroups=2\n", "'groups': 2 does not divide"},
      {head + "[route]\nlayers=1\n", "'layers': '1' names no earlier layer"},
      {head + "[region]\nanchors=1,1\nclasses=2\n", "gives 3 channels"},
      {"[net]\ninputs=10\n[maxpool]\n", "dn.cfg:3: [maxpool] needs an image input"},
      {head + "[net]\n", "only the first section may be [net]"},
      {"key=1\n[net]\n", "dn.cfg:1: key before the first section"},
      {head + "[convolutional\n", "section header without ']'"},
  };
  for (const Case& c : cases) expect_convert_error([&] { convert_darknet(c.text); }, c.expect, c.text);
  // Weights that end early or run long name the weights file.
  for (int extra : {-1, 1}) {
    const std::vector<float> w(2 + 2 * 27 + extra);
    expect_convert_error([&] { convert_darknet(head + "[convolutional]\nfilters=2\nsize=3\n", &w); }, "dn.weights: ");
  }
}

// A 2 x 2 / 2 pool over an even size is the engine's pool; over an odd size the dialect keeps
// a last half window, which the engine's symmetric padding cannot. (Where the records land,
// and what the engine computes from them, the yolo families check against OpenCV.)
TEST(DarknetImport, EngineBuildsWhatItExpressesExactlyAndRefusesTheRest) {
  for (int side : {8, 9}) {
    const std::string text = "[net]\nwidth=" + std::to_string(side) + "\nheight=" + std::to_string(side) +
                             "\nchannels=3\n[convolutional]\nfilters=2\nsize=3\npad=1\nactivation=linear\n"
                             "[maxpool]\nsize=2\nstride=2\n";
    const std::vector<float> w = orva_test::random_floats(2 + 2 * 27, -1, 1);
    const ConvertedModel m = convert_darknet(text, &w);
    const std::string out = temp_path("dn.orva");
    if (side == 9) {
      expect_convert_error([&] { orvacli::writeModel(m, out); },
                           "[maxpool] (line 10): the engine's layer gives 4 x 4 x 2, the source 5 x 5 x 2");
      continue;
    }
    orvacli::writeModel(m, out);
    ORVA::Network net(ORVA::TEST, 1, -1);
    net.load(out.c_str());
    ASSERT_EQ(net.getLayerCount(), 2);
    EXPECT_EQ(net.getLayer(1)->_out_w, 4);
  }
}

}  // namespace
