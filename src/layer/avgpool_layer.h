// Window mean, or with a size of 0 the mean of each whole plane (optionally of squares,
// optionally trimmed of its lowest and highest values).
#pragma once
#include "orva/layer.h"

namespace ORVA {

class AvgpoolLayer : public Layer {
 public:
  AvgpoolLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~AvgpoolLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  bool global() const { return _size <= 0; }

  int _size = 0;
  int _stride = 0;
  int _pad = 0;
  int _tmin = 0;
  int _tmax = 0;
  int _square = 0;
  // Trimmed mode only: the ranking of every plane (batch * channels * plane ints).
  int* _indexes = nullptr;

 private:
  void _check(bool from_file) const;
};

}  // namespace ORVA
