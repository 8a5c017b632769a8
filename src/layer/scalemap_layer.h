// Scales an earlier layer's feature map (layer "from") by the output of the previous layer:
// a one-channel map of the same width and height, one value per position shared by every
// channel (spatial attention).
#pragma once
#include "orva/layer.h"

namespace ORVA {

class ScalemapLayer : public Layer {
 public:
  ScalemapLayer(int mode, void* handle) : Layer(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

  int _from = -1;  // absolute index of the layer whose output is scaled

 protected:
  // 1: one factor per position (this layer); 0: one per channel (the attention layer).
  int _per_position = 1;
  const char* _name = "scalemap";
  Network* _net = nullptr;
  void _shape(bool from_file, const InputParams& params);
};

}  // namespace ORVA
