// Networks mixing the layer types: they build with the expected shapes, run on every
// backend with the same result, and come back from a model file with identical output.
#include <gtest/gtest.h>

#include <cstring>

#include "layer_test_util.h"

using namespace orva_test;

namespace {

// Outputs of one network: the host reference run against its own model-file copy, then CUDA
// (when present) against the host.
ORVA::Network* load_model(ORVA::Network& net, const std::string& path) {
  ::testing::internal::CaptureStdout();  // the checksum line
  const int status = net.load(path.c_str(), false, false);
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(status, 0);
  return &net;
}

// A model file of a randomised network, loaded (inference folds batch normalisation) and
// saved again: the second copy, and the description with the weights-only file, must
// reproduce the first exactly on the host, and CUDA (when present) must agree with the host.
void check_round_trip(const std::string& text, int side_w, int side_h, int channels, int siamese = 1) {
  const int batch = 2;
  const std::vector<float> input = random_floats((size_t)batch * siamese * side_w * side_h * channels, 0.f, 1.f);
  const std::string model = temp_path("mixed.orva"), again = temp_path("again.orva");
  const std::string weights = temp_path("mixed.weights"), cfg = temp_path("mixed.cfg");
  {
    auto net = net_from_text(text, batch, -1);
    randomize_layers(*net);
    net->save(model.c_str(), true);
    net->save(weights.c_str(), false);
  }
  ORVA::Network first(ORVA::TEST, batch, -1);
  load_model(first, model);
  const std::vector<float> expected = predict_copy(first, input, batch);
  for (float v : expected) ASSERT_FALSE(std::isnan(v));
  first.save(again.c_str(), true);
  // The description with the weights-only file builds the same network.
  write_file(cfg, text);
  ORVA::Network described(ORVA::TEST, batch, -1);
  ASSERT_EQ(described.load(cfg.c_str(), weights.c_str()), 0);
  EXPECT_EQ(predict_copy(described, input, batch), expected);
  for (int gpu : test_backends()) {
    if (skip_without_cudnn(text, gpu)) continue;
    ORVA::Network loaded(ORVA::TEST, batch, gpu);
    load_model(loaded, again);
    ASSERT_EQ(loaded.getLayerCount(), first.getLayerCount());
    for (int i = 0; i < first.getLayerCount(); ++i) {
      EXPECT_EQ(loaded.getLayer(i)->type, first.getLayer(i)->type) << i;
      EXPECT_EQ(loaded.getLayer(i)->_outputs, first.getLayer(i)->_outputs) << i;
    }
    const std::vector<float> got = predict_copy(loaded, input, batch);
    if (gpu < 0) {
      EXPECT_EQ(got, expected);
    } else {
      EXPECT_TRUE(NearL2(std::vector<double>(expected.begin(), expected.end()), got, kHalfAccumulate));
      count_cuda_comparison();
    }
  }
}

TEST(MixedNetwork, TinyYoloTrunkShapesAndRoundTrip) {
  auto net = net_from_text(tiny_yolo_trunk(64), 1, -1);
  ASSERT_EQ(net->getLayerCount(), 13);
  const int sides[] = {64, 32, 32, 16, 16, 8, 8, 4, 4, 2, 2, 2, 2};
  for (int i = 0; i < 13; ++i) EXPECT_EQ(net->getLayer(i)->_out_w, sides[i]) << i;
  EXPECT_EQ(net->getOutputs(), 2 * 2 * 1024);
  check_round_trip(tiny_yolo_trunk(64, 8), 64, 64, 3);
}

TEST(MixedNetwork, ResidualTrunkRoundTrip) {
  auto net = net_from_text(kResidualTrunk, 1, -1);
  EXPECT_EQ(net->getLayer(5)->_in_w, 18);
  EXPECT_EQ(net->getLayer(5)->_out_w, 9);
  EXPECT_EQ(net->getOutputs(), 8);
  check_round_trip(kResidualTrunk, 18, 14, 3);
}

TEST(MixedNetwork, BranchedTrunkRoundTrip) {
  auto net = net_from_text(kBranchedTrunk, 1, -1);
  const int c[] = {8, 8, 16, 16, 16, 64, 64, 88, 4};
  const int w[] = {16, 8, 8, 5, 8, 4, 8, 8, 8};
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(net->getLayer(i)->_out_c, c[i]) << i;
    EXPECT_EQ(net->getLayer(i)->_out_w, w[i]) << i;
  }
  check_round_trip(kBranchedTrunk, 16, 12, 3);
}

