// orva convert: one model file from a description and weights, from the darknet dialect, from
// a face-api weight manifest, from a TF.js graph model or from an ONNX model.
#include <filesystem>
#include <fstream>

#include "cli.h"
#include "darknet.h"
#include "faceapi.h"
#include "model_build.h"
#include "onnx.h"
#include "output_file.h"
#include "tfjs.h"

using namespace orvacli;
namespace fs = std::filesystem;

int cmd_convert(int argc, char** argv) {
  CLI::App app("Writes one model file (and its .names file when classes are named).", "orva convert");
  std::string cfg, darknet, faceapi, tfjs, onnx_model, weights, out, names;
  int input_size = 418;
  float input_scale = 255;
  bool random = false, strict = true;
  auto* g = app.add_option_group("source", "exactly one of");
  g->add_option("--cfg", cfg, "engine network description (with --weights)");
  g->add_option("--darknet", darknet, "network description in the darknet dialect (with --weights)");
  g->add_option("--faceapi", faceapi, "face-api weights manifest of the tiny face detector");
  g->add_option("--tfjs", tfjs, "TF.js graph model (model.json, weight files beside it)");
  g->add_option("--onnx", onnx_model, "ONNX model (.onnx, external data beside it)");
  g->require_option(1);
  app.add_option("-w,--weights", weights, "weights file of --cfg or --darknet");
  app.add_flag("--random-weights", random, "--cfg without --weights: store fresh random weights");
  app.add_flag("--strict,!--no-strict", strict, "--cfg: refuse unknown sections, keys and activations (default)");
  auto* size_opt = app.add_option("--input-size", input_size,
                                  "--faceapi: square input in pixels, 32 n + 2; --tfjs: for a graph without a fixed size")
                       ->capture_default_str();
  app.add_option("--input-scale", input_scale, "--tfjs: the value of a white pixel in the graph's input")
      ->capture_default_str();
  app.add_option("--names", names, "class names to store beside the model, one a line");
  app.add_option("-o,--output", out, "model file to write")->required();
  int status;
  if (parseArgs(app, argc, argv, status)) return status;

  try {
    if (!names.empty() && !fs::is_regular_file(names)) return fail("convert", names + ": no such file");
    checkOutputFolder(out);
    ConvertedModel m;
    if (!onnx_model.empty()) {
      m = onnxToEngine(onnx_model);
    } else if (!tfjs.empty()) {
      TfjsOptions t;
      t.input_scale = input_scale;
      t.input_size = size_opt->count() ? input_size : 0;
      m = tfjsToEngine(tfjs, t);
    } else if (!faceapi.empty()) {
      m = tinyFaceDetector(readWeightsManifest(faceapi), input_size, faceapi);
    } else if (!darknet.empty()) {
      if (weights.empty()) return fail("convert", "--darknet needs --weights");
      std::ifstream f(weights, std::ios::binary);
      if (!f) return fail("convert", weights + ": can't open");
      const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
      m = darknetToEngine(readDarknetCfg(darknet), darknet, &bytes, weights);
    } else {
      // Already the engine's dialect: build it and save.
      if (weights.empty() && !random)
        return fail("convert", cfg + ": no --weights; the model would hold random weights (--random-weights "
                                     "if that is what you want)");
      ModelOptions o;
      o.model = cfg;
      o.weights = weights;
      o.gpu = -1;
      o.strict = strict;
      ORVA::Network net(ORVA::TEST, 1, -1);
      loadNetwork(net, o);
      writeThroughPart(out, [&](const std::string& part) { net.save(part.c_str(), true); });
      if (!names.empty())
        writeThroughPart(namesPath(out), [&](const std::string& part) {
          fs::copy_file(names, part, fs::copy_options::overwrite_existing);
        });
      std::cerr << "wrote " << out << " (" << net.getLayerCount() << " layers)\n";
      return kOk;
    }
    if (!names.empty()) m.names = readNames(names);
    std::vector<std::string> class_names;
    std::swap(class_names, m.names);
    writeThroughPart(out, [&](const std::string& part) { writeModel(m, part); });
    if (!class_names.empty())
      writeThroughPart(namesPath(out), [&](const std::string& part) {
        std::ofstream f(part);
        for (const std::string& n : class_names) f << n << "\n";
        f.close();
        if (!f) throw std::runtime_error("can't write");
      });
    std::cerr << "wrote " << out << " (" << m.shapes.size() << " layers";
    if (!class_names.empty()) std::cerr << ", classes in " << namesPath(out);
    std::cerr << ")\n";
  } catch (const std::exception& e) {
    return fail("convert", e.what());
  }
  return kOk;
}
