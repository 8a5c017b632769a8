// Layer registry, construction from a description, the accessors, resize and predict.
#include <gtest/gtest.h>

#include <stdexcept>

#include "network_test_util.h"

using namespace orva_test;

namespace {

// Sections that aren't layers ([network], [train]) build nothing and say nothing; an
// unknown one is named and skipped.
TEST(NetworkBuild, DescriptionKeysAndAccessors) {
  const std::string cfg = temp_path("net.cfg");
  write_file(cfg,
             "[network]\nwidth=8\nheight=6\nchannels=3\nprecision=fp16\nsiamese=2\n[train]\n"
             "[convolution]\nfilters=4\nsize=3\n[nosuchlayer]\n[convolution]\nfilters=2\nsize=1\nstride=2\n");
  ORVA::Network net(ORVA::TEST, 4, -1);
  ::testing::internal::CaptureStdout();
  ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), ">>> Unkown Layer: nosuchlayer\n");
  EXPECT_EQ(net.getPrecision(), ORVA::FP16);
  ASSERT_EQ(net.getLayerCount(), 2);
  EXPECT_EQ(net.getLayer(0)->_batch, 8);
  EXPECT_EQ(net.getLayer(-1), net.getLayer(1));
  EXPECT_EQ(net.getOutputLayer(), net.getLayer(1));
  EXPECT_EQ(net.getLayer(2), nullptr);
  EXPECT_EQ(net.getOutputs(), 4 * 3 * 2);

  write_file(cfg, "[network]\nwidth=8\nheight=6\nchannels=3\nprecision=FP16\n[convolution]\nfilters=1\n");
  ORVA::setMsgLevel(WARNING);
  ::testing::internal::CaptureStderr();
  ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("Couldn't find precision FP16, going with fp32"),
            std::string::npos);
  ORVA::setMsgLevel(ALERT);
  EXPECT_EQ(net.getPrecision(), ORVA::FP32);
  EXPECT_EQ(net.getLayerCount(), 1);

  net.resize(12, 10);
  EXPECT_EQ(net.getInputs(), 10 * 10 * 3);
  EXPECT_EQ(net.getLayer(0)->_in_w, 12);
  EXPECT_EQ(net.getLayer(0)->_out_h, 10);

  write_file(cfg, "[convolution]\nfilters=1\n");
  EXPECT_EQ(net.load(cfg.c_str(), nullptr), -1);
  EXPECT_EQ(net.getLayerCount(), 0);
}

// Sets the library to throw on fatal description faults for one test.
struct FatalThrows {
  FatalThrows() { ORVA::setFatalThrows(true); }
  ~FatalThrows() { ORVA::setFatalThrows(false); }
};

// What a load reports; afterwards the network must be empty and refuse to predict.
std::string load_error(const std::string& cfg, const char* weights = nullptr) {
  ORVA::Network net(ORVA::TEST, 1, -1);
  std::string what = "(loaded)";
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  try {
    net.load(cfg.c_str(), weights);
  } catch (const std::exception& e) {
    what = e.what();
  } catch (size_t got) {
    what = "short read of " + std::to_string(got);
  }
  ::testing::internal::GetCapturedStdout();
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(net.getLayerCount(), 0) << what;
  EXPECT_THROW(net.predict(1), std::runtime_error) << what;
  return what;
}

