// Anchor-box detection head: logistic centres and objectness, optional class softmax on the
// device; decoding into normalised boxes and the training loss on the host.
#pragma once
#include "layer/detection_head.h"

namespace ORVA {

class RegionLayer : public DetectionHead {
 public:
  RegionLayer(int mode, void* handle) : DetectionHead(mode, handle) {}
  ~RegionLayer() override;

  void parseConfig(ConfigReader& cfg, InputParams& params) override;
  int loadConfig(FILE* fp, InputParams& params) override;
  int saveConfig(FILE* fp) override;
  void forward(NetworkParams& params) override;
  void _freeLayer() override;
  void _makeLayer(bool quant, bool fast) override;

  // Boxes indexed anchor * cells + cell.
  void getRegionBox(float* output, float thresh, float* probs, int* classes, BBox* boxes) override;
  int getRegionOutputNum() override { return _in_w * _in_h * _anchors; }

  // Offset of `entry` of anchor n at cell loc of item b; location = n * cells + loc.
  int _entry_index(int b, int location, int entry) const {
    const int wh = _in_w * _in_h;
    return _entry_index(b, location / wh, location % wh, entry);
  }
  int _entry_index(int b, int n, int loc, int entry) const {
    return b * _outputs + (n * (_coords + _classes + 1) + entry) * _in_w * _in_h + loc;
  }

  int _coords = 4;
  int _loc_type = 0;
  float _scale_xy = 1;
  float _rescore = 0;
  float _thresh = 0.5f;
  float _coord_scale = 1;
  float* _anchor = nullptr;

 protected:
  // What tells the family apart. Name in messages and the summary line.
  virtual const char* _kind() const { return "region"; }
  // Section name in the "must output image" message.
  virtual const char* _imageKind() const { return _kind(); }
  virtual const char* _statsName() const { return "Region"; }
  virtual bool _readsLocType() const { return true; }
  // Squared rather than exponential size encoding.
  virtual bool _squaredSizes() const { return _loc_type == 1; }
  // Entry of the objectness and of the first box value.
  virtual int _objEntry() const { return _coords; }
  virtual int _boxEntry() const { return 0; }
  // Decodes the box of anchor n at cell (i, j) from one image's output.
  virtual BBox _decode(const float* out, int n, int i, int j) const;
  // Box gradients of the matched anchor n at cell (i, j) against truth t, weight s.
  virtual void _boxDelta(const float* out, float* delta, const BBox& t, int n, int i, int j, float s) const;
  // Device part of forward on the batch items of this call.
  virtual void _activate(Ftype* input, int batch);
  void _activateGradient() override;

  // Shared construction of the region family.
  void _parseRegion(ConfigReader& cfg, InputParams& params);
  void _loadRegion(FILE* fp, InputParams& params);
  void _trainingPass(int batch, const float* truth);
};

}  // namespace ORVA
