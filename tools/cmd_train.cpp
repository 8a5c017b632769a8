// orva train: teaches a network described by a text description from a labelled image list.
// The label list format, the truth layouts and the checkpoint rules are in docs/TRAINING.md.
#include <tbb/parallel_for.h>
#include <unistd.h>

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

#include <filesystem>

#include "cli.h"
#include "signals.h"

using namespace orvacli;

namespace {

struct TrainOptions {
  std::string cfg, list, weights;
  std::string out = ".";
  int gpu = 0;
  int max = 0;
  int every = 500;
  int report = 10;
  bool strict = false, lax_description = false;
  bool no_flip = false, no_letterbox = false;
  ORVA::ExtImageParams aug;
};

void addTrainOptions(CLI::App& app, TrainOptions& o) {
  app.add_option("description", o.cfg, "network description with a [train] section")->required();
  app.add_option("labels", o.list, "label list: <image> [<class> <x> <y> <w> <h>]... per line")->required();
  app.add_option("-w,--weights", o.weights, "weights-only file to start from (resumes its seen-count)");
  app.add_option("-o,--out", o.out, "folder for checkpoints")->capture_default_str();
  app.add_option("--gpu", o.gpu, "CUDA device; -1 trains on the host (a missing GPU falls back to it)")
      ->capture_default_str();
  app.add_option("--max", o.max, "last update (default: max_batches, else 10000)");
  app.add_option("--every", o.every, "updates between checkpoints")->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--report", o.report, "updates per progress line")->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--seed", o.aug.seed, "augmentation seed")->capture_default_str();
  app.add_flag("--strict", o.strict, "stop before training when the label list has a faulty line");
  app.add_flag("--no-strict", o.lax_description, "build a description with unknown sections, keys or activations");
  app.add_option("--jitter", o.aug.jitter, "crop edges move by up to this share of the side")->capture_default_str();
  app.add_option("--hue", o.aug.hue, "hue shift, share of the circle")->capture_default_str();
  app.add_option("--saturation", o.aug.saturation, "saturation factor range [1/s, s]")->capture_default_str();
  app.add_option("--exposure", o.aug.exposure, "brightness factor range [1/e, e]")->capture_default_str();
  app.add_flag("--no-flip", o.no_flip, "no left-right mirroring");
  app.add_flag("--no-letterbox", o.no_letterbox, "stretch instead of keeping the aspect ratio");
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
  CLI::App app("Teaches a network from a list of labelled pictures (docs/TRAINING.md).", "orva train");
  TrainOptions o;
  addTrainOptions(app, o);
  int status;
  if (parseArgs(app, argc, argv, status)) return status;
  o.aug.flip = !o.no_flip;
  o.aug.letterbox = !o.no_letterbox;

  // Where the checkpoints go is checked before anything is built: a missing folder would
  // otherwise show only when the first checkpoint is due.
  if (!std::filesystem::is_directory(o.out)) return fail("train", o.out + ": no such folder for the checkpoints");
  if (access(o.out.c_str(), W_OK) != 0) return fail("train", o.out + ": can't write checkpoints there");
  std::unique_ptr<ORVA::Network> net(new ORVA::Network(ORVA::TEST, 1, o.gpu));
  try {
    ModelOptions m;
    m.model = o.cfg;
    m.weights = o.weights;
    m.strict = !o.lax_description;
    m.description = true;
    loadNetwork(*net, m);
  } catch (const std::exception& e) {
    return fail("train", e.what());
  }
  if (net->getMode() != ORVA::TRAIN) return fail("train", o.cfg + ": no [train] section; nothing to train");
  if (net->iC != 3)
    return fail("train", o.cfg + ": training from pictures needs channels=3, not " + std::to_string(net->iC));
  // The head decides the truth layout: box records for heads that read them, else a grid
  // of (objectness, x, y, w, h, classes) planes for a convolution closed by a cost layer.
  ORVA::Layer* head = net->getOutputLayer();
  const int truths = net->getTruths();
  const bool records = head->_truths > 0;
  const int classes = records ? 0 : head->_out_c - 5;
  if (records ? truths % 5 != 0 : (classes < 1 || truths != head->_outputs))
    return fail("train", o.cfg + ": the output layer is neither a box-record head nor a grid of 5 + classes planes");
  std::vector<ORVA::LabelledImage> items;
  int faults = 0;
  if (!ORVA::read_label_list(o.list.c_str(), items, records ? 1 << 30 : classes, &faults))
    return fail("train", o.list + ": can't open the label list");
  if (faults && o.strict)
    return fail("train", o.list + ": " + std::to_string(faults) + " faulty line(s); stopped before training (--strict)");
  if (items.empty()) return fail("train", o.list + ": no usable labelled picture");
  if (faults) fprintf(stderr, "%s: %d faulty line(s) skipped, training on %zu images\n", o.list.c_str(), faults, items.size());

  const TrainParams& tp = net->getTrainParams();
  const int rows = net->getBatch() * tp.subdivisions;
  const int max = o.max > 0 ? o.max : (tp.max_batches > 0 ? tp.max_batches : 10000);
  o.aug.out_w = net->iW;
  o.aug.out_h = net->iH;
  ORVA::ExtImagePipeline pipeline(items, o.aug);
  ORVA::TData d;
  d.Y = ORVA::make_matrix(rows, truths);
  const std::string base = o.out + "/" + stem(o.cfg.c_str());

  catchStopSignals();
  using clock = std::chrono::steady_clock;
  const clock::time_point start = clock::now();
  const size_t seen0 = net->getSeen();
  int iteration = (int)(seen0 / rows);
  float avg = -1.f, group = 0.f;
  int in_group = 0;
  printf("training %s on %zu images, %d samples per update, from iteration %d to %d\n", o.cfg.c_str(), items.size(), rows,
         iteration, max);
  while (iteration < max && !stopSignal()) {
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
  printf("%s at iteration %d; weights in %s_last.weights\n", stopSignal() ? "stopped" : "done", iteration, base.c_str());
  if (stopSignal()) return stopStatus();
  return ok ? kOk : kFailed;
}
