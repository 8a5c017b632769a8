#include "layer/resample_layer.h"

#include "layer/layer_util.h"

namespace ORVA {

void ResampleLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  _stride = cfg.findInt(params.nsect, "stride", 2, true);
  Layer::parseConfig(cfg, params);
  _check(false);
  _makeLayer(params.quant, params.fast);
}

int ResampleLayer::loadConfig(FILE* fp, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  Layer::loadConfig(fp, params);
  chk_fread(&_stride, 4, 1, fp);
  _check(true);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int ResampleLayer::saveConfig(FILE* fp) {
  Layer::saveConfig(fp);
  chk_fwrite(&_stride, 4, 1, fp);
  return 0;
}

void ResampleLayer::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _check(false);
  _makeLayer(params.quant, params.fast);
}

}  // namespace ORVA
