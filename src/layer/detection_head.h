// What every detection head shares: the input shape taken as the output shape, the output and
// (in training) delta tensors with their host copies for the loss, the truth records of a
// batch item, the best-class scan of the decoded rows and the backward step.
#pragma once
#include "orva/data.h"
#include "orva/layer.h"

namespace ORVA {

class DetectionHead : public Layer {
 public:
  // Truth records per image in a training batch.
  static constexpr int kMaxTruths = 100;

  DetectionHead(int mode, void* handle) : Layer(mode, handle) {}
  ~DetectionHead() override;

  int loadWeight(FILE* fp, bool quant) override { return 0; }
  int saveWeight(FILE* fp) override { return 0; }
  void resize(InputParams& params) override;
  void backward(NetworkParams& params) override;
  void update(int batch, float rate, float momentum, float decay) override {}
  void _freeLayer() override;
  virtual int getClassNum() { return _classes; }
  // Heads that decode boxes: one image's output (host floats, batch item 0 layout) into
  // getRegionOutputNum() boxes, scores and best classes. thresh does not change them.
  virtual int getRegionOutputNum() { return 0; }
  virtual void getRegionBox(float* output, float thresh, float* probs, int* classes, BBox* boxes) {}

  int _classes = 1;
  int _anchors = 1;
  int _softmax = 0;
  int _bg_class = 0;
  float _obj_scale = 1;
  float _noobj_scale = 1;
  float _class_scale = 1;
  float* _output_cpu = nullptr;
  float* _delta_cpu = nullptr;
  // Half copy of _delta_cpu on its way to the device (training only).
  Ftype* _delta_stage = nullptr;

  // Leading non-empty records (first value non-zero) of rec floats in one item's truth.
  static int truthCount(const float* truth, int rec);
  static BBox truthBox(const float* truth, int t, int rec) {
    const float* r = truth + (size_t)t * rec;
    return BBox{r[0], r[1], r[2], r[3]};
  }
  // Best class per cell over `classes` planes of wh scores starting at score, times the
  // objectness: class planes in ascending order, each cell keeping a strictly greater score,
  // so the lowest index wins ties and class 0 with 0 stands when nothing is positive. A head
  // without class scores (classes = 0) detects one class and the objectness is the score.
  static void bestClass(const float* obj, const float* score, int classes, int wh, float* prob, int* cls);

 protected:
  // The previous layer's shape and batch; false when it does not output an image.
  bool _takeInput(const InputParams& params);
  void _readLossScales(ConfigReader& cfg, int ns);
  // Output of the input's shape with out_c channels (which must equal the input's), truth
  // records of truth_size floats; in training the delta and the host buffers of the loss.
  void _makeHead(long long out_c, int truth_size, const char* kind);
  // The first batch items of the device output to _output_cpu as floats; _delta_cpu zeroed.
  void _pullOutput(int batch);
  // The host loss gradient to the device delta; its squared norm becomes the cost.
  void _publishLoss();
  // Gradient of the head's own device activations, applied to _delta in backward.
  virtual void _activateGradient() = 0;
};

}  // namespace ORVA
