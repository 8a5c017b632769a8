// orva info: what a model is made of.
#include <cstdio>

#include "cli.h"
#include "orva/networks.h"

using namespace orvacli;

namespace {

size_t layerParams(const ORVA::Layer* l) {
  // Convolutions and fully connected layers hold one bias per output channel besides weights.
  const bool biased = l->type == ORVA::LAYER_CONVOLUTION || l->type == ORVA::LAYER_FCONN;
  return (size_t)l->_weights + (biased ? (size_t)l->_out_c : 0);
}

}  // namespace

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
    const ORVA::Layer* l = net.getLayer(i);
    const size_t p = layerParams(l);
    params += p;
    flops += l->_flops;
    printf("%3d  %-11s %4d x%4d x%5d  %10zu  %9.1f\n", i, layerTypeName(l->type), l->_out_w, l->_out_h, l->_out_c, p,
           l->_flops * 1e-6);
  }
  printf("\nparams   %zu\n", params);
  printf("GFLOPs   %.3f per frame\n", flops * 1e-9);
  const ORVA::Layer* top = net.getOutputLayer();
  printf("output   %d x %d x %d (%s)\n", net.oW, net.oH, net.oC, layerTypeName(top->type));
  // Classes: a detection head knows its count; a classifier has one output per class.
  int classes = 0;
  if (top->type == ORVA::LAYER_REGION || top->type == ORVA::LAYER_QREGION || top->type == ORVA::LAYER_DETOBJ ||
      top->type == ORVA::LAYER_CENTERNET) {
    ORVA::DetectNetwork det(ORVA::TEST, 1, o.gpu);
    loadNetwork(det, o);
    classes = det.getClassNum();
  } else if (top->type == ORVA::LAYER_SOFTMAX) {
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
