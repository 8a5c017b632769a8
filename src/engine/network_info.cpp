// What a built network tells its application about its layers.
#include <stdexcept>
#include <string>

#include "orva/orva.h"

namespace ORVA {

LayerInfo Network::layerInfo(int i) const {
  const Layer* l = i < 0 ? _loutput : i < (int)_layers.size() ? _layers[i] : nullptr;
  if (!l)
    throw std::out_of_range("layerInfo: no layer " + std::to_string(i) + " in a network of " +
                            std::to_string(_layers.size()));
  LayerInfo info;
  info.type = l->type;
  info.name = LayerType::name(l->type);
  info.in_w = l->_in_w;
  info.in_h = l->_in_h;
  info.in_c = l->_in_c;
  info.out_w = l->_out_w;
  info.out_h = l->_out_h;
  info.out_c = l->_out_c;
  // Convolutions and fully connected layers hold one bias per output channel besides weights.
  const bool biased = l->type == LAYER_CONVOLUTION || l->type == LAYER_FCONN;
  info.params = (size_t)l->_weights + (biased ? (size_t)l->_out_c : 0);
  info.flops = l->_flops;
  return info;
}

void Network::setLayerTimer(LayerTimer timer) { _layer_timer = std::move(timer); }

}  // namespace ORVA
