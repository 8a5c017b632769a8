// Training: the rate schedule against its closed forms, the options reader, the update
// cadence, a short run whose loss must fall, resuming from a saved file, and the
// augmentation pipeline's determinism and box bookkeeping.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "network_test_util.h"
#include "program_test_util.h"
#include "orva/train.h"

using namespace orva_test;

namespace {

TrainParams params_of(RatePolicy policy) {
  TrainParams p;
  p.learning_rate = 0.01f;
  p.policy = policy;
  p.steps = {100, 200};
  p.scales = {0.1f, 0.1f};
  p.num_steps = 2;
  return p;
}

TEST(TrainRate, EveryPolicyFollowsItsClosedForm) {
  const double lr = 0.01;
  struct Case {
    RatePolicy policy;
    int burn_in;
    int b;
    double expect;
  } cases[] = {
      {CONSTANT, 1000, 500, lr * 0.0625},  // burn-in: (b / burn_in)^4
      {CONSTANT, 1000, 1000, lr},          // the burn-in edge still uses the ramp, at its top
      {CONSTANT, 1000, 1001, lr},
      {STEP, 0, 25, lr * std::pow(0.5, 2.5)},  // float exponent, not integer division
      {EXP, 0, 30, lr * std::pow(0.9, 30)},
      {POLY, 0, 250, lr * std::pow(0.75, 4)},
      {STEPS, 0, 99, lr},
      {STEPS, 0, 100, lr * 0.1},
      {STEPS, 0, 250, lr * 0.01},
      {SIGMOID, 0, 40, lr / (1 + std::exp(0.9 * (40 - 25)))},
      {STEPS_CYCLIC, 0, 150, lr * 0.1 * (1 - 0.75 * 0.49)},
      {STEPS_CYCLIC, 0, 50, lr * (1 - 0.75 * 0.49)},
      {STEPS_CYCLIC, 0, 250, lr * 0.01},  // every step applied: no cyclic factor
  };
  for (const Case& c : cases) {
    TrainParams p = params_of(c.policy);
    p.burn_in = c.burn_in;
    p.scale = 0.5f;
    p.step = c.policy == SIGMOID ? 25 : 10;
    p.gamma = 0.9f;
    p.max_batches = 1000;
    EXPECT_NEAR(train_rate(p, c.b), c.expect, c.expect * 1e-5) << "policy " << c.policy << " b " << c.b;
  }
  // No burn-in at b = 0: 0 / 0, kept as is.
  EXPECT_TRUE(std::isnan(train_rate(params_of(CONSTANT), 0)));
  TrainParams r = params_of(RANDOM);
  r.power = 2;
  for (int b = 1; b < 50; ++b) {
    const float v = train_rate(r, b);
    EXPECT_TRUE(v >= 0.f && v <= 0.01f) << v;
  }
}

TEST(TrainOptions, ParsesListsAndFallsBack) {
  struct Case {
    const char* keys;
    RatePolicy policy;
    int num_steps;
  } cases[] = {{"policy=steps\nsteps=100,200,300\nscales=.1,.5,2\n", STEPS, 3},
               {"policy=steps-cyclic\nsteps=7\nscales=0.5\n", STEPS_CYCLIC, 1},
               {"policy=Steps\n", CONSTANT, 0},
               {"", CONSTANT, 0}};
  for (const Case& c : cases) {
    const std::string path = temp_path("train.cfg");
    write_file(path, std::string("[network]\nwidth=4\n[train]\nbatch=2\nsubdivisions=3\n") + c.keys);
    ConfigReader cfg;
    ASSERT_EQ(cfg.load(path.c_str()), 0);
    TrainParams p;
    ASSERT_TRUE(parse_train_options(p, cfg));
    EXPECT_EQ(p.policy, c.policy) << c.keys;
    EXPECT_EQ(p.num_steps, c.num_steps);
    EXPECT_EQ(p.subdivisions, 3);
  }
  const std::string path = temp_path("train.cfg");
  write_file(path, "[train]\npolicy=steps\nsteps=100\n");
  ConfigReader cfg;
  ASSERT_EQ(cfg.load(path.c_str()), 0);
  TrainParams p;
  ORVA::setFatalThrows(true);
  EXPECT_THROW(parse_train_options(p, cfg), ORVA::FatalError);
  ORVA::setFatalThrows(false);
}

// Two convolutions closed by an L2 cost; the target is what a fixed 1x1 convolution makes
// of the input, so the network can reach it.
const char* kTinyNet =
    "[network]\nwidth=6\nheight=6\nchannels=2\n"
    "[train]\nbatch=4\nlearning_rate=0.005\nmomentum=%g\ndecay=0.0005\nsubdivisions=%d\n"
    "policy=steps\nburn_in=3\nsteps=8\nscales=0.5\n"
    "[convolution]\nfilters=6\nsize=3\nactivation=leaky\n"
    "[convolution]\nfilters=2\nsize=1\nactivation=linear\n"
    "[cost]\ntype=L2\n";

struct TinyTrainer {
  TinyTrainer(float momentum, int subdivisions) {
    char text[1024];
    snprintf(text, sizeof(text), kTinyNet, momentum, subdivisions);
    cfg = temp_path("tiny.cfg");
    write_file(cfg, text);
  }
  std::unique_ptr<ORVA::Network> build(const char* weights = nullptr) {
    sqrand(7);  // the same initial weights every time
    auto net = std::make_unique<ORVA::Network>(ORVA::TEST, 1, -1);
    EXPECT_EQ(net->load(cfg.c_str(), weights), 0);
    return net;
  }
  // Fixed block of n samples: inputs in [0, 1], targets a mix of the two input channels.
  static ORVA::TData data(int n) {
    ORVA::TData d;
    d.X = ORVA::make_matrix(n, 72);
    d.Y = ORVA::make_matrix(n, 72);
    std::mt19937 g(3);
    std::uniform_real_distribution<float> u(0.f, 1.f);
    for (int i = 0; i < n; ++i)
      for (int k = 0; k < 36; ++k) {
        const float a = u(g), b = u(g);
        d.X.vals[i][k] = a;
        d.X.vals[i][36 + k] = b;
        d.Y.vals[i][k] = 0.6f * a - 0.3f * b;
        d.Y.vals[i][36 + k] = 0.2f + 0.5f * b;
      }
    return d;
  }
  static std::vector<Ftype> weights(ORVA::Network& net) {
    std::vector<Ftype> all;
    for (int i = 0; i < 2; ++i) {
      ORVA::ConvolutionLayer* l = conv_at(net, i);
      for (const auto& v : {pull(net.getHandle(), l->_weight, l->_weights), pull(net.getHandle(), l->_bias, l->_kn)})
        all.insert(all.end(), v.begin(), v.end());
    }
    return all;
  }
  std::string cfg;
};

TEST(Train, LossFallsFourfoldOnFixedData) {
  TinyTrainer t(0.9f, 1);
  auto net = t.build();
  ASSERT_EQ(net->getMode(), ORVA::TRAIN);
  ORVA::TData d = TinyTrainer::data(16);
  const float first = net->train(d);
  float last = first;
  for (int epoch = 0; epoch < 60; ++epoch) last = net->train(d);
  EXPECT_EQ(net->getSeen(), 61u * 16);
  EXPECT_TRUE(std::isfinite(last));
  EXPECT_LT(last, first / 4) << "first " << first << " last " << last;
  ORVA::free_data(d);
}

TEST(Train, UpdatesFallOnTheFirstMiniBatchOfEachGroup) {
  TinyTrainer t(0.f, 4);
  auto net = t.build();
  ORVA::TData d = TinyTrainer::data(4);  // one mini-batch per call
  std::vector<int> updated;
  for (int i = 0; i < 9; ++i) {
    const std::vector<Ftype> before = TinyTrainer::weights(*net);
    net->train(d);
    const std::vector<Ftype> after = TinyTrainer::weights(*net);
    bool changed = false;
    for (size_t k = 0; k < before.size(); ++k) changed |= before[k].__x != after[k].__x;
    if (changed) updated.push_back(i);
  }
  // Mini-batch 0 updates with the burn-in rate of b = 0, which is zero.
  EXPECT_EQ(updated, (std::vector<int>{4, 8}));
  ORVA::free_data(d);
}

TEST(Train, ResumingFromSavedWeightsMatchesAnUninterruptedRun) {
  // Momentum lives only in the running layers, so the comparison runs without it; the
  // schedule (burn-in, then a step) depends on the restored seen-count.
  TinyTrainer t(0.f, 1);
  ORVA::TData d = TinyTrainer::data(8);
  auto whole = t.build();
  for (int i = 0; i < 10; ++i) whole->train(d);

  auto first = t.build();
  for (int i = 0; i < 4; ++i) first->train(d);
  const std::string saved = temp_path("tiny.weights");
  ASSERT_EQ(first->save(saved.c_str(), false), 0);
  auto resumed = t.build(saved.c_str());
  EXPECT_EQ(resumed->getSeen(), 32u);
  for (int i = 0; i < 6; ++i) resumed->train(d);
  const std::vector<Ftype> a = TinyTrainer::weights(*whole), b = TinyTrainer::weights(*resumed);
  ASSERT_EQ(a.size(), b.size());
  for (size_t k = 0; k < a.size(); ++k) ASSERT_EQ(a[k].__x, b[k].__x) << "weight " << k;
  ORVA::free_data(d);
}

// A 120x80 frame with a red square and a blue bar that reaches past the right edge.
cv::Mat test_frame(ORVA::BoxLabelList& boxes) {
  cv::Mat m(80, 120, CV_8UC3, cv::Scalar(40, 160, 40));
  cv::rectangle(m, cv::Rect(20, 20, 24, 24), cv::Scalar(0, 0, 255), cv::FILLED);
  cv::rectangle(m, cv::Rect(90, 50, 30, 12), cv::Scalar(255, 0, 0), cv::FILLED);
  boxes = {{0, 32.f / 120, 32.f / 80, 24.f / 120, 24.f / 80}, {1, 105.f / 120, 56.f / 80, 30.f / 120, 12.f / 80}};
  return m;
}

TEST(Augment, SeededAndBoxesFollowThePixels) {
  ORVA::BoxLabelList boxes;
  const cv::Mat src = test_frame(boxes);
  ORVA::ExtImageParams p;
  p.out_w = p.out_h = 64;
  p.jitter = 0.3f;
  p.hue = 0.f;  // colours kept so the objects can be found again
  p.saturation = p.exposure = 1.f;
  std::vector<float> a(64 * 64 * 3), b(a.size());
  int flipped = 0, dropped = 0;
  for (uint32_t index = 0; index < 40; ++index) {
    ORVA::AugRng r1 = ORVA::aug_rng(5, 0, index), r2 = ORVA::aug_rng(5, 0, index);
    const ORVA::BoxLabelList out = ORVA::image_ext_pipeline(src, boxes, p, r1, a.data());
    ORVA::image_ext_pipeline(src, boxes, p, r2, b.data());
    ASSERT_EQ(a, b) << "same seed, same sample";
    ORVA::AugRng r3 = ORVA::aug_rng(5, 1, index);
    ORVA::image_ext_pipeline(src, boxes, p, r3, b.data());
    EXPECT_NE(a, b) << "another epoch draws again";
    dropped += (int)(boxes.size() - out.size());
    for (const ORVA::BoxLabel& o : out) {
      EXPECT_TRUE(o.x - o.w / 2 >= -1e-4f && o.x + o.w / 2 <= 1 + 1e-4f && o.y - o.h / 2 >= -1e-4f &&
                  o.y + o.h / 2 <= 1 + 1e-4f)
          << "clipped to the frame";
      // Inside the box (away from its edge) the object's colour; planes are R, G, B.
      const int plane = o.id == 0 ? 0 : 2;
      int hits = 0, total = 0;
      for (int y = (int)((o.y - o.h * 0.3f) * 64); y <= (int)((o.y + o.h * 0.3f) * 64); ++y)
        for (int x = (int)((o.x - o.w * 0.3f) * 64); x <= (int)((o.x + o.w * 0.3f) * 64); ++x, ++total)
          hits += a[(size_t)plane * 4096 + y * 64 + x] > 0.8f;
      EXPECT_GT(hits, total * 0.9) << "class " << o.id << " sample " << index;
      if (o.id == 0) {
        // The square sits in the left half of the source; in the right half it was mirrored.
        flipped += o.x > 0.5f;
      }
    }
  }
  EXPECT_GT(flipped, 5);
  EXPECT_LT(flipped, 35);
  EXPECT_GT(dropped, 0) << "the jitter pushes the edge bar out of some crops";
}

TEST(Augment, LabelListFaultsNameFileAndLine) {
  ORVA::BoxLabelList boxes;
  const std::string img = temp_path("frame.png");
  cv::imwrite(img, test_frame(boxes));
  const std::string list = temp_path("list.txt");
  write_file(list, "# comment\n" + img + " 0 0.5 0.5 0.2 0.2 1 0.1 0.1 0.05 0.05\n" + img + " 0 0.5 0.5 0.2\n" + img +
                       " 3 0.5 0.5 0.2 0.2\n" + img + " 1 0.5 1.5 0.2 0.2\n" + img + " 1 0.5 x 0.2 0.2\n" +
                       "/no/such/file.png 0 0.5 0.5 0.2 0.2\n\n" + img + "\n");
  std::vector<ORVA::LabelledImage> items;
  int faults = 0;
  testing::internal::CaptureStderr();
  ASSERT_TRUE(ORVA::read_label_list(list.c_str(), items, 2, &faults));
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(faults, 5);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].boxes.size(), 2u);
  EXPECT_TRUE(items[1].boxes.empty());  // an image without objects is a valid sample
  for (int line = 3; line <= 7; ++line)
    EXPECT_NE(err.find(list + ":" + std::to_string(line) + ":"), std::string::npos) << err;
  EXPECT_FALSE(ORVA::read_label_list("/no/such/list.txt", items, 2));
}