// Every layer type of the library in one network, siamese so that the merge has pairs.
const char* kEveryLayer =
    "[network]\nwidth=8\nheight=6\nchannels=3\nsiamese=2\n"
    "[convolution]\nfilters=8\nsize=3\nbatch_normalize=1\nactivation=leaky\n"  // 0: 8 x 6 x 8
    "[batchnorm]\n[activation]\nactivation=logistic\n[dynact]\n"               // 1-3
    "[maxpool]\nsize=2\nstride=2\n"                                              // 4: 4 x 3 x 8
    "[avgpool]\nsize=2\nstride=1\npad=0\n"                                      // 5: 4 x 3 x 8
    "[upsample]\n[reorg]\n[spresize]\n"                                         // 6-8: 8 x 6 x 8
    "[shortcut]\nfrom=6\nactivation=leaky\n"                                    // 9
    "[route]\nlayers=-1,6\n"                                                     // 10: 8 x 6 x 16
    "[convolution]\nfilters=1\nsize=1\nactivation=logistic\n[scalemap]\nfrom=10\n"  // 11-12
    "[avgpool]\ntmin=2\ntmax=3\n[fconn]\noutput=16\nactivation=logistic\n"       // 13-14
    "[attention]\nfrom=12\n[dropout]\n[smerge]\nmerge=add\n"                    // 15-17
    "[avgpool]\nsquare=1\n[fconn]\noutput=6\n[softmax]\ngroups=2\nmap=2,4\n";    // 18-20

TEST(MixedNetwork, EveryLayerTypeRoundTrip) {
  auto net = net_from_text(kEveryLayer, 1, -1);
  ASSERT_EQ(net->getLayerCount(), 21);
  const int types[] = {0, 19, 14, 27, 3, 11, 23, 22, 24, 13, 8, 0, 25, 11, 2, 26, 6, 28, 11, 2, 4};
  for (int i = 0; i < 21; ++i) EXPECT_EQ(net->getLayer(i)->type, types[i]) << i;
  EXPECT_EQ(net->getLayer(10)->_out_c, 16);
  EXPECT_EQ(net->getLayer(17)->_batch, 1);
  EXPECT_EQ(net->getOutputs(), 6);
  check_round_trip(kEveryLayer, 8, 6, 3, 2);
}

// Every configuration word of that network's model file replaced by a hostile value: the
// load either builds a network or throws std::runtime_error, never crashes or ends the process.
TEST(MixedNetwork, DamagedRecordsAreRefused) {
  const std::string model = temp_path("every.orva"), damaged = temp_path("damaged.orva");
  {
    auto net = net_from_text(kEveryLayer, 1, -1);
    net->save(model.c_str(), true);
  }
  const std::vector<unsigned char> bytes = read_bytes(model);
  const size_t first = 64 + 24, words = std::min<size_t>(160, (bytes.size() - first) / 4);
  int refused = 0;
  for (size_t w = 0; w < words; ++w)
    for (int32_t value : {-3, 1 << 20}) {
      std::vector<unsigned char> b = bytes;
      memcpy(&b[first + 4 * w], &value, 4);
      write_bytes(damaged, b);
      ORVA::Network probe(ORVA::TEST, 1, -1);
      const uint32_t sum = probe.getChecksum(damaged.c_str());
      memcpy(&b[60], &sum, 4);
      write_bytes(damaged, b);
      ::testing::internal::CaptureStdout();
      ::testing::internal::CaptureStderr();
      try {
        probe.load(damaged.c_str(), false, false);
      } catch (const std::runtime_error&) {
        ++refused;
      }
      ::testing::internal::GetCapturedStderr();
      ::testing::internal::GetCapturedStdout();
    }
  EXPECT_GT(refused, (int)words / 2);
}

}  // namespace
