// Teaches a small grid detector from nothing on the host backend: renders a deterministic
// synthetic detection set (coloured shapes on textured backgrounds), trains through the
// augmentation pipeline and Network::train, and measures mAP@0.5 on held-out scenes at
// regular times. Writes a CSV of (seconds, iteration, loss, mAP) for tools/plot_training.py.
//
//   orva_train_proof [--minutes 30] [--out DIR] [--train 3000] [--test 300] [--seed 1]
//                    [--eval-every 60] [--target 0.8] [--lr 0.004] [--cost-scale 1] [--coord 2]
//   orva_train_proof --write-set DIR COUNT [--seed 1]
//       writes COUNT scenes as PNG files and DIR/labels.txt for the train subcommand, and
//       DIR/grid.cfg, the proof's network as a description.
#include <tbb/parallel_for.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "orva/orva.h"
#include "synth_scenes.h"

namespace {

constexpr int kSide = 96;     // network input
constexpr int kSource = 128;  // rendered scenes
constexpr int kGrid = 6;      // output cells per side (stride 16)

// Stride-2 convolutions halve the image four times; batch normalisation and leaky units,
// then a 1x1 head with one logistic plane per target plane.
std::string describe(bool train, int batch, float lr, float cost_scale) {
  std::string s = "[network]\nwidth=96\nheight=96\nchannels=3\n";
  if (train)
    s += "[train]\nbatch=" + std::to_string(batch) +
         "\nsubdivisions=1\nlearning_rate=" + std::to_string(lr) + "\nmomentum=0.9\ndecay=0.0005\n"
         "burn_in=200\npower=2\npolicy=steps\nsteps=3000,4000\nscales=0.3,0.3\n";
  const int layers[][3] = {{16, 3, 2}, {32, 3, 2}, {32, 3, 1}, {64, 3, 2}, {64, 3, 1}, {128, 3, 2}, {128, 3, 1}};
  for (const auto& l : layers)
    s += "[convolution]\nfilters=" + std::to_string(l[0]) + "\nsize=" + std::to_string(l[1]) +
         "\nstride=" + std::to_string(l[2]) + "\nactivation=leaky\n";
  s += "[convolution]\nfilters=" + std::to_string(5 + synth::kClasses) + "\nsize=1\nactivation=linear\n";
  s += "[cost]\ntype=L2\nscale=" + std::to_string(cost_scale) + "\n";
  return s;
}

struct Args {
  double minutes = 30;
  std::string out = ".";
  int train = 3000, test = 300, batch = 16;
  uint32_t seed = 1;
  double eval_every = 60;
  float target = 0.8f;
  float lr = 0.004f, cost_scale = 1.f;
  // The box planes' targets are multiplied by this (and the outputs divided back when
  // decoding): an L2 cost then weighs box errors coord^2 times more than objectness and
  // class errors, which the sparse object cells need against the many empty ones.
  float coord = 2.f;
};

double now_s() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

int write_set(const std::string& dir, int count, uint32_t seed) {
  std::ofstream list(dir + "/labels.txt");
  list << "# image class x y w h ... (centre and size relative to the image)\n";
  for (int i = 0; i < count; ++i) {
    ORVA::BoxLabelList boxes;
    const cv::Mat img = synth::make_scene(seed, i, kSource, kGrid, boxes);
    const std::string name = dir + "/scene_" + std::to_string(i) + ".png";
    if (!cv::imwrite(name, img)) {
      fprintf(stderr, "%s: can't write\n", name.c_str());
      return 1;
    }
    list << name;
    for (const ORVA::BoxLabel& b : boxes) list << " " << b.id << " " << b.x << " " << b.y << " " << b.w << " " << b.h;
    list << "\n";
  }
  std::ofstream(dir + "/grid.cfg") << describe(true, 16, 0.004f, 1.f);
  return 0;
}

const char* const kUsage =
    "usage: orva_train_proof [--minutes M] [--out DIR] [--train N] [--test N] [--seed S] [--eval-every SECONDS]\n"
    "                        [--target F1] [--batch B] [--lr RATE] [--cost-scale S] [--coord W]\n"
    "       orva_train_proof --write-set DIR COUNT [--seed S]\n"
    "Teaches a small detector from rendered scenes for --minutes (default 30), evaluating on held-out\n"
    "scenes; writes its log and weights to --out (default: the current folder). See docs/TRAINING.md.\n";

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (!strcmp(argv[i], "-h") || !strcmp(argv[i], "--help")) {
      fputs(kUsage, stdout);
      return 0;
    }
  if (argc % 2 == 0 && !(argc >= 4 && strcmp(argv[1], "--write-set") == 0)) {
    fprintf(stderr, "%s: every option takes a value\n%s", argc > 1 ? argv[argc - 1] : "", kUsage);
    return 2;
  }
  if (argc >= 4 && strcmp(argv[1], "--write-set") == 0)
    return write_set(argv[2], atoi(argv[3]), argc >= 6 ? (uint32_t)atoi(argv[5]) : 1u);
  Args a;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string k = argv[i];
    const char* v = argv[i + 1];
    if (k == "--minutes") a.minutes = atof(v);
    else if (k == "--out") a.out = v;
    else if (k == "--train") a.train = atoi(v);
    else if (k == "--test") a.test = atoi(v);
    else if (k == "--seed") a.seed = (uint32_t)atoi(v);
    else if (k == "--eval-every") a.eval_every = atof(v);
    else if (k == "--target") a.target = (float)atof(v);
    else if (k == "--batch") a.batch = atoi(v);
    else if (k == "--lr") a.lr = (float)atof(v);
    else if (k == "--cost-scale") a.cost_scale = (float)atof(v);
    else if (k == "--coord") a.coord = (float)atof(v);
    else {
      fprintf(stderr, "unknown option %s\n%s", k.c_str(), kUsage);
      return 2;
    }
  }
  const double start = now_s();
  // Training scenes from one seed, held-out scenes from another: no scene is in both.
  std::vector<cv::Mat> train_img(a.train);
  std::vector<ORVA::BoxLabelList> train_box(a.train), test_box(a.test);
  tbb::parallel_for(0, a.train, [&](int i) {
    train_img[i] = synth::make_scene(a.seed, i, kSource, kGrid, train_box[i]);
  });
  const size_t sample = (size_t)kSide * kSide * 3;
  std::vector<float> test_x(sample * a.test);
  ORVA::ExtImageParams plain;
  plain.out_w = plain.out_h = kSide;
  plain.jitter = plain.hue = 0.f;
  plain.saturation = plain.exposure = 1.f;
  plain.flip = false;
  tbb::parallel_for(0, a.test, [&](int i) {
    ORVA::BoxLabelList boxes;
    const cv::Mat img = synth::make_scene(a.seed + 1000003u, i, kSource, kGrid, boxes);
    ORVA::AugRng rng = ORVA::aug_rng(0, 0, 0);
    test_box[i] = ORVA::image_ext_pipeline(img, boxes, plain, rng, test_x.data() + sample * i);
  });
  fprintf(stderr, "rendered %d training and %d held-out scenes in %.1f s\n", a.train, a.test, now_s() - start);

  const std::string train_cfg = a.out + "/proof_train.cfg", test_cfg = a.out + "/proof_test.cfg";
  std::ofstream(train_cfg) << describe(true, a.batch, a.lr, a.cost_scale);
  std::ofstream(test_cfg) << describe(false, a.batch, a.lr, a.cost_scale);
  const std::string weights = a.out + "/proof.weights";
  sqrand(a.seed);
  ORVA::Network net(ORVA::TEST, 1, -1);
  net.load(train_cfg.c_str(), nullptr);
  const int truths = net.getTruths();
  if (truths != kGrid * kGrid * (5 + synth::kClasses)) {
    fprintf(stderr, "unexpected head: %d truth values\n", truths);
    return 1;
  }

  ORVA::ExtImageParams aug;
  aug.out_w = aug.out_h = kSide;
  aug.jitter = 0.15f;
  aug.seed = a.seed;
  ORVA::TData d;
  d.X = ORVA::make_matrix(a.batch, (int)sample);
  d.Y = ORVA::make_matrix(a.batch, truths);
  d.boxes.resize(a.batch);

  auto evaluate = [&]() {
    net.save(weights.c_str(), false);
    ORVA::Network eval(ORVA::TEST, a.batch, -1);
    eval.load(test_cfg.c_str(), weights.c_str());
    std::vector<synth::Detection> dets;
    for (int i = 0; i < a.test; i += a.batch) {
      const int n = std::min(a.batch, a.test - i);
      const float* out = eval.predict(test_x.data() + sample * i, n);
      for (int k = 0; k < n; ++k) {
        std::vector<float> o(out + (size_t)k * eval.getOutputs(), out + (size_t)(k + 1) * eval.getOutputs());
        for (int e = kGrid * kGrid; e < 5 * kGrid * kGrid; ++e) o[e] /= a.coord;
        synth::decode_grid(o.data(), kGrid, kGrid, synth::kClasses, i + k, 0.005f, 0.45f, dets);
      }
    }
    return synth::mean_ap(dets, test_box, synth::kClasses);
  };

  std::ofstream csv(a.out + "/proof_curve.csv");
  csv << "seconds,iteration,loss,map\n";
  const double train_start = now_s();
  double last_eval = train_start;
  float avg_loss = -1.f, best_map = 0.f, map = 0.f;
  double reached_at = -1;
  size_t next = 0;
  for (int iter = 1;; ++iter) {
    tbb::parallel_for(0, a.batch, [&](int k) {
      const size_t s = next + k;
      const uint32_t idx = (uint32_t)(s % a.train);
      ORVA::AugRng rng = ORVA::aug_rng(a.seed, (uint32_t)(s / a.train), idx);
      d.boxes[k] = ORVA::image_ext_pipeline(train_img[idx], train_box[idx], aug, rng, d.X.vals[k]);
      ORVA::encode_grid_truth(d.boxes[k], kGrid, kGrid, synth::kClasses, d.Y.vals[k]);
      for (int e = kGrid * kGrid; e < 5 * kGrid * kGrid; ++e) d.Y.vals[k][e] *= a.coord;
    });
    next += a.batch;
    const float loss = net.train(d);
    avg_loss = avg_loss < 0 ? loss : 0.95f * avg_loss + 0.05f * loss;
    const double t = now_s();
    const bool out_of_time = t - train_start >= a.minutes * 60;
    if (iter % 50 == 0)
      fprintf(stderr, "%6d  loss %.4f  avg %.4f  rate %.6f  %.1f img/s  %.0f s\n", iter, loss, avg_loss,
              train_rate(net.getTrainParams(), (int)(net.getSeen() / a.batch)), next / (t - train_start),
              t - train_start);
    if (t - last_eval >= a.eval_every || out_of_time) {
      map = evaluate();
      last_eval = now_s();
      best_map = std::max(best_map, map);
      if (map >= a.target && reached_at < 0) reached_at = t - train_start;
      csv << (t - train_start) << "," << iter << "," << avg_loss << "," << map << "\n";
      csv.flush();
      fprintf(stderr, "eval  iteration %d  %.0f s  loss %.4f  mAP@0.5 %.4f\n", iter, t - train_start, avg_loss, map);
    }
    if (out_of_time) break;
  }
  printf("final mAP@0.5 %.4f, best %.4f, target %.2f %s", map, best_map, a.target,
         reached_at >= 0 ? "reached" : "not reached");
  if (reached_at >= 0) printf(" after %.0f s", reached_at);
  printf(" (%zu images seen, %.0f s of training)\n", net.getSeen(), now_s() - train_start);
  ORVA::free_data(d);
  return reached_at >= 0 ? 0 : 1;
}