TEST(TrainCommand, ChecksListTrainsResumesAndKeepsCheckpoints) {
  ORVA::BoxLabelList boxes;
  const std::string img = temp_path("frame.png"), dir = temp_path("ck");
  cv::imwrite(img, test_frame(boxes));
  std::filesystem::create_directories(dir);
  const std::string cfg = dir + "/grid.cfg", list = dir + "/list.txt";
  write_file(cfg,
             "[network]\nwidth=32\nheight=32\nchannels=3\n[train]\nbatch=2\nlearning_rate=0.001\nburn_in=1\n"
             "[convolution]\nfilters=4\nsize=3\nstride=4\nactivation=leaky\n"
             "[convolution]\nfilters=7\nsize=1\nactivation=linear\n[cost]\n");
  write_file(list, img + " 0 0.27 0.4 0.2 0.3 1 0.875 0.7 0.25 0.15\n" + img + "\n" + img + " 2 0.5 0.5 0.1 0.1\n");
  const std::string base = "train " + cfg + " " + list + " -o " + dir + " --gpu -1";
  ProgramRun r = run(base + " --strict --max 2");
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find(list + ":3: class is not an integer"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(dir + "/grid_last.weights")) << "nothing written before training";

  r = run(base + " --max 4 --every 2 --report 1");
  std::string out = r.out + r.err;
  ASSERT_EQ(r.status, 0) << out;
  EXPECT_NE(out.find("1 faulty line(s) skipped"), std::string::npos) << out;
  EXPECT_NE(out.find("      4  loss"), std::string::npos) << out;
  for (const char* f : {"/grid_2.weights", "/grid_4.weights", "/grid_last.weights"})
    EXPECT_TRUE(std::filesystem::exists(dir + f)) << f;

  r = run(base + " --max 6 --report 1 -w " + dir + "/grid_4.weights");
  out = r.out + r.err;
  ASSERT_EQ(r.status, 0) << out;
  EXPECT_NE(out.find("from iteration 4 to 6"), std::string::npos) << out;
  EXPECT_NE(out.find("      6  loss"), std::string::npos) << out;
}

}  // namespace