TEST(NetworkBuild, BadDescriptionsEndInErrorsNamingKeyAndValue) {
  FatalThrows throws;
  const std::string net = "[network]\nwidth=8\nheight=8\nchannels=3\n";
  const std::pair<std::string, std::string> cases[] = {
      {"[network]\nwidth=-3\nheight=4\nchannels=1\n[convolution]\n", "width -3 out of range"},
      {"[network]\nwidth=70000\nheight=4\nchannels=1\n[convolution]\n", "width 70000 out of range"},
      {"[network]\nwidth=60000\nheight=60000\nchannels=3\n[convolution]\n", "input 60000 x 60000 x 3 exceeds"},
      {"[network]\nwidth=9999999999\nheight=4\nchannels=1\n[convolution]\n", "width 2147483647"},
      {net + "inputs=-1\n[convolution]\n", "inputs -1 out of range"},
      {net + "siamese=0\n[convolution]\n", "siamese 0 out of range"},
      {net + "[train]\nbatch=100000000\n[convolution]\n", "batch 100000000 x siamese 1"},
      {net + "[convolution]\nfilters=1000000000\n", "filters 1000000000"},
      {net + "[convolution]\nsize=2147483647\n", "size 2147483647"},
      {net + "[convolution]\ngroups=2\n", "groups 2 must divide channels 3"},
      {"[network]\ninputs=12\n[convolution]\n", "Layer before convolutional layer must output image."},
      // a few bytes that would ask for a column workspace of many gigabytes
      {"[network]\nwidth=4096\nheight=4096\nchannels=16\n[convolution]\nsize=31\n", "needs a workspace"},
  };
  const std::string cfg = temp_path("bad.cfg");
  for (const auto& c : cases) {
    write_file(cfg, c.first);
    const std::string what = load_error(cfg);
    EXPECT_NE(what.find(c.second), std::string::npos) << c.first << " -> " << what;
  }
  write_file(cfg, "[network]\nwidth=4\n\nthis line is malformed\n");
  EXPECT_EQ(load_error(cfg), "Can't parse config file " + cfg + ", line 4: neither a [section] nor a key=value pair");
  EXPECT_EQ(load_error(temp_path("missing.cfg")), "Can't open config file");
}

TEST(NetworkBuildDeathTest, FatalFaultsExitOrThrowTheSameLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the thread pool may already run
  const std::string cfg = temp_path("noinput.cfg");
  write_file(cfg, "[network]\nwidth=8\n[convolution]\nfilters=1\n");
  auto load = [&] {
    ORVA::Network net(ORVA::TEST, 1, -1);
    net.load(cfg.c_str(), nullptr);
  };
  EXPECT_FALSE(ORVA::fatalThrows());
  EXPECT_EXIT(load(), ::testing::ExitedWithCode(255), "ERROR: No input parameters supplied");
  FatalThrows throws;
  EXPECT_TRUE(ORVA::fatalThrows());
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(thrown<ORVA::FatalError>(load), "No input parameters supplied");
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("_buildConfig(ConfigReader&, int, const char*, bool, bool):"), std::string::npos);
}

// Resize rebuilds the chain through the same path as a load: every layer takes the new
// shape, and the 8-bit choice the network was built with stays.
TEST(NetworkResize, ReshapesEveryLayerAndKeepsTheBuildChoices) {
  const std::string cfg = temp_path("resize.cfg");
  write_file(cfg, "[network]\nwidth=8\nheight=8\nchannels=4\n[convolution]\nfilters=4\nsize=3\nquant_thresh=2\n"
                  "[maxpool]\nsize=2\nstride=2\n");
  ORVA::Network net(ORVA::TEST, 2, -1);
  ASSERT_EQ(net.load(cfg.c_str(), nullptr, true, false), 0);
  ASSERT_GT(net.getLayer(0)->_qinput_size, 0u);
  net.resize(16, 16);
  EXPECT_GT(net.getLayer(0)->_qinput_size, 0u);
  EXPECT_EQ(net.getLayer(1)->_out_w, 8);
  EXPECT_EQ(net.getOutputs(), 8 * 8 * 4);
  EXPECT_NE(net.predict(2), nullptr);
  EXPECT_THROW(net.resize(0, 16), std::invalid_argument);
}

