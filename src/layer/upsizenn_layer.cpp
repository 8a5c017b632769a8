#include "layer/upsizenn_layer.h"

#include "layer/layer_util.h"
#include "kernels/tensor.h"

namespace ORVA {

void UpsizennLayer::_check(bool from_file) const {
  if (_in_h < 1 || _in_w < 1 || _in_c < 1) LAYER_FAULT(from_file, "Layer before upsample layer must output image.");
  if (_stride < 1 || _stride > 64) LAYER_FAULT(from_file, "upsample: stride %d out of range 1..64", _stride);
  if (!layer_size_ok(_batch, (long long)_in_w * _in_h * _in_c * _stride * _stride))
    LAYER_FAULT(from_file, "upsample: output of %d x %d x %d by %d, batch %d too large", _in_w, _in_h, _in_c, _stride,
                _batch);
}

void UpsizennLayer::_makeLayer(bool quant, bool fast) {
  _out_w = _in_w * _stride;
  _out_h = _in_h * _stride;
  _out_c = _in_c;
  _inputs = _in_w * _in_h * _in_c;
  _outputs = _out_w * _out_h * _out_c;
  layer_make_output(this);
  ORVA_MSG(INFO, "upsample           x%d    %4d x%4d x%4d   ->  %4d x%4d x%4d\n", _stride, _in_w, _in_h, _in_c, _out_w,
           _out_h, _out_c);
}

void UpsizennLayer::forward(NetworkParams& params) {
  tensor_upsample(_gpu_handle, layer_pass_batch(params, _batch), _in_w, _in_h, _in_c, _stride, params.input, _output);
}

void UpsizennLayer::backward(NetworkParams& params) {
  if (_delta && params.delta)
    tensor_upsample_backward(_gpu_handle, _batch, _in_w, _in_h, _in_c, _stride, _delta, params.delta);
}

}  // namespace ORVA
