// Bilinear resize of every channel ("resize"): to a fixed output size, or by a whole factor
// (so the layer follows a resized network), with one of TensorFlow's coordinate rules.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class ResizeLayer : public Layer {
 public:
  ResizeLayer(int mode, void* handle) : Layer(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int loadWeight(FILE* fp, bool quant) override { return 0; }
  int saveConfig(FILE* fp) override;
  int saveWeight(FILE* fp) override { return 0; }
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void update(int batch, float rate, float momentum, float decay) override {}
  void _makeLayer(bool quant, bool fast) override;

  int _stride = 2;                // used when the size is not fixed
  int _width = 0, _height = 0;    // fixed output size; 0 follows the input times the stride
  int _rule = 0;                  // kResizeAsymmetric, kResizeAlignCorners or kResizeHalfPixel

 private:
  void _check(bool from_file) const;
};

}  // namespace ORVA
