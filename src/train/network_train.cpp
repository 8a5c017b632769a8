// The training loop: forward, backward and, once per group of subdivisions, the update.
#include <cmath>
#include <cstdlib>
#include <limits>

#include "base/error.h"
#include "orva/blas.h"
#include "orva/orva.h"

namespace ORVA {

float Network::train(TData& d) {
  if (d.X.rows % nBatch != 0)
    ORVA_THROW("d.X.rows %% nBatch == 0 fails: %d rows, batch %d", d.X.rows, nBatch);
  const int n = d.X.rows / nBatch;
  if (n < 1) return 0.f / (float)(n * nBatch);
  if (mode != TRAIN || !_truth) ORVA_THROW("train: the network was not built for training (no \"train\" section)");
  if (d.X.cols != _inputs * _siamese || d.Y.cols > _truths)
    ORVA_THROW("train: samples of %d inputs and %d truths for a network of %d inputs and %d truths", d.X.cols,
               d.Y.cols, _inputs * _siamese, _truths);
  float sum = 0.f;
  for (int i = 0; i < n; ++i) {
    get_next_batch(_gpu_handle, d, nBatch, i * nBatch, _input, _truth);
    _tforward();
    _tbackward();
    // The update falls on the first mini-batch of each group, the very first one included.
    if ((_seen / nBatch) % _tparams.subdivisions == 0) _tupdate();
    _seen += nBatch;
    sum += _cost;
  }
  return sum / (float)(n * nBatch);
}

void Network::_tforward() {
  // The loss layers write their gradient during the forward pass, so the gradients are
  // cleared before it rather than at the start of the backward pass. Each layer clears the
  // batch it was built for: after a siamese merge that is fewer samples.
  for (Layer* l : _layers)
    if (l->_delta) blas_fill(_gpu_handle, l->_batch * l->_outputs, 0.f, l->_delta);
  _forward(nBatch);
  float sum = 0.f;
  int count = 0;
  for (Layer* l : _layers)
    if (l->cost > 0) {
      sum += l->cost;
      ++count;
    }
  _cost = _layers.empty() ? std::numeric_limits<float>::quiet_NaN() : sum / count;
}

void Network::_tbackward() {
  const int batch = nBatch * _siamese;
  NetworkParams params;
  params.workspace = static_cast<Ftype*>(_workspace);
  params.qinput = static_cast<char*>(_qinput);
  params.truth = _truth;
  params.net = this;
  params.batch = batch;
  params.siamese = _siamese;
  for (int k = (int)_layers.size() - 1; k >= 0; --k) {
    params.input = k > 0 ? _layers[k - 1]->_output : static_cast<Ftype*>(_input);
    params.delta = k > 0 ? _layers[k - 1]->_delta : nullptr;
    _layers[k]->backward(params);
  }
}

void Network::_tupdate() {
  const float rate = _getCurrentRate();
  for (Layer* l : _layers) l->update(nBatch * _tparams.subdivisions, rate, _tparams.momentum, _tparams.decay);
}

float Network::_getCurrentRate() {
  const int b = (int)(_seen / ((size_t)nBatch * _tparams.subdivisions));
  return train_rate(_tparams, b);
}

}  // namespace ORVA
