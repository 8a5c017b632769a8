#include "layer/cost_layer.h"

#include <cstring>
#include <stdexcept>

#include "orva/blas.h"
#include "orva/data.h"
#include "kernels/cost.h"
#include "orva/cuda.h"
#include "orva/util.h"

namespace ORVA {

namespace {
const char* const kCostNames[] = {"L2", "L1", "L1s", "xentropy"};
constexpr int kCostTypes = 4;
// Per-sample element bound, as for the other layers' records.
constexpr long long kMaxElements = 1LL << 28;
}  // namespace

const char* CostLayer::typeName(int ctype) { return ctype >= 0 && ctype < kCostTypes ? kCostNames[ctype] : nullptr; }

CostLayer::~CostLayer() { _release(); }

void CostLayer::_release() {
  if (_output) cuda_free(_gpu_handle, _output);
  if (_delta) cuda_free(_gpu_handle, _delta);
  if (_truth_dev) cuda_free(_gpu_handle, _truth_dev);
  _output = _delta = nullptr;
  _truth_dev = nullptr;
}

void CostLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _inputs = params.inputs;
  _batch = params.batch;
  const int ns = params.nsect;
  const char* name = cfg.findStr(ns, "type", "L2");
  _ctype = -1;
  for (int i = 0; i < kCostTypes; ++i)
    if (name && strcmp(name, kCostNames[i]) == 0) _ctype = i;
  _cscale = cfg.findFloat(ns, "scale", 1.f, true);
  _ratio = cfg.findFloat(ns, "ratio", 0.f, true);
  _pscale = cfg.findFloat(ns, "pos_scale", 1.f, true);
  _nscale = cfg.findFloat(ns, "neg_scale", 1.f, true);
  _thresh = cfg.findFloat(ns, "thresh", 0.f, true);
  _bias = cfg.findFloat(ns, "bias", 0.f, true);
  _gamma = cfg.findFloat(ns, "gamma", 0.f, true);
  Layer::parseConfig(cfg, params);
  _makeLayer(params.quant, params.fast);
}

int CostLayer::loadConfig(FILE* fp, InputParams& params) {
  _inputs = params.inputs;
  _batch = params.batch;
  Layer::loadConfig(fp, params);
  chk_fread(&_ctype, 4, 1, fp);
  chk_fread(&_cscale, 4, 1, fp);
  chk_fread(&_ratio, 4, 1, fp);
  chk_fread(&_nscale, 4, 1, fp);
  chk_fread(&_thresh, 4, 1, fp);
  if (_inputs < 1 || _batch < 1 || (long long)_inputs * _batch > kMaxElements) {
    char why[96];
    snprintf(why, sizeof(why), "cost: %d inputs for batch %d", _inputs, _batch);
    throw std::runtime_error(why);
  }
  _makeLayer(params.quant, params.fast);
  return 0;
}

int CostLayer::saveConfig(FILE* fp) {
  Layer::saveConfig(fp);
  chk_fwrite(&_ctype, 4, 1, fp);
  chk_fwrite(&_cscale, 4, 1, fp);
  chk_fwrite(&_ratio, 4, 1, fp);
  chk_fwrite(&_nscale, 4, 1, fp);
  chk_fwrite(&_thresh, 4, 1, fp);
  return 0;
}

void CostLayer::resize(InputParams& params) {
  _inputs = params.inputs;
  _makeLayer(params.quant, params.fast);
}

void CostLayer::_makeLayer(bool quant, bool fast) {
  _release();
  _out_h = _out_w = 1;
  _out_c = _outputs = _inputs;
  const size_t n = (size_t)_batch * _outputs;
  _output = static_cast<Ftype*>(cuda_calloc(_gpu_handle, n, sizeof(Ftype)));
  if (mode == TRAIN) {
    _delta = static_cast<Ftype*>(cuda_calloc(_gpu_handle, n, sizeof(Ftype)));
    _truth_dev = static_cast<float*>(cuda_malloc(_gpu_handle, n * sizeof(float)));
  }
  const char* name = typeName(_ctype);
  ORVA_MSG(INFO, "cost %8s                       %4d   ->  %4d\n", name ? name : "(null)", _inputs, _outputs);
}

void CostLayer::forward(NetworkParams& params) {
  // Only a training build has the gradient and truth buffers; an inference pass never
  // carries truth.
  if (!params.truth || !_delta) return;
  const int n = params.batch * _outputs;
  cuda_push(_gpu_handle, _truth_dev, params.truth, (size_t)n * sizeof(float));
  switch (_ctype) {
    case 0: cost_l2(_gpu_handle, n, params.input, _truth_dev, _delta, _output, _thresh); break;
    case 1: cost_l1(_gpu_handle, n, params.input, _truth_dev, _delta, _output, _thresh); break;
    case 2: cost_l1smooth(_gpu_handle, n, params.input, _truth_dev, _delta, _output, _thresh); break;
    case 3:
      cost_xentropy(_gpu_handle, n, params.input, _truth_dev, _delta, _output, _thresh + 0.00001f, _gamma, 1.f, 1.f);
      break;
    default: break;
  }
  cost = blas_sum(_gpu_handle, n, _output) / params.batch;
}

void CostLayer::backward(NetworkParams& params) {
  if (!_delta || !params.delta) return;
  blas_axpy(_gpu_handle, params.batch * _outputs, _cscale, _delta, params.delta);
}

}  // namespace ORVA
