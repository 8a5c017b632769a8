// The application's view of a network: building from memory, the per-layer description and
// the per-layer timer.
#include <gtest/gtest.h>

#include "network_test_util.h"

using namespace orva_test;

namespace {

TEST(NetworkApi, DescriptionAndWeightsFromMemoryMatchTheFiles) {
  const std::string cfg = data_path("conv_stack.cfg"), weights = TempDir::path() + "api_stack.weights";
  ORVA::Network ref(ORVA::TEST, 2, -1);
  ASSERT_EQ(ref.load(cfg.c_str(), nullptr), 0);
  randomize_network(ref);
  ref.save(weights.c_str(), false);
  ORVA::Network from_files(ORVA::TEST, 2, -1), from_memory(ORVA::TEST, 2, -1);
  ASSERT_EQ(from_files.load(cfg.c_str(), weights.c_str()), 0);
  const std::vector<unsigned char> bytes = read_bytes(weights);
  ASSERT_EQ(from_memory.loadText(text(cfg), bytes.data(), bytes.size()), 0);
  const std::vector<float> in = random_floats((size_t)2 * ref.getInputs(), 0.f, 1.f);
  EXPECT_EQ(predict_copy(from_memory, in, 2), predict_copy(from_files, in, 2));

  // The same faults as from files, and a failed build leaves nothing usable.
  EXPECT_EQ(from_memory.loadText("[convolution]\nfilters=2\n"), -1);
  EXPECT_THROW(from_memory.loadText("[network]\nwidth=4\nnot a pair\n"), std::runtime_error);
  EXPECT_THROW(from_memory.loadText(text(cfg), bytes.data(), bytes.size() / 2), size_t);
  EXPECT_THROW(from_memory.predict(1), std::runtime_error);
}

TEST(NetworkApi, LayerInfoDescribesEachLayer) {
  ORVA::Network net(ORVA::TEST, 1, -1);
  ASSERT_EQ(net.load(data_path("conv_small.cfg").c_str(), nullptr), 0);
  ASSERT_EQ(net.getLayerCount(), 2);
  const ORVA::LayerInfo a = net.layerInfo(0), b = net.layerInfo(1), top = net.layerInfo(-1);
  EXPECT_STREQ(a.name, "convolution");
  EXPECT_EQ(a.type, ORVA::LAYER_CONVOLUTION);
  EXPECT_EQ(std::make_tuple(a.in_w, a.in_h, a.in_c), std::make_tuple(6, 5, 3));
  EXPECT_EQ(a.params, 4u * 3 * 3 * 3 + 4);  // weights and one bias per filter
  EXPECT_EQ(std::make_tuple(b.in_w, b.in_h, b.in_c), std::make_tuple(a.out_w, a.out_h, a.out_c));
  EXPECT_EQ(b.params, 2u * 4 + 2);
  EXPECT_GT(b.flops, 0u);
  EXPECT_EQ(std::make_tuple(top.out_w, top.out_h, top.out_c, top.params), std::make_tuple(b.out_w, b.out_h, 2, b.params));
  EXPECT_THROW(net.layerInfo(2), std::out_of_range);
}

TEST(NetworkApi, LayerTimerSeesEveryLayerOfEveryPassAndChangesNothing) {
  ORVA::Network net(ORVA::TEST, 1, -1);
  ASSERT_EQ(net.load(data_path("conv_stack.cfg").c_str(), nullptr), 0);
  randomize_network(net);
  const std::vector<float> in = random_floats(net.getInputs(), 0.f, 1.f);
  const std::vector<float> plain = predict_copy(net, in, 1);
  std::vector<int> calls(net.getLayerCount(), 0);
  net.setLayerTimer([&](int i, double ms) {
    ASSERT_GE(ms, 0.0);
    ++calls.at(i);
  });
  EXPECT_EQ(predict_copy(net, in, 1), plain);
  predict_copy(net, in, 1);
  EXPECT_EQ(calls, std::vector<int>(net.getLayerCount(), 2));
  net.setLayerTimer(nullptr);
  predict_copy(net, in, 1);
  EXPECT_EQ(calls, std::vector<int>(net.getLayerCount(), 2));
}

}  // namespace
