// Merges the siamese copies of each item. A siamese network runs `siamese` samples per item,
// consecutive in the batch (item i owns samples i * siamese .. i * siamese + siamese - 1);
// from here on the batch holds one sample per item: the copies stacked along the channel
// axis ("concat"), summed ("add") or, for pairs, the first minus the second ("sub").
#pragma once
#include "orva/layer.h"

namespace ORVA {

class SiamMergeLayer : public Layer {
 public:
  enum Merge { CONCAT = 0, ADD = 1, SUB = 2 };

  SiamMergeLayer(int mode, void* handle) : Layer(mode, handle) {}

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void resize(InputParams& params) override;
  void forward(NetworkParams& params) override;
  void backward(NetworkParams& params) override;
  void _makeLayer(bool quant, bool fast) override;

  int _merge = CONCAT;
  int _siamese = 1;  // samples per item before the merge

 private:
  void _shape(bool from_file, const InputParams& params);
};

}  // namespace ORVA
