#include "layer/siammerge_layer.h"

#include <cstring>

#include "layer/layer_util.h"
#include "orva/blas.h"
#include "orva/orva.h"

namespace ORVA {

namespace {
const char* const kMergeNames[] = {"concat", "add", "sub"};
}

void SiamMergeLayer::_shape(bool from_file, const InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _inputs = params.inputs;
  if (_merge < CONCAT || _merge > SUB) LAYER_FAULT(from_file, "smerge: merge %d is unknown", _merge);
  if (_siamese < 1 || params.batch % _siamese)
    LAYER_FAULT(from_file, "smerge: siamese %d does not divide the batch %d", _siamese, params.batch);
  if (_merge == SUB && _siamese != 2) LAYER_FAULT(from_file, "smerge: merge sub needs siamese 2, not %d", _siamese);
  if (!layer_size_ok(params.batch, _inputs))
    LAYER_FAULT(from_file, "smerge: inputs %d, batch %d out of range", _inputs, params.batch);
  _batch = params.batch / _siamese;
}

void SiamMergeLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  const char* merge = cfg.findStr(params.nsect, "merge", "concat", true);
  _merge = -1;
  for (int m = CONCAT; m <= SUB; ++m)
    if (strcmp(merge, kMergeNames[m]) == 0) _merge = m;
  if (_merge < 0) ORVA_FATAL("smerge: merge %s is not concat, add or sub", merge);
  _siamese = params.net ? params.net->getSiamese() : 1;
  _shape(false, params);
  Layer::parseConfig(cfg, params);
  _makeLayer(params.quant, params.fast);
}

int SiamMergeLayer::loadConfig(FILE* fp, InputParams& params) {
  Layer::loadConfig(fp, params);
  int record[2];
  chk_fread(record, 4, 2, fp);
  _merge = record[0];
  _siamese = record[1];
  _shape(true, params);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int SiamMergeLayer::saveConfig(FILE* fp) {
  Layer::saveConfig(fp);
  const int record[2] = {_merge, _siamese};
  chk_fwrite(record, 4, 2, fp);
  return 0;
}

void SiamMergeLayer::resize(InputParams& params) {
  _shape(false, params);
  _makeLayer(params.quant, params.fast);
}

void SiamMergeLayer::_makeLayer(bool quant, bool fast) {
  _out_h = _in_h;
  _out_w = _in_w;
  _out_c = _merge == CONCAT ? _in_c * _siamese : _in_c;
  _outputs = _merge == CONCAT ? _inputs * _siamese : _inputs;
  layer_make_output(this);
  ORVA_MSG(INFO, "smerge %-6s x%d        %4d x%4d x%4d   ->  %4d x%4d x%4d\n", kMergeNames[_merge], _siamese, _in_w,
           _in_h, _in_c, _out_w, _out_h, _out_c);
}

void SiamMergeLayer::forward(NetworkParams& params) {
  const int items = std::min(params.batch / _siamese, _batch);
  if (items < 1) return;
  if (_merge == CONCAT) {
    // The copies of an item already lie one after the other: the stacked tensor is the same bytes.
    blas_copy(_gpu_handle, items * _outputs, params.input, _output);
    return;
  }
  for (int i = 0; i < items; ++i) {
    Ftype* out = _output + (size_t)i * _outputs;
    Ftype* in = params.input + (size_t)i * _siamese * _inputs;
    blas_copy(_gpu_handle, _inputs, in, out);
    for (int s = 1; s < _siamese; ++s)
      blas_axpy(_gpu_handle, _inputs, _merge == SUB ? -1.f : 1.f, in + (size_t)s * _inputs, out);
  }
}

void SiamMergeLayer::backward(NetworkParams& params) {
  if (!_delta || !params.delta) return;
  if (_merge == CONCAT) {
    blas_axpy(_gpu_handle, _batch * _outputs, 1, _delta, params.delta);
    return;
  }
  for (int i = 0; i < _batch; ++i)
    for (int s = 0; s < _siamese; ++s)
      blas_axpy(_gpu_handle, _inputs, _merge == SUB && s == 1 ? -1.f : 1.f, _delta + (size_t)i * _outputs,
                params.delta + ((size_t)i * _siamese + s) * _inputs);
}

}  // namespace ORVA
