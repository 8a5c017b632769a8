// orva run: a network on a raw input tensor (.npy), its output tensor back as .npy, so a
// model can be checked against another runtime without pictures.
#include <algorithm>
#include <fstream>

#include "cli.h"
#include "npy.h"
#include "orva/cuda.h"
#include "orva/float16.h"
#include "orva/layer.h"
#include "output_file.h"

using namespace orvacli;

int cmd_run(int argc, char** argv) {
  CLI::App app("Runs a network on a float32 .npy tensor (N first, then the input's C x H x W values) and writes "
               "the output layer's tensor (N x C x H x W). -b defaults to N.",
               "orva run");
  ModelOptions o;
  addModelOptions(app, o);
  std::string input, output;
  int layer = -1;
  app.add_option("--input", input, "float32 .npy: the batch N first, the rest holding C x H x W values")->required();
  app.add_option("-o,--output", output, "output .npy (default: print the values, one sample a line)");
  app.add_option("--layer", layer, "write this layer's output instead of the network's (0 is the first layer)");
  int status;
  if (parseArgs(app, argc, argv, status)) return status;
  const bool batch_given = app.get_option("--batch")->count() > 0;

  try {
    if (!output.empty()) checkOutputFolder(output);
    const NpyArray in = readNpy(input);
    if (in.shape.empty() || in.shape[0] < 1) return fail("run", input + ": no batch axis, or an empty batch");
    const int64_t n = in.shape[0];
    if (!batch_given) {
      if (n > 64) return fail("run", input + ": " + std::to_string(n) + " samples; give -b (at most 64) to run them in parts");
      o.batch = (int)n;
    }
    ORVA::Network net(ORVA::TEST, o.batch, o.gpu);
    loadNetwork(net, o);
    const size_t per = (size_t)net.iW * net.iH * net.iC;
    if (in.values.size() != (size_t)n * per)
      return fail("run", input + ": " + std::to_string(in.values.size() / n) + " values per sample; " + o.model +
                             " takes " + std::to_string(net.iC) + " x " + std::to_string(net.iH) + " x " +
                             std::to_string(net.iW) + " = " + std::to_string(per));
    if (layer >= net.getLayerCount() || layer < -1)
      return fail("run", "--layer " + std::to_string(layer) + ": " + o.model + " has layers 0.." +
                             std::to_string(net.getLayerCount() - 1));
    ORVA::Layer* l = net.getLayer(layer);
    const ORVA::LayerInfo info = net.layerInfo(layer);
    const size_t outs = (size_t)info.out_w * info.out_h * info.out_c;
    NpyArray out;
    out.shape = {n, info.out_c, info.out_h, info.out_w};
    out.values.resize((size_t)n * outs);
    std::vector<float> sample(in.values.begin(), in.values.end());
    std::vector<Ftype> halves;
    for (int64_t b0 = 0; b0 < n; b0 += o.batch) {
      const int b = (int)std::min<int64_t>(o.batch, n - b0);
      const float* y = net.predict(sample.data() + b0 * per, b);
      float* dst = out.values.data() + b0 * outs;
      if (layer < 0) {
        std::copy(y, y + (size_t)b * outs, dst);
      } else {
        halves.resize((size_t)b * outs);
        cuda_pull(net.getHandle(), halves.data(), l->_output, halves.size() * sizeof(Ftype));
        half2float_cpu(dst, halves.data(), halves.size());
      }
    }
    if (output.empty()) {
      for (int64_t i = 0; i < n; ++i) {
        for (size_t j = 0; j < outs; ++j) printf(j ? " %g" : "%g", out.values[i * outs + j]);
        printf("\n");
      }
      return kOk;
    }
    const std::string bytes = npyBytes(out);
    writeThroughPart(output, [&](const std::string& part) {
      std::ofstream f(part, std::ios::binary);
      f.write(bytes.data(), (std::streamsize)bytes.size());
      f.close();
      if (!f) throw std::runtime_error("can't write");
    });
  } catch (const std::exception& e) {
    return fail("run", e.what());
  }
  return kOk;
}
