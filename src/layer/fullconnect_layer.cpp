#include "layer/fullconnect_layer.h"

#include "layer/layer_util.h"

namespace ORVA {

void FullconnectLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _in_h = _in_w = 1;
  _in_c = params.inputs;
  _batch = params.batch;
  if (params.inputs == 0) ORVA_FATAL("Layer before fullconnect layer must output image.");
  const int ns = params.nsect;
  _outputs = cfg.findInt(ns, "output", 1);
  _acttype = ActivationType::type(cfg.findStr(ns, "activation", nullptr, true));
  _withbn = cfg.findInt(ns, "batch_normalize", 0, true) ? 1 : 0;
  Layer::parseConfig(cfg, params);
  _kn = _outputs;
  const std::string fault = _checkConfig();
  if (!fault.empty()) ORVA_FATAL("fconn: output %d over inputs %d: %s", _outputs, _in_c, fault.c_str());
  _makeLayer(params.quant, params.fast);
}

int FullconnectLayer::loadConfig(FILE* fp, InputParams& params) {
  params.h = params.w = 1;
  params.c = params.inputs;
  _in_h = _in_w = 1;
  _in_c = params.inputs;
  _batch = params.batch;
  int record[3];
  chk_fread(record, 4, 3, fp);
  _outputs = record[0];
  _acttype = record[1];
  _withbn = record[2] ? 1 : 0;
  Layer::loadConfig(fp, params);
  _kn = _outputs;
  if (_acttype != -1 && !activation_known(_acttype)) LAYER_FAULT(true, "fconn: activation id %d is unknown", _acttype);
  const std::string fault = _checkConfig();
  if (!fault.empty()) LAYER_FAULT(true, "fconn: output %d over inputs %d: %s", _outputs, _in_c, fault.c_str());
  _makeLayer(params.quant, params.fast);
  return 0;
}

int FullconnectLayer::saveConfig(FILE* fp) {
  const int record[3] = {_outputs, _acttype, _withbn};
  chk_fwrite(record, 4, 3, fp);
  return Layer::saveConfig(fp);
}

void FullconnectLayer::resize(InputParams& params) { ORVA_FATAL("Fullconnect layer can not be resized."); }

void FullconnectLayer::_makeLayer(bool quant, bool fast) {
  // The convolution's own summary line is silenced; this layer prints its own.
  const int level = _msg_level;
  _msg_level = ALERT;
  _in_h = _in_w = 1;
  _kn = _outputs;
  _size = _stride = 1;
  _pad = 0;
  _groups = 1;
  _dilation = 1;
  ConvolutionLayer::_makeLayer(quant, fast);
  _msg_level = level;
  ORVA_MSG(INFO, "fconn                               %4d   ->  %4d              %6.1fM\n", _inputs, _outputs,
           _flops * 1e-6);
}

}  // namespace ORVA
