// orva classify: the best classes of each picture, as JSON lines and summary lines.
#include <algorithm>
#include <cmath>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "cli.h"
#include "signals.h"
#include "orva/networks.h"

namespace fs = std::filesystem;
using namespace orvacli;

int cmd_classify(int argc, char** argv) {
  CLI::App app("Names the best classes of pictures: one JSON line (source, classes with scores) and one summary "
               "line per picture.",
               "orva classify");
  ModelOptions o;
  addModelOptions(app, o);
  std::vector<std::string> inputs;
  int best = 5;
  float thresh = 0.f;
  app.add_option("pictures", inputs, "image files or folders of images")->required();
  app.add_option("-k,--top", best, "classes reported per picture")->capture_default_str()->check(CLI::Range(1, 1000));
  app.add_option("-t,--thresh", thresh, "lowest score reported")->capture_default_str();
  int status;
  if (parseArgs(app, argc, argv, status)) return status;

  std::vector<fs::path> pictures;
  for (const std::string& a : inputs) {
    if (fs::is_directory(a)) {
      std::vector<fs::path> found;
      for (const auto& e : fs::directory_iterator(a))
        if (e.is_regular_file()) found.push_back(e.path());
      std::sort(found.begin(), found.end());
      pictures.insert(pictures.end(), found.begin(), found.end());
    } else if (fs::is_regular_file(a)) {
      pictures.push_back(a);
    } else {
      return fail("classify", a + ": no such file");
    }
  }

  ORVA::ClassifyNetwork net(ORVA::TEST, o.batch, o.gpu);
  try {
    loadNetwork(net, o);
  } catch (const std::exception& e) {
    return fail("classify", e.what());
  }
  const int top = net.getOutputLayer()->type;
  if (top == ORVA::LAYER_REGION || top == ORVA::LAYER_QREGION || top == ORVA::LAYER_DETOBJ ||
      top == ORVA::LAYER_HEATMAP)
    return fail("classify", o.model + ": a detector (its output layer is " + layerTypeName(top) +
                                "), not a classifier; try orva detect");
  if (net.iC != 3 && net.iC != 1) return fail("classify", o.model + ": takes " + std::to_string(net.iC) + " channels, not a picture");
  const std::vector<std::string> names = classNames(o, net.getClassNum());
  const int batch = net.getBatch();
  std::vector<cv::Mat> frames;
  std::vector<fs::path> batch_paths;
  std::vector<ORVA::ClassIdList> lists(batch);
  int failures = 0;

  auto run = [&]() {
    if (frames.empty()) return;
    net.classify(lists.data(), frames.data(), thresh, best, (int)frames.size());
    for (size_t k = 0; k < frames.size(); ++k) {
      nlohmann::ordered_json line = {{"source", batch_paths[k].string()}};
      nlohmann::ordered_json arr = nlohmann::ordered_json::array();
      std::string summary;
      for (const ORVA::ClassId& c : lists[k]) {
        arr.push_back(nlohmann::ordered_json{{"class", names[c.id]}, {"class_id", c.id},
                                             {"score", std::round(c.prob * 1e4) / 1e4}});
        char b[160];
        snprintf(b, sizeof b, "%s%s %.2f", summary.empty() ? "" : ", ", names[c.id].c_str(), c.prob);
        summary += b;
      }
      line["classes"] = arr;
      printf("%s\n", line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
      fprintf(stderr, "%s: %s\n", batch_paths[k].filename().c_str(), summary.empty() ? "no class" : summary.c_str());
    }
    fflush(stdout);
    frames.clear();
    batch_paths.clear();
  };

  catchStopSignals();
  for (const fs::path& p : pictures) {
    if (stopSignal()) break;
    cv::Mat img = cv::imread(p.string(), net.iC == 1 ? cv::IMREAD_GRAYSCALE : cv::IMREAD_COLOR);
    if (img.empty()) {
      fail("classify", p.string() + ": can't read as an image");
      ++failures;
      continue;
    }
    cv::Mat in;
    cv::resize(img, in, cv::Size(net.iW, net.iH), 0, 0, cv::INTER_AREA);
    frames.push_back(in);
    batch_paths.push_back(p);
    if ((int)frames.size() == batch) run();
  }
  run();
  if (fflush(stdout) != 0 || ferror(stdout)) return fail("classify", std::string("stdout: can't write (") + strerror(errno) + ")");
  if (stopSignal()) return stopStatus();
  return failures ? kFailed : kOk;
}
