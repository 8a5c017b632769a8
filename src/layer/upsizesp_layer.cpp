#include "layer/upsizesp_layer.h"

#include "layer/layer_util.h"
#include "orva/blas.h"

namespace ORVA {

void UpsizespLayer::_check(bool from_file) const {
  if (_in_h < 1 || _in_w < 1 || _in_c < 1) LAYER_FAULT(from_file, "Layer before spresize layer must output image.");
  if (_stride < 1 || _stride > 64) LAYER_FAULT(from_file, "spresize: stride %d out of range 1..64", _stride);
  if (_in_c % (_stride * _stride))
    LAYER_FAULT(from_file, "spresize: stride %d squared does not divide the %d input channels", _stride, _in_c);
  if (!layer_size_ok(_batch, (long long)_in_w * _in_h * _in_c))
    LAYER_FAULT(from_file, "spresize: input %d x %d x %d, batch %d too large", _in_w, _in_h, _in_c, _batch);
}

void UpsizespLayer::_makeLayer(bool quant, bool fast) {
  _out_w = _in_w * _stride;
  _out_h = _in_h * _stride;
  _out_c = _in_c / (_stride * _stride);
  _inputs = _in_w * _in_h * _in_c;
  _outputs = _out_w * _out_h * _out_c;
  layer_make_output(this);
  // Training reorders the gradient into scratch before adding it to the previous delta.
  _workspace_size = mode ? (size_t)_batch * _inputs * sizeof(Ftype) : 0;
  ORVA_MSG(INFO, "spresize           x%d   %4d x%4d x%4d   ->  %4d x%4d x%4d\n", _stride, _in_w, _in_h, _in_c, _out_w,
           _out_h, _out_c);
}

void UpsizespLayer::forward(NetworkParams& params) {
  blas_reorg(_gpu_handle, params.input, _in_w, _in_h, _in_c, layer_pass_batch(params, _batch), _stride, 1, _output);
}

void UpsizespLayer::backward(NetworkParams& params) {
  if (!_delta || !params.delta || !params.workspace) return;
  blas_reorg(_gpu_handle, _delta, _in_w, _in_h, _in_c, _batch, _stride, 0, params.workspace);
  blas_axpy(_gpu_handle, _batch * _inputs, 1, params.workspace, params.delta);
}

}  // namespace ORVA
