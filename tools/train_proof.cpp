// Teaches a small detector from nothing on the host backend: renders a deterministic
// synthetic detection set (coloured shapes on textured backgrounds), trains through the
// augmentation pipeline and Network::train, and measures mAP@0.5 on held-out scenes at
// regular times. Writes a CSV of (seconds, iteration, loss, mAP) for tools/plot_training.py.
//
//   orva_train_proof [--head yolo] [--minutes 30] [--out DIR] [--train 3000] [--val 300] [--test 300]
//                    [--seed 1] [--eval-every 60] [--target 0.6] [--lr 0.003]
//       crowded scenes and a two-head yolo detector; validation scenes pick the checkpoint,
//       whose mAP on test scenes is the result (DIR/proof_result.txt)
//   orva_train_proof --head region [--target 0.8] [--lr 0.004] [--cost-scale 1] [--coord 2] ...
//       plain scenes and a one-grid detector with an L2 cost, measured on held-out scenes
//   orva_train_proof --write-set DIR COUNT [--seed 1]
//       writes COUNT plain scenes as PNG files and DIR/labels.txt for the train subcommand, and
//       DIR/grid.cfg, the grid detector as a description.
#include <tbb/parallel_for.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "orva/networks.h"
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

// The two-head detector for crowded scenes: 128 x 128 input; a head of stride 16 (8 x 8 cells)
// for the larger objects on the deepest features, and one of stride 8 (16 x 16 cells) for the
// smaller ones branching off the stride-8 features. Three anchors each, in input pixels.
constexpr int kYoloSide = 128;
const char* const kYoloAnchors = "anchors=12,12, 19,19, 28,28, 40,40, 56,56, 76,76\nnum=6\n";

std::string describe_yolo(bool train, int batch, float lr) {
  std::string s = "[network]\nwidth=128\nheight=128\nchannels=3\n";
  if (train)
    s += "[train]\nbatch=" + std::to_string(batch) + "\nsubdivisions=1\nlearning_rate=" + std::to_string(lr) +
         "\nmomentum=0.9\ndecay=0.0005\nburn_in=300\npower=2\npolicy=steps\nsteps=5000,7000\nscales=0.3,0.3\n";
  auto conv = [&](int filters, int size, int stride, const char* act) {
    s += "[convolution]\nfilters=" + std::to_string(filters) + "\nsize=" + std::to_string(size) +
         "\nstride=" + std::to_string(stride) + "\nactivation=" + act + "\n";
  };
  const std::string head = "[yolo]\nclasses=" + std::to_string(synth::kClasses) + "\n" + kYoloAnchors +
                           "ignore_thresh=0.6\nobject_scale=5\nnoobject_scale=1\n";
  const int out = 3 * (5 + synth::kClasses);
  conv(16, 3, 2, "leaky");   // 0: 64 x 64
  conv(32, 3, 2, "leaky");   // 1: 32 x 32
  conv(32, 3, 1, "leaky");   // 2
  conv(64, 3, 2, "leaky");   // 3: 16 x 16
  conv(64, 3, 1, "leaky");   // 4: stride-8 features
  conv(128, 3, 2, "leaky");  // 5: 8 x 8
  conv(128, 3, 1, "leaky");  // 6
  conv(out, 1, 1, "linear"); // 7
  s += head + "mask=3,4,5\n";  // 8
  s += "[route]\nlayers=4\n";   // 9
  conv(64, 3, 1, "leaky");   // 10
  conv(out, 1, 1, "linear"); // 11
  s += head + "mask=0,1,2\n";  // 12: the top layer brings the other head in when detecting
  return s;
}

