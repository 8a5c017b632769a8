#include "layer/convolution_layer.h"

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "base/checked_size.h"
#include "orva/conv.h"
#include "orva/blas.h"
#include "orva/cuda.h"
#include "orva/util.h"

namespace ORVA {

namespace {
// Bounds that keep a hostile model file from asking for unbounded memory; real networks stay
// far below them.
constexpr int kMaxKernelParam = 1024;
constexpr int kMaxFilters = 1 << 16;

Ftype* alloc_tensor(void* handle, size_t n, bool zeroed) {
  Ftype* p = static_cast<Ftype*>(cuda_malloc(handle, n * sizeof(Ftype)));
  if (zeroed) cuda_memset(handle, p, 0, n * sizeof(Ftype));
  return p;
}
}  // namespace

ConvolutionLayer::~ConvolutionLayer() { ConvolutionLayer::_freeLayer(); }

std::string ConvolutionLayer::_checkConfig() const {
  char why[256];
  if (_kn < 1 || _kn > kMaxFilters || _size < 1 || _size > kMaxKernelParam || _stride < 1 ||
      _stride > kMaxKernelParam || _dilation < 1 || _dilation > kMaxKernelParam || _pad < 0 ||
      _pad > kMaxKernelParam || _groups < 1) {
    snprintf(why, sizeof(why), "convolution: filters %d, size %d, stride %d, dilation %d, pad %d, groups %d out of range",
             _kn, _size, _stride, _dilation, _pad, _groups);
    return why;
  }
  if (_in_c < 1 || _in_h < 1 || _in_w < 1 || _batch < 1) {
    snprintf(why, sizeof(why), "convolution: input %d x %d x %d, batch %d is empty", _in_w, _in_h, _in_c, _batch);
    return why;
  }
  if (_in_c % _groups || _kn % _groups) {
    snprintf(why, sizeof(why), "convolution: groups %d must divide channels %d and filters %d", _groups, _in_c, _kn);
    return why;
  }
  const long long extent = (long long)(_size - 1) * _dilation + 1;
  if (_in_w + 2LL * _pad < extent || _in_h + 2LL * _pad < extent) {
    snprintf(why, sizeof(why), "convolution: kernel extent %lld exceeds input %d x %d with pad %d", extent, _in_w,
             _in_h, _pad);
    return why;
  }
  const long long out_w = (_in_w + 2LL * _pad - extent) / _stride + 1;
  const long long out_h = (_in_h + 2LL * _pad - extent) / _stride + 1;
  const long long outputs = out_w * out_h * _kn;
  const long long weights = (long long)(_in_c / _groups) * _kn * _size * _size;
  const long long inputs = (long long)_in_w * _in_h * _in_c;
  if (outputs * _batch > kMaxTensorElements || inputs * _batch > kMaxTensorElements || weights > kMaxTensorElements) {
    snprintf(why, sizeof(why), "convolution: tensors too large (outputs %lld, inputs %lld, weights %lld, batch %d)",
             outputs, inputs, weights, _batch);
    return why;
  }
  // The host path unfolds the input into columns of size x size x channels / groups rows.
  const long long columns = weights / _kn * out_w * out_h;
  if (columns * (long long)sizeof(Ftype) > kMaxWorkspaceBytes) {
    snprintf(why, sizeof(why), "convolution: size %d over %d channels needs a workspace of %lld bytes, more than %lld",
             _size, _in_c, columns * (long long)sizeof(Ftype), (long long)kMaxWorkspaceBytes);
    return why;
  }
  return "";
}

void ConvolutionLayer::parseConfig(ConfigReader& cfg, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _in_c = params.c;
  _batch = params.batch;
  if (!_in_h || !_in_w || !_in_c) {
    ORVA_FATAL("Layer before convolutional layer must output image.");
  }
  const int ns = params.nsect;
  _kn = cfg.findInt(ns, "filters", 1);
  _size = cfg.findInt(ns, "size", 1);
  _stride = cfg.findInt(ns, "stride", 1, true);
  _groups = cfg.findInt(ns, "groups", 1, true);
  _dilation = cfg.findInt(ns, "dilation", 1, true);
  // The default pad keeps the output size; computed wide so absurd sizes reach the range check.
  const long long half_extent = ((long long)_size - 1) * _dilation / 2;
  _pad = cfg.findInt(ns, "pad", (int)std::max<long long>(-1, std::min<long long>(half_extent, kMaxKernelParam + 1)), true);
  _acttype = ActivationType::type(cfg.findStr(ns, "activation", nullptr, true));
  _withbn = cfg.findInt(ns, "batch_normalize", 0, true);
  Layer::parseConfig(cfg, params);
  const std::string fault = _checkConfig();
  if (!fault.empty()) {
    ORVA_FATAL("%s", fault.c_str());
  }
  _makeLayer(params.quant, params.fast);
}

int ConvolutionLayer::loadConfig(FILE* fp, InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  _batch = params.batch;
  _in_c = params.c;
  int record[8];
  chk_fread(record, 4, 8, fp);
  _kn = record[0];
  _size = record[1];
  _stride = record[2];
  _pad = record[3];
  _groups = record[4];
  _dilation = record[5];
  _acttype = record[6];
  _withbn = record[7] ? 1 : 0;
  Layer::loadConfig(fp, params);
  const std::string fault = _checkConfig();
  if (!fault.empty()) throw std::runtime_error(fault);
  _makeLayer(params.quant, params.fast);
  return 0;
}

int ConvolutionLayer::saveConfig(FILE* fp) {
  const int record[8] = {_kn, _size, _stride, _pad, _groups, _dilation, _acttype, _withbn};
  chk_fwrite(record, 4, 8, fp);
  return Layer::saveConfig(fp);
}

int ConvolutionLayer::loadWeight(FILE* fp, bool quant) {
  cuda_fread(_gpu_handle, _bias, _kn, fp);
  if (_bn) _bn->loadWeight(fp);
  cuda_fread(_gpu_handle, _weight, _weights, fp);
  if (mode == 0 && _bn) {
    // Inference never changes the statistics, so they are folded once into the weights.
    _bn->scale(this, _kn, _weights / _kn);
    delete _bn;
    _bn = nullptr;
    _withbn = 0;
  }
  if (quant && _iqthresh_init != 0) _prepareInt8();
  return 0;
}

void ConvolutionLayer::_prepareInt8() {
  if (_qweight) cuda_free(_gpu_handle, _qweight);
  _qweight = static_cast<char*>(cuda_malloc(_gpu_handle, _weights));
  bool unsigned_ok = false;
  const float t =
      conv_quantize_weights(_gpu_handle, _plan, _weight, _weights, reinterpret_cast<signed char*>(_qweight), &unsigned_ok);
  if (!unsigned_ok) ORVA_MSG(WARNING, "\nWARNING: use unsigned weight quantization\n");
  _iqthresh = _iqthresh_init;
  const float iq = _iqthresh;
  _qscale = t * 0.007874016f * (iq * (iq > 0 ? 0.003937008f : -0.007874016f));
  if (mode == 0) {
    // The 8-bit copy stands in for the weights from now on; _weights_allocated still counts
    // them, so a remake at another input size keeps the copy and the biases.
    cuda_free(_gpu_handle, _weight);
    _weight = nullptr;
  }
}

int ConvolutionLayer::saveWeight(FILE* fp) {
  if (!_weight) throw std::runtime_error("convolution: weights were replaced by their 8-bit copy, nothing to save");
  cuda_fwrite(_gpu_handle, _bias, _kn, fp);
  if (_bn) _bn->saveWeight(fp);
  cuda_fwrite(_gpu_handle, _weight, _weights, fp);
  return 0;
}

void ConvolutionLayer::resize(InputParams& params) {
  _in_h = params.h;
  _in_w = params.w;
  const std::string fault = _checkConfig();
  if (!fault.empty()) {
    ORVA_FATAL("%s", fault.c_str());
  }
  _makeLayer(params.quant, params.fast);
}

void ConvolutionLayer::_freeLayer() {
  delete _bn;
  _bn = nullptr;
  delete _activation;
  _activation = nullptr;
  if (_plan) conv_plan_destroy(_gpu_handle, _plan);
  _plan = nullptr;
}

void ConvolutionLayer::_makeLayer(bool quant, bool fast) {
  // A remake (resize) keeps the learned weights and the normalisation statistics.
  Batchnorm* old_bn = _bn;
  _bn = nullptr;
  _freeLayer();

  const int extent = (_size - 1) * _dilation + 1;
  _out_w = (_in_w + 2 * _pad - extent) / _stride + 1;
  _out_h = (_in_h + 2 * _pad - extent) / _stride + 1;
  _out_c = _kn;
  _inputs = _in_w * _in_h * _in_c;
  _outputs = _out_h * _out_w * _kn;
  _weights = (_in_c / _groups) * _kn * _size * _size;

  const bool fresh_weights = _weights != _weights_allocated;
  if (fresh_weights) {
    Ftype** tensors[] = {&_weight, &_bias, &_weight_update, &_bias_update};
    for (Ftype** t : tensors) {
      if (*t) cuda_free(_gpu_handle, *t);
      *t = nullptr;
    }
    if (_qweight) cuda_free(_gpu_handle, _qweight);
    _qweight = nullptr;
    _iqthresh = 0;
    _weight = alloc_tensor(_gpu_handle, _weights, false);
    _bias = alloc_tensor(_gpu_handle, _kn, true);
    _weights_allocated = _weights;
  }
  if (_output) cuda_free(_gpu_handle, _output);
  _output = alloc_tensor(_gpu_handle, (size_t)_batch * _outputs, false);
  if (_delta) cuda_free(_gpu_handle, _delta);
  _delta = nullptr;

  if (mode) {
    if (!_weight_update) _weight_update = alloc_tensor(_gpu_handle, _weights, true);
    if (!_bias_update) _bias_update = alloc_tensor(_gpu_handle, _kn, true);
    _delta = alloc_tensor(_gpu_handle, (size_t)_batch * _outputs, true);
    if (fresh_weights) {
      const double s = std::sqrt(2.0 / ((double)_size * _size * (_in_c / _groups)));
      std::vector<float> init(_weights);
      for (float& w : init) w = rand_normal((float)s);
      // Converted to half here: the tensor holds two bytes per weight.
      float2half_cpu(init.data(), reinterpret_cast<_half*>(init.data()), init.size());
      cuda_push(_gpu_handle, _weight, init.data(), (size_t)_weights * sizeof(Ftype));
      cuda_sync(_gpu_handle);
    }
  }

  _activation = ActivationType::create(_acttype, _gpu_handle);
  if (_withbn) {
    _bn = new Batchnorm(_kn, _batch * _outputs, mode, _gpu_handle);
    if (old_bn) {
      blas_copy(_gpu_handle, _kn, old_bn->_scale, _bn->_scale);
      blas_copy(_gpu_handle, _kn, old_bn->_mean_rolling, _bn->_mean_rolling);
      blas_copy(_gpu_handle, _kn, old_bn->_var_rolling, _bn->_var_rolling);
    }
  }
  delete old_bn;

  // The 8-bit layouts pack channels in fours, and the filters of a group hold in_c / groups
  // of them; deeper filters than kConvInt8MaxDepth could leave the 32-bit sums.
  if (_in_c % 4 || (_in_c / _groups) % 4 || (long long)(_in_c / _groups) * _size * _size > kConvInt8MaxDepth)
    _iqthresh_init = 0;
  const int int8 = (quant && _iqthresh_init != 0) ? (_iqthresh_init > 0 ? 1 : -1) : 0;
  const ConvShape shape = {_batch, _in_c, _in_h, _in_w, _out_c, _out_h, _out_w, _size,
                           _stride, _pad, _dilation, _groups, mode != 0, int8, fast};
  _plan = conv_plan_create(_gpu_handle, shape);
  _workspace_size = _plan->workspace_bytes;
  _qinput_size = int8 ? (size_t)_batch * _inputs * 2 : 0;

  _flops = ((size_t)_size * _size * _in_c / _groups + 1) * ((size_t)_out_w * _out_h * _out_c * 2);
  const char* tag = quant && _iqthresh_init > 0 ? "U8" : (quant && _iqthresh_init < 0 ? "I8" : "");
  ORVA_MSG(INFO, "conv  %5d  %dx%d / %d,%d  %4d x%4d x%4d   ->  %4d x%4d x%4d  %6.1fM %s\n", _kn, _size, _size,
           _stride, _groups, _in_w, _in_h, _in_c, _out_w, _out_h, _out_c, _flops * 0.000001, tag);
}

void ConvolutionLayer::forward(NetworkParams& params) {
  int b = params.batch;
  if (b > _batch) b = _batch;
  if (b < 1) return;
  Ftype* workspace = params.workspace;
  if (_iqthresh != 0) {
    conv_forward_int8(_gpu_handle, _plan, b, params.input, _iqthresh, params.qinput,
                      reinterpret_cast<signed char*>(_qweight), _qscale, _bias, _output, workspace);
    if (_activation) _activation->activate(_output, b * _outputs);
    return;
  }
  if (_bn || !_activation) conv_forward(_gpu_handle, _plan, b, params.input, _weight, _output, workspace);
  if (_bn) {
    _bn->forward(this, b, _out_c, _out_w * _out_h);
    if (_activation) _activation->activate(_output, b * _outputs);
  } else if (_activation) {
    // Without an activation the bias is deliberately left out.
    conv_forward_bias_activate(_gpu_handle, _plan, b, params.input, _weight, _bias, _activation->type, _output,
                               workspace);
  }
}

void ConvolutionLayer::backward(NetworkParams& params) {
  if (!_delta) return;
  const int n = _batch * _outputs;
  if (_activation)
    _activation->gradient(_output, n, _delta);
  else
    blas_copy(_gpu_handle, n, _output, _delta);
  if (_bn)
    _bn->backward(this, _batch);
  else
    blas_backward_bias(_gpu_handle, _bias_update, _delta, _batch, _kn, _out_w * _out_h);
  conv_backward_filter(_gpu_handle, _plan, params.input, _delta, _weight_update, params.workspace);
  if (params.delta) conv_backward_data(_gpu_handle, _plan, _weight, _delta, params.delta, params.workspace);
}

void ConvolutionLayer::update(int batch, float learning_rate, float momentum, float decay) {
  if (!_weight_update) return;
  const float r = learning_rate * _learning_rate_scale / batch;
  blas_axpy(_gpu_handle, _weights, -decay * batch, _weight, _weight_update);
  blas_axpy(_gpu_handle, _weights, r, _weight_update, _weight);
  blas_scale(_gpu_handle, _weights, momentum, _weight_update);
  blas_axpy(_gpu_handle, _kn, r, _bias_update, _bias);
  blas_scale(_gpu_handle, _kn, momentum, _bias_update);
  if (_bn) _bn->update(_kn, r, momentum);
}

}  // namespace ORVA
