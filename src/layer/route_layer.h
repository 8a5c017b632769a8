// Concatenation, along the channel axis, of earlier layers' outputs of equal width and height;
// with groups > 1, of the group_id-th of `groups` equal channel slices of each.
#pragma once
#include "orva/layer.h"

namespace ORVA {

class RouteLayer : public Layer {
 public:
  RouteLayer(int mode, void* handle) : Layer(mode, handle) {}
  ~RouteLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  int _ln = 0;
  int* _lindex = nullptr;  // absolute indexes of the sources, in concatenation order
  int* _lsize = nullptr;   // the sources' outputs per item
  int _groups = 1;
  int _group_id = 0;

 private:
  Network* _net = nullptr;
  void _shape(bool from_file, bool check_dims, int own_index);
};

}  // namespace ORVA