struct Args {
  std::string head = "yolo";
  int val = 300;
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

// Renders n crowded scenes of the set `seed` as network inputs (no augmentation).
void render_plain(uint32_t seed, int n, std::vector<float>& x, std::vector<ORVA::BoxLabelList>& boxes) {
  const size_t sample = (size_t)kYoloSide * kYoloSide * 3;
  x.assign(sample * n, 0.f);
  boxes.assign(n, {});
  ORVA::ExtImageParams plain;
  plain.out_w = plain.out_h = kYoloSide;
  plain.jitter = plain.hue = 0.f;
  plain.saturation = plain.exposure = 1.f;
  plain.flip = false;
  tbb::parallel_for(0, n, [&](int i) {
    ORVA::BoxLabelList b;
    const cv::Mat img = synth::make_scene(seed, i, kYoloSide, 1, b, true);
    ORVA::AugRng rng = ORVA::aug_rng(0, 0, 0);
    boxes[i] = ORVA::image_ext_pipeline(img, b, plain, rng, x.data() + sample * i);
  });
}

// mAP@0.5 of the weights in `weights` on prepared inputs, through the detect network's own
// decoding (both heads, one class-wise suppression).
float yolo_map(const std::string& cfg, const std::string& weights, int batch, std::vector<float>& x,
               const std::vector<ORVA::BoxLabelList>& truth) {
  const size_t sample = (size_t)kYoloSide * kYoloSide * 3;
  ORVA::DetectNetwork net(ORVA::TEST, batch, -1);
  net.load(cfg.c_str(), weights.c_str());
  net.setParameter(0, 0.005f, 0.45f);
  // Boxes come back in whole pixels of the size asked for: a large one keeps them exact.
  constexpr int kScale = 1 << 14;
  std::vector<cv::Mat> frames(batch);
  std::vector<cv::Size> sizes(batch, cv::Size(kScale, kScale));
  std::vector<unsigned int> keys(batch, 0);
  std::vector<ORVA::DetectObjList> objs(batch);
  std::vector<synth::Detection> dets;
  const int n = (int)truth.size();
  for (int i = 0; i < n; i += batch) {
    const int m = std::min(batch, n - i);
    float* out = net.predict(x.data() + sample * i, m);
    net.getDetect(out, objs.data(), frames.data(), sizes.data(), keys.data(), m);
    for (int k = 0; k < m; ++k)
      for (const ORVA::DetectObj& o : objs[k]) {
        synth::Detection d;
        d.image = i + k;
        d.score = o.prob;
        d.box.id = o.cid;
        d.box.w = (float)o.bbox.width / kScale;
        d.box.h = (float)o.bbox.height / kScale;
        d.box.x = (float)o.bbox.x / kScale + d.box.w / 2;
        d.box.y = (float)o.bbox.y / kScale + d.box.h / 2;
        dets.push_back(d);
      }
  }
  return synth::mean_ap(dets, truth, synth::kClasses);
}

// The augmentation of both proofs (scenes of `side` pixels) and a batch's matrices.
void prepare_batch(const Args& a, int side, int truths, ORVA::ExtImageParams& aug, ORVA::TData& d) {
  aug.out_w = aug.out_h = side;
  aug.jitter = 0.15f;
  aug.seed = a.seed;
  d.X = ORVA::make_matrix(a.batch, side * side * 3);
  d.Y = ORVA::make_matrix(a.batch, truths);
  d.boxes.resize(a.batch);
}

// Crowded scenes, the two-head detector: training, validation and test scenes from three
// seeds; the validation mAP picks the checkpoint, the test mAP of that checkpoint is the
// result.
int run_yolo(const Args& a) {
  const double start = now_s();
  std::vector<cv::Mat> train_img(a.train);
  std::vector<ORVA::BoxLabelList> train_box(a.train), val_box, test_box;
  tbb::parallel_for(0, a.train, [&](int i) {
    train_img[i] = synth::make_scene(a.seed, i, kYoloSide, 1, train_box[i], true);
  });
  std::vector<float> val_x, test_x;
  render_plain(a.seed + 1000003u, a.val, val_x, val_box);
  render_plain(a.seed + 2000006u, a.test, test_x, test_box);
  fprintf(stderr, "rendered %d training, %d validation and %d test scenes in %.1f s\n", a.train, a.val, a.test,
          now_s() - start);

  const std::string train_cfg = a.out + "/proof_train.cfg", test_cfg = a.out + "/proof_test.cfg";
  std::ofstream(train_cfg) << describe_yolo(true, a.batch, a.lr);
  std::ofstream(test_cfg) << describe_yolo(false, a.batch, a.lr);
  const std::string weights = a.out + "/proof.weights", best_weights = a.out + "/proof_best.weights";
  sqrand(a.seed);
  ORVA::Network net(ORVA::TEST, 1, -1);
  if (net.load(train_cfg.c_str(), nullptr) != 0) return 1;
  const int truths = net.getTruths();

  ORVA::ExtImageParams aug;
  ORVA::TData d;
  prepare_batch(a, kYoloSide, truths, aug, d);

  std::ofstream csv(a.out + "/proof_curve.csv");
  csv << "seconds,iteration,loss,map\n";
  const double train_start = now_s();
  double last_eval = train_start, best_at = -1;
  float avg_loss = -1.f, best_map = -1.f;
  int best_iter = 0;
  size_t next = 0;
  for (int iter = 1;; ++iter) {
    tbb::parallel_for(0, a.batch, [&](int k) {
      const size_t s = next + k;
      const uint32_t idx = (uint32_t)(s % a.train);
      ORVA::AugRng rng = ORVA::aug_rng(a.seed, (uint32_t)(s / a.train), idx);
      d.boxes[k] = ORVA::image_ext_pipeline(train_img[idx], train_box[idx], aug, rng, d.X.vals[k]);
      ORVA::encode_box_truth(d.boxes[k], d.Y.vals[k], truths / 5);
    });
    next += a.batch;
    const float loss = net.train(d);
    if (!std::isfinite(loss)) {
      fprintf(stderr, "update %d: the loss is %f; stopping\n", iter, loss);
      break;
    }
    avg_loss = avg_loss < 0 ? loss : 0.95f * avg_loss + 0.05f * loss;
    const double t = now_s();
    const bool out_of_time = t - train_start >= a.minutes * 60;
    if (iter % 50 == 0)
      fprintf(stderr, "%6d  loss %.4f  avg %.4f  rate %.6f  %.1f img/s  %.0f s\n", iter, loss, avg_loss,
              train_rate(net.getTrainParams(), (int)(net.getSeen() / a.batch)), next / (t - train_start),
              t - train_start);
    if (t - last_eval >= a.eval_every || out_of_time) {
      net.save(weights.c_str(), false);
      const float map = yolo_map(test_cfg, weights, a.batch, val_x, val_box);
      last_eval = now_s();
      if (map > best_map) {
        best_map = map;
        best_at = t - train_start;
        best_iter = iter;
        net.save(best_weights.c_str(), false);
      }
      csv << (t - train_start) << "," << iter << "," << avg_loss << "," << map << "\n";
      csv.flush();
      fprintf(stderr, "eval  update %d  %.0f s  loss %.4f  validation mAP@0.5 %.4f (best %.4f)\n", iter,
              t - train_start, avg_loss, map, best_map);
    }
    if (out_of_time) break;
  }
  ORVA::free_data(d);
  if (best_at < 0) return 1;
  const float test_map = yolo_map(test_cfg, best_weights, a.batch, test_x, test_box);
  std::ofstream(a.out + "/proof_result.txt") << "checkpoint_seconds," << best_at << "\ncheckpoint_update," << best_iter
                                             << "\nvalidation_map," << best_map << "\ntest_map," << test_map << "\n";
  fprintf(stderr,
          "test mAP@0.5 %.4f of the checkpoint chosen on validation (update %d, %.0f s, validation %.4f), "
          "target %.2f %s (%zu images seen, %.0f s of training)\n",
          test_map, best_iter, best_at, best_map, a.target, test_map >= a.target ? "reached" : "not reached",
          net.getSeen(), now_s() - train_start);
  return test_map >= a.target ? 0 : 1;
}

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
    "usage: orva_train_proof [--head yolo|region] [--minutes M] [--out DIR] [--train N] [--val N] [--test N]\n"
    "                        [--seed S] [--eval-every SECONDS] [--target MAP] [--batch B] [--lr RATE]\n"
    "                        [--cost-scale S] [--coord W]\n"
    "       orva_train_proof --write-set DIR COUNT [--seed S]\n"
    "Teaches a small detector from rendered scenes for --minutes (default 30), evaluating on held-out\n"
    "scenes; writes its log and weights to --out (default: the current folder). See docs/TRAINING.md.\n"
    "--head yolo (default): crowded scenes, a two-head yolo detector; the validation set (--val)\n"
    "picks the checkpoint, the test set (--test) gives the result (target 0.6, rate 0.003).\n"
    "--head region: the plain scenes and the one-grid detector with an L2 cost (target 0.8,\n"
    "rate 0.004; --cost-scale and --coord apply to it only).\n";

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
  bool target_set = false, lr_set = false;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string k = argv[i];
    const char* v = argv[i + 1];
    if (k == "--minutes") a.minutes = atof(v);
    else if (k == "--out") a.out = v;
    else if (k == "--train") a.train = atoi(v);
    else if (k == "--test") a.test = atoi(v);
    else if (k == "--seed") a.seed = (uint32_t)atoi(v);
    else if (k == "--eval-every") a.eval_every = atof(v);
    else if (k == "--target") a.target = (float)atof(v), target_set = true;
    else if (k == "--head") a.head = v;
    else if (k == "--val") a.val = atoi(v);
    else if (k == "--batch") a.batch = atoi(v);
    else if (k == "--lr") a.lr = (float)atof(v), lr_set = true;
    else if (k == "--cost-scale") a.cost_scale = (float)atof(v);
    else if (k == "--coord") a.coord = (float)atof(v);
    else {
      fprintf(stderr, "unknown option %s\n%s", k.c_str(), kUsage);
      return 2;
    }
  }
  // The results folder is made here, so a wrong one stops the run before training, not after.
  std::error_code ec;
  std::filesystem::create_directories(a.out, ec);
  if (ec || !std::filesystem::is_directory(a.out)) {
    fprintf(stderr, "orva_train_proof: --out %s: can't make the folder (%s)\n", a.out.c_str(),
            ec ? ec.message().c_str() : "a file of that name is there");
    return 1;
  }
  if (a.head == "yolo") {
    if (!target_set) a.target = 0.6f;
    if (!lr_set) a.lr = 0.003f;
    return run_yolo(a);
  }
  if (a.head != "region") {
    fprintf(stderr, "--head %s: not yolo or region\n%s", a.head.c_str(), kUsage);
    return 2;
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
  ORVA::TData d;
  prepare_batch(a, kSide, truths, aug, d);

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