TEST(NetworkPredict, BatchIsClampedAndThePointerStays) {
  ORVA::Network net(ORVA::TEST, 4, -1);
  EXPECT_THROW(net.predict(1), std::runtime_error);  // nothing built yet
  ASSERT_EQ(net.load(data_path("conv_small.cfg").c_str(), nullptr), 0);
  randomize_network(net);
  std::vector<float> input = random_floats(4 * 6 * 5 * 3, 0.f, 1.f);
  input.resize(100 * 6 * 5 * 3, 0.5f);  // room for what a careless caller claims
  const float* first = net.predict(input.data(), 4);
  const std::vector<float> four(first, first + 4 * net.getOutputs());
  const float* second = net.predict(input.data(), 100);
  EXPECT_EQ(first, second);
  EXPECT_EQ(std::vector<float>(second, second + 4 * net.getOutputs()), four);
}

// A training pass carries batch x siamese samples; the cost layer reads truth for each.
TEST(NetworkPredict, SiameseTrainingPassStaysInsideTheTruth) {
  const std::string cfg = temp_path("siamese_train.cfg");
  write_file(cfg, "[network]\nwidth=4\nheight=3\nchannels=1\nsiamese=2\n[train]\nbatch=2\n"
                  "[convolution]\nfilters=2\nsize=1\n[cost]\n");
  ORVA::Network net(ORVA::TEST, 1, -1);
  ::testing::internal::CaptureStderr();
  ASSERT_EQ(net.load(cfg.c_str(), nullptr), 0);
  ::testing::internal::GetCapturedStderr();
  std::vector<float> input = random_floats(2 * 2 * 4 * 3, 0.f, 1.f);
  EXPECT_NE(net.predict(input.data(), 2), nullptr);  // the sanitizer build checks the reads
}

// Input planes as the conversion writes them: byte / 255, channel order reversed.
std::vector<float> planes_of(const cv::Mat& m) {
  const int c = m.channels(), npix = m.rows * m.cols;
  std::vector<float> p((size_t)c * npix);
  for (int k = 0; k < c; ++k)
    for (int i = 0; i < npix; ++i) p[(size_t)k * npix + i] = m.data[(size_t)i * c + (c - 1 - k)] / 255.f;
  return p;
}

cv::Mat random_mat(int rows, int cols, int type) {
  cv::Mat m(rows, cols, type);
  for (size_t i = 0; i < m.total() * m.elemSize(); ++i) m.data[i] = (unsigned char)(rng()() & 0xFF);
  return m;
}

TEST(NetworkPredict, SiameseImagesAndStackedMasksFillTheInput) {
  ORVA::Network net(ORVA::TEST, 1, -1);
  ASSERT_EQ(net.load(data_path("siamese_mask.cfg").c_str(), nullptr), 0);
  ASSERT_EQ(net.getSiamese(), 2);
  const int inputs = 5 * 4 * 4;
  auto input_planes = [&]() { return to_floats(pull(net.getHandle(), net.getInput(), 2 * inputs)); };

  cv::Mat pair[2] = {random_mat(4, 5, CV_8UC4), random_mat(4, 5, CV_8UC4)};
  net.predict(pair, 1);
  std::vector<float> expected = planes_of(pair[0]);
  const std::vector<float> second = planes_of(pair[1]);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_TRUE(NearL2(std::vector<double>(expected.begin(), expected.end()), input_planes(), kHalfRounding));

  std::vector<cv::Mat> lists[2];
  for (auto& list : lists) list = {random_mat(4, 5, CV_8UC3), random_mat(4, 5, CV_8UC1)};
  net.predict(lists, 1);
  expected.clear();
  for (auto& list : lists)
    for (const cv::Mat& m : list) {
      const std::vector<float> p = planes_of(m);
      expected.insert(expected.end(), p.begin(), p.end());
    }
  EXPECT_TRUE(NearL2(std::vector<double>(expected.begin(), expected.end()), input_planes(), kHalfRounding));

  cv::Mat wrong[2] = {random_mat(4, 5, CV_8UC3), random_mat(4, 5, CV_8UC3)};
  EXPECT_THROW(net.predict(wrong, 1), std::invalid_argument);
}

}  // namespace
