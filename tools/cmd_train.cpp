// "train": teaches a network described by a text description from a labelled image list.
//
//   train <description.cfg> <labels.txt> [--weights FILE] [--out DIR] [--max N] [--every N]
//         [--report N] [--seed N] [--strict] [--jitter F] [--hue F] [--saturation F]
//         [--exposure F] [--no-flip] [--no-letterbox]
//
// The label list format, the truth layouts and the checkpoint rules are in docs/TRAINING.md.
#include <tbb/parallel_for.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "orva/orva.h"

namespace {

std::atomic<bool> g_stop{false};
void on_signal(int) { g_stop = true; }

struct TrainOptions {
  const char* cfg = nullptr;
  const char* list = nullptr;
  const char* weights = nullptr;
  std::string out = ".";
  int max = 0;
  int every = 500;
  int report = 10;
  bool strict = false;
  ORVA::ExtImageParams aug;
};

int usage() {
  fprintf(stderr,
          "usage: train <description.cfg> <labels.txt> [--weights FILE] [--out DIR] [--max N] [--every N]\n"
          "             [--report N] [--seed N] [--strict] [--jitter F] [--hue F] [--saturation F]\n"
          "             [--exposure F] [--no-flip] [--no-letterbox]\n");
  return 2;
}

bool parse(int argc, char** argv, TrainOptions& o) {
  std::vector<const char*> pos;
  for (int i = 1; i < argc; ++i) {
    const std::string k = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    const char* v = nullptr;
    if (k == "--strict") o.strict = true;
    else if (k == "--no-flip") o.aug.flip = false;
    else if (k == "--no-letterbox") o.aug.letterbox = false;
    else if (k.compare(0, 2, "--") != 0) pos.push_back(argv[i]);
    else if (!(v = value())) return false;
    else if (k == "--weights") o.weights = v;
    else if (k == "--out") o.out = v;
    else if (k == "--max") o.max = atoi(v);
    else if (k == "--every") o.every = atoi(v);
    else if (k == "--report") o.report = atoi(v);
    else if (k == "--seed") o.aug.seed = (uint32_t)strtoul(v, nullptr, 10);
    else if (k == "--jitter") o.aug.jitter = (float)atof(v);
    else if (k == "--hue") o.aug.hue = (float)atof(v);
    else if (k == "--saturation") o.aug.saturation = (float)atof(v);
    else if (k == "--exposure") o.aug.exposure = (float)atof(v);
    else return false;
  }
  if (pos.size() != 2) return false;
  o.cfg = pos[0];
  o.list = pos[1];
  return o.every > 0 && o.report > 0;
}

// Writes through a temporary name and renames, so an interrupted write never replaces the
// previous checkpoint with a partial one.
bool checkpoint(ORVA::Network& net, const std::string& path) {
  const std::string tmp = path + ".part";
  try {
    net.save(tmp.c_str(), false);
  } catch (const std::exception& e) {
    fprintf(stderr, "checkpoint %s not written: %s\n", path.c_str(), e.what());
    return false;
  }
  if (rename(tmp.c_str(), path.c_str()) != 0) {
    fprintf(stderr, "checkpoint %s not written: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  return true;
}

std::string stem(const char* path) {
  std::string s = path;
  const size_t slash = s.find_last_of('/');
  if (slash != std::string::npos) s = s.substr(slash + 1);
  const size_t dot = s.find_last_of('.');
  return dot == std::string::npos ? s : s.substr(0, dot);
}

std::string clock_text(double s) {
  char buf[32];
  const long t = (long)(s + 0.5);
  snprintf(buf, sizeof(buf), "%ld:%02ld:%02ld", t / 3600, t / 60 % 60, t % 60);
  return buf;
}

}  // namespace

int cmd_train(int argc, char** argv) {
  TrainOptions o;
  if (!parse(argc, argv, o)) return usage();

  std::unique_ptr<ORVA::Network> net(new ORVA::Network(ORVA::TEST, 1, -1));
  try {
    net->load(o.cfg, o.weights);
  } catch (const std::exception& e) {
    fprintf(stderr, "%s: %s\n", o.weights ? o.weights : o.cfg, e.what());
    return 1;
  }
  if (net->getMode() != ORVA::TRAIN) {
    fprintf(stderr, "%s: no [train] section; nothing to train\n", o.cfg);
    return 1;
  }
  if (net->iC != 3) {
    fprintf(stderr, "%s: training from images needs channels=3, not %d\n", o.cfg, net->iC);
    return 1;
  }
  // The head decides the truth layout: box records for heads that read them, else a grid
  // of (objectness, x, y, w, h, classes) planes for a convolution closed by a cost layer.
  ORVA::Layer* head = net->getOutputLayer();
  const int truths = net->getTruths();
  const bool records = head->_truths > 0;
  const int classes = records ? 0 : head->_out_c - 5;
  if (records ? truths % 5 != 0 : (classes < 1 || truths != head->_outputs)) {
    fprintf(stderr, "%s: the output layer is neither a box-record head nor a grid of 5 + classes planes\n", o.cfg);
    return 1;
  }
  std::vector<ORVA::LabelledImage> items;
  int faults = 0;
  if (!ORVA::read_label_list(o.list, items, records ? 1 << 30 : classes, &faults)) return 1;
  if (faults && o.strict) {
    fprintf(stderr, "%s: %d faulty line(s); stopped before training (--strict)\n", o.list, faults);
    return 1;
  }
  if (items.empty()) {
    fprintf(stderr, "%s: no usable labelled image\n", o.list);
    return 1;
  }
  if (faults) fprintf(stderr, "%s: %d faulty line(s) skipped, training on %zu images\n", o.list, faults, items.size());

  const TrainParams& tp = net->getTrainParams();
  const int rows = net->getBatch() * tp.subdivisions;
  const int max = o.max > 0 ? o.max : (tp.max_batches > 0 ? tp.max_batches : 10000);
  o.aug.out_w = net->iW;
  o.aug.out_h = net->iH;
  ORVA::ExtImagePipeline pipeline(items, o.aug);
  ORVA::TData d;
  d.Y = ORVA::make_matrix(rows, truths);
  const std::string base = o.out + "/" + stem(o.cfg);

  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);
  using clock = std::chrono::steady_clock;
  const clock::time_point start = clock::now();
  const size_t seen0 = net->getSeen();
  int iteration = (int)(seen0 / rows);
  float avg = -1.f, group = 0.f;
  int in_group = 0;
  printf("training %s on %zu images, %d samples per update, from iteration %d to %d\n", o.cfg, items.size(), rows,
         iteration, max);
  while (iteration < max && !g_stop) {
    pipeline.load(d, rows, net->getSeen());
    tbb::parallel_for(0, rows, [&](int i) {
      if (records)
        ORVA::encode_box_truth(d.boxes[i], d.Y.vals[i], truths / 5);
      else
        ORVA::encode_grid_truth(d.boxes[i], head->_out_w, head->_out_h, classes, d.Y.vals[i]);
    });
    const float rate = train_rate(tp, iteration);
    const float loss = net->train(d);
    ++iteration;
    avg = avg < 0 ? loss : 0.9f * avg + 0.1f * loss;
    group += loss;
    ++in_group;
    if (iteration % o.report == 0 || iteration == max) {
      const double secs = std::chrono::duration<double>(clock::now() - start).count();
      const double images = (double)(net->getSeen() - seen0);
      const double per_iteration = secs / (images / rows);
      printf("%7d  loss %.4f  avg %.4f  rate %.6g  %.1f img/s  %s elapsed  %s left\n", iteration, group / in_group, avg,
             rate, images / secs, clock_text(secs).c_str(), clock_text(per_iteration * (max - iteration)).c_str());
      fflush(stdout);
      group = 0.f;
      in_group = 0;
    }
    if (iteration % o.every == 0 && checkpoint(*net, base + "_" + std::to_string(iteration) + ".weights"))
      printf("checkpoint %s_%d.weights\n", base.c_str(), iteration);
  }
  ORVA::free_data(d);
  const bool ok = checkpoint(*net, base + "_last.weights");
  printf("%s at iteration %d; weights in %s_last.weights\n", g_stop ? "stopped" : "done", iteration, base.c_str());
  return ok ? 0 : 1;
}

#ifdef ORVA_TRAIN_STANDALONE
int main(int argc, char** argv) { return cmd_train(argc, argv); }
#endif
