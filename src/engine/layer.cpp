#include "orva/layer.h"

#include <cstring>

#include "orva/conv.h"
#include "layer/activation_layer.h"
#include "layer/attention_layer.h"
#include "layer/avgpool_layer.h"
#include "layer/batchnorm_layer.h"
#include "layer/centernet_layer.h"
#include "layer/convolution_layer.h"
#include "layer/cost_layer.h"
#include "layer/detobj_layer.h"
#include "layer/dropout_layer.h"
#include "layer/dynactivation_layer.h"
#include "layer/fullconnect_layer.h"
#include "layer/heatmap_layer.h"
#include "layer/maxpool_layer.h"
#include "layer/qregion_layer.h"
#include "layer/region_layer.h"
#include "layer/reorg_layer.h"
#include "layer/resize_layer.h"
#include "layer/route_layer.h"
#include "layer/scalemap_layer.h"
#include "layer/shortcut_layer.h"
#include "layer/siammerge_layer.h"
#include "layer/softmax_layer.h"
#include "layer/upsizenn_layer.h"
#include "layer/upsizesp_layer.h"
#include "layer/yolo_layer.h"
#include "orva/cuda.h"
#include "orva/orva.h"
#include "orva/util.h"

namespace ORVA {

Layer::Layer(int mode, void* handle) : mode(mode), _gpu_handle(handle) {}

Layer::~Layer() { Layer::_freeLayer(); }

void Layer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _iqthresh_init = cfg.findFloat(params.nsect, "quant_thresh", 0, true);
  _totruth = cfg.findInt(params.nsect, "totruth", 0, true);
  _learning_rate_scale = cfg.findFloat(params.nsect, "learning_rate_scale", 1, true);
  _smooth = cfg.findFloat(params.nsect, "smooth", 0, true);
}

int Layer::loadConfig(FILE* fp, InputParams& params) {
  // Models before format 3.0 carry no threshold.
  if (params.net && params.net->version >= 0x30000) chk_fread(&_iqthresh_init, 4, 1, fp);
  return 0;
}

int Layer::saveConfig(FILE* fp) {
  chk_fwrite(&_iqthresh_init, 4, 1, fp);
  return 0;
}

void Layer::_freeLayer() {
  Ftype** tensors[] = {&_weight, &_bias, &_output, &_weight_update, &_bias_update, &_delta};
  for (Ftype** t : tensors) {
    if (*t) cuda_free(_gpu_handle, *t);
    *t = nullptr;
  }
  if (_qweight) cuda_free(_gpu_handle, _qweight);
  _qweight = nullptr;
}

// One line per layer type. A null factory marks a type whose class is not part of the
// library yet: the builder reports its sections as unknown.
namespace {
typedef Layer* (*LayerFactory)(int mode, void* handle);
template <typename T>
Layer* make_layer(int mode, void* handle) {
  return new T(mode, handle);
}
struct RegistryEntry {
  const char* name;
  int id;
  LayerFactory factory;
};
const RegistryEntry kRegistry[] = {
    {"convolution", LAYER_CONVOLUTION, make_layer<ConvolutionLayer>},
    {"fconn", LAYER_FCONN, make_layer<FullconnectLayer>},
    {"maxpool", LAYER_MAXPOOL, make_layer<MaxpoolLayer>},
    {"softmax", LAYER_SOFTMAX, make_layer<SoftmaxLayer>},
    {"dropout", LAYER_DROPOUT, make_layer<DropoutLayer>},
    {"route", LAYER_ROUTE, make_layer<RouteLayer>},
    {"cost", LAYER_COST, make_layer<CostLayer>},
    {"avgpool", LAYER_AVGPOOL, make_layer<AvgpoolLayer>},
    {"shortcut", LAYER_SHORTCUT, make_layer<ShortcutLayer>},
    {"activation", LAYER_ACTIVATION, make_layer<ActivationLayer>},
    {"batchnorm", LAYER_BATCHNORM, make_layer<BatchnormLayer>},
    {"region", LAYER_REGION, make_layer<RegionLayer>},
    {"reorg", LAYER_REORG, make_layer<ReorgLayer>},
    {"upsample", LAYER_UPSAMPLE, make_layer<UpsizennLayer>},
    {"spresize", LAYER_SPRESIZE, make_layer<UpsizespLayer>},
    {"scalemap", LAYER_SCALEMAP, make_layer<ScalemapLayer>},
    {"attention", LAYER_ATTENTION, make_layer<AttentionLayer>},
    {"dynact", LAYER_DYNACT, make_layer<DynActivationLayer>},
    {"smerge", LAYER_SMERGE, make_layer<SiamMergeLayer>},
    {"qregion", LAYER_QREGION, make_layer<QRegionLayer>},
    {"heatmap", LAYER_HEATMAP, make_layer<HeatmapLayer>},
    {"detobj", LAYER_DETOBJ, make_layer<DetobjLayer>},
    {"yolo", LAYER_YOLO, make_layer<YoloLayer>},
    {"resize", LAYER_RESIZE, make_layer<ResizeLayer>},
    {"centernet", LAYER_CENTERNET, make_layer<CenternetLayer>},
    // Stored ids of [maxpool] with centred=1 and of [route] with groups > 1.
    {"cmaxpool", LAYER_CMAXPOOL, make_layer<MaxpoolLayer>},
    {"groute", LAYER_GROUTE, make_layer<RouteLayer>},
};
}  // namespace

int LayerType::type(const char* str) {
  if (!str) return -1;
  for (const RegistryEntry& e : kRegistry)
    if (strcmp(e.name, str) == 0) return e.id;
  return -1;
}

const char* LayerType::name(int type) {
  for (const RegistryEntry& e : kRegistry)
    if (e.id == type) return e.name;
  return "?";
}

Layer* LayerType::create(const char* str, int mode, Layer* prev_l, void* handle) {
  if (!str) return nullptr;
  if (strcmp(str, "network") == 0 || strcmp(str, "train") == 0) return nullptr;
  Layer* l = create(type(str), mode, prev_l, handle);
  if (!l) printf(">>> Unkown Layer: %s\n", str);
  return l;
}

Layer* LayerType::create(int type, int mode, Layer* prev_l, void* handle) {
  for (const RegistryEntry& e : kRegistry) {
    if (e.id != type) continue;
    if (!e.factory) return nullptr;
    Layer* l = e.factory(mode, handle);
    l->type = type;
    return l;
  }
  return nullptr;
}

}  // namespace ORVA
