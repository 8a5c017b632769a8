#include "cli.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

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
  app.add_flag_callback("-v,--verbose", [] { ORVA::setMsgLevel(INFO); }, "the engine's messages and layer lines");
}

namespace {

// Holds back what the engine writes to stdout while it lives, then passes it to stderr,
// less the checksum line a model file's load always prints.
struct EngineStdout {
  FILE* held = tmpfile();
  int saved = -1;
  EngineStdout() {
    if (!held) return;
    fflush(stdout);
    saved = dup(1);
    dup2(fileno(held), 1);
  }
  ~EngineStdout() {
    if (!held) return;
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    rewind(held);
    char line[1024];
    while (fgets(line, sizeof line, held))
      if (strncmp(line, "CHECKSUM: ", 10) != 0 || ORVA::_msg_level <= INFO) fputs(line, stderr);
    fclose(held);
  }
};

}  // namespace

void loadNetwork(ORVA::Network& net, const ModelOptions& o) {
  namespace fs = std::filesystem;
  if (!fs::is_regular_file(o.model)) throw std::runtime_error(o.model + ": no such file");
  const bool description = !o.weights.empty() || fs::path(o.model).extension() == ".cfg";
  EngineStdout held;
  try {
    if (description) {
      if (!o.weights.empty() && !fs::is_regular_file(o.weights))
        throw std::runtime_error(o.weights + ": no such file");
      if (net.load(o.model.c_str(), o.weights.empty() ? nullptr : o.weights.c_str(), o.quant, false) != 0)
        throw std::runtime_error(o.model + ": the description has no [network] section");
    } else {
      net.load(o.model.c_str(), o.quant, false);
    }
  } catch (const ORVA::FatalError& e) {
    throw std::runtime_error(o.model + ": " + e.what());
  } catch (const std::runtime_error& e) {
    const std::string what = e.what();
    const auto starts = [&](const std::string& p) { return !p.empty() && what.compare(0, p.size(), p) == 0; };
    if (starts(o.model) || starts(o.weights)) throw;
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
      "spresize",    "scalemap", "attention", "dynact", "smerge",  "qregion", "heatmap", "detobj"};
  if (type == ORVA::LAYER_RESIZE) return "resize";
  if (type == ORVA::LAYER_CENTERNET) return "centernet";
  return type >= 0 && type < (int)(sizeof kNames / sizeof *kNames) ? kNames[type] : "?";
}

}  // namespace orvacli
