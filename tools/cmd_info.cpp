// orva info: what a model is made of.
#include <cstdio>

#include "cli.h"
#include "orva/networks.h"

using namespace orvacli;

int cmd_info(int argc, char** argv) {
  CLI::App app("Prints the layer table, parameters, operations, input size and classes.", "orva info");
  ModelOptions o;
  addModelOptions(app, o);
  int status;
  if (parseArgs(app, argc, argv, status)) return status;

  ORVA::Network net(ORVA::TEST, o.batch, o.gpu);
  try {
    loadNetwork(net, o);
  } catch (const std::exception& e) {
    return fail("info", e.what());
  }
  printf("model    %s %s\n", o.model.c_str(), net.getVersion());
  printf("input    %d x %d x %d\n", net.iW, net.iH, net.iC);
  printf("\n  #  layer        output              params     MFLOPs\n");
  size_t params = 0, flops = 0;
  for (int i = 0; i < net.getLayerCount(); ++i) {
    const ORVA::LayerInfo l = net.layerInfo(i);
    params += l.params;
    flops += l.flops;
    printf("%3d  %-11s %4d x%4d x%5d  %10zu  %9.1f\n", i, l.name, l.out_w, l.out_h, l.out_c, l.params, l.flops * 1e-6);
  }
  printf("\nparams   %zu\n", params);
  printf("GFLOPs   %.3f per frame\n", flops * 1e-9);
  const ORVA::LayerInfo top = net.layerInfo(-1);
  printf("output   %d x %d x %d (%s)\n", net.oW, net.oH, net.oC, top.name);
  // Classes: a detection head knows its count; a classifier has one output per class.
  int classes = 0;
  if (top.type == ORVA::LAYER_REGION || top.type == ORVA::LAYER_QREGION || top.type == ORVA::LAYER_DETOBJ ||
      top.type == ORVA::LAYER_CENTERNET || top.type == ORVA::LAYER_YOLO) {
    ORVA::DetectNetwork det(ORVA::TEST, 1, o.gpu);
    loadNetwork(det, o);
    classes = det.getClassNum();
  } else if (top.type == ORVA::LAYER_SOFTMAX) {
    classes = net.getOutputs();
  }
  const std::vector<std::string> names = classNames(o, classes);
  if (!names.empty()) {
    printf("classes  %zu:", names.size());
    for (const auto& n : names) printf(" %s", n.c_str());
    printf("\n");
  }
  return kOk;
}
