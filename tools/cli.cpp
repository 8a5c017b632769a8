#include "cli.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <opencv2/core/utils/logger.hpp>

#include "cfg_check.h"
#include "model_build.h"

namespace orvacli {

bool parseArgs(CLI::App& app, int argc, char** argv, int& status) {
  try {
    app.parse(argc, argv);  // argv[0], the command name, is skipped
    return false;
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    status = kOk;
  } catch (const CLI::ParseError& e) {
    std::cerr << app.get_name() << ": " << e.what() << "\n(try " << app.get_name() << " --help)\n";
    status = kUsage;
  }
  return true;
}

int fail(const std::string& command, const std::string& what) {
  std::cerr << "orva " << command << ": " << what << "\n";
  return kFailed;
}

void addModelOptions(CLI::App& app, ModelOptions& o) {
  app.add_option("-m,--model", o.model, "model file (.orva), or a network description (.cfg)")->required();
  app.add_option("-w,--weights", o.weights, "weights-only file for a description");
  app.add_option("--names", o.names, "class names, one a line (default: the model's .names file)");
  app.add_option("--gpu", o.gpu, "CUDA device; -1 runs on the host (a missing GPU falls back to it)")
      ->capture_default_str();
  app.add_option("-b,--batch", o.batch, "frames per pass")->capture_default_str()->check(CLI::Range(1, 64));
  app.add_flag("--int8", o.quant, "use the layers' 8-bit paths");
  app.add_flag("--strict,!--no-strict", o.strict,
               "refuse a description with an unknown section, key or activation, or anchors that don't match num "
               "(default; --no-strict builds what the engine accepts)");
  app.add_flag_callback("-v,--verbose", [] {
    ORVA::setMsgLevel(INFO);
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_WARNING);
  }, "the engine's and OpenCV's own messages, and the layer lines");
}

bool verbose() { return ORVA::_msg_level <= INFO; }

namespace {

// Holds back what the engine writes to stdout and stderr while it lives (the checksum line,
// unknown sections, default values, its error lines); with -v it is passed to stderr.
struct EngineOutput {
  struct Held {
    int fd;
    FILE* file = tmpfile();
    int saved = -1;
  } held[2] = {{1}, {2}};
  EngineOutput() {
    fflush(stdout);
    fflush(stderr);
    for (Held& h : held)
      if (h.file) {
        h.saved = dup(h.fd);
        dup2(fileno(h.file), h.fd);
      }
  }
  ~EngineOutput() {
    fflush(stdout);
    fflush(stderr);
    for (Held& h : held) {
      if (!h.file) continue;
      dup2(h.saved, h.fd);
      close(h.saved);
    }
    for (Held& h : held) {
      if (!h.file) continue;
      rewind(h.file);
      char line[1024];
      while (fgets(line, sizeof line, h.file))
        if (verbose()) fputs(line, stderr);
      fclose(h.file);
    }
  }
};

bool startsWith(const std::string& text, const std::string& prefix) {
  return !prefix.empty() && text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

void loadNetwork(ORVA::Network& net, const ModelOptions& o) {
  namespace fs = std::filesystem;
  if (!fs::is_regular_file(o.model)) throw std::runtime_error(o.model + ": no such file");
  if (!o.names.empty() && !fs::is_regular_file(o.names)) throw std::runtime_error(o.names + ": no such file");
  const bool description = o.description || !o.weights.empty() || fs::path(o.model).extension() == ".cfg";
  if (description && !o.weights.empty()) {
    std::error_code ec;
    if (!fs::is_regular_file(o.weights)) throw std::runtime_error(o.weights + ": no such file");
    if (fs::file_size(o.weights, ec) == 0) throw std::runtime_error(o.weights + ": empty weights file");
    char magic[8] = {};
    std::ifstream(o.weights, std::ios::binary).read(magic, sizeof magic);
    if (std::string(magic, 8) == "ORVA    ")
      throw std::runtime_error(o.weights + ": a model file, not a weights-only file; give it with -m alone");
  }
  if (description && o.strict) checkDescription(o.model);
  EngineOutput held;
  // The file a short read belongs to: the weights once the description has been read.
  const std::string& read_last = description && !o.weights.empty() ? o.weights : o.model;
  try {
    if (description) {
      if (net.load(o.model.c_str(), o.weights.empty() ? nullptr : o.weights.c_str(), o.quant, false) != 0)
        throw std::runtime_error(o.model + ": the description has no [network] section");
    } else {
      net.load(o.model.c_str(), o.quant, false);
    }
  } catch (size_t) {
    throw std::runtime_error(read_last + ": ends early; it does not hold the weights " +
                             (description ? "this description needs" : "its layers describe"));
  } catch (const ORVA::FatalError& e) {
    throw std::runtime_error(o.model + ": " + e.what());
  } catch (const std::runtime_error& e) {
    const std::string what = e.what();
    if (startsWith(what, o.model) || startsWith(what, o.weights)) throw;
    if (what.find("no layers") != std::string::npos)
      throw std::runtime_error(o.model + ": no section the engine knows, so no layers (sections it skips are "
                                         "shown with -v)");
    throw std::runtime_error(o.model + ": " + what);
  }
  if (net.getLayerCount() == 0) throw std::runtime_error(o.model + ": the network has no layers");
}

std::vector<std::string> classNames(const ModelOptions& o, int count) {
  std::vector<std::string> names = readNames(o.names.empty() ? namesPath(o.model) : o.names);
  for (int i = (int)names.size(); i < count; ++i) names.push_back(std::to_string(i));
  return names;
}

const char* layerTypeName(int type) {
  static const char* const kNames[] = {
      "convolution", "?",        "fconn",   "maxpool",  "softmax", "?",       "dropout", "?",
      "route",       "cost",     "?",       "avgpool",  "?",       "shortcut", "activation", "?",
      "?",           "?",        "?",       "batchnorm", "?",      "region",  "reorg",   "upsample",
      "spresize",    "scalemap", "attention", "dynact", "smerge",  "qregion", "heatmap", "detobj",
      "yolo",        "resize",   "centernet",       "cmaxpool", "groute"};
  return type >= 0 && type < (int)(sizeof kNames / sizeof *kNames) ? kNames[type] : "?";
}

}  // namespace orvacli
