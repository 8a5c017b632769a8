// The layer interface, the records a network hands to its layers, the layer registry and the
// batch-normalisation companion used by layers that normalise their output.
#pragma once
#include "orva/export.h"
#include <cstddef>
#include <cstdio>

#include "orva/config.h"
#include "orva/float16.h"

ORVA_API_BEGIN

// cuDNN descriptor types, named without including the toolkit's headers.
struct cudnnTensorStruct;
struct cudnnFilterStruct;

namespace ORVA {

class Network;

// Shape flowing from layer to layer while a network is built.
struct InputParams {
  int batch = 0;   // samples per pass (network batch x siamese factor)
  int inputs = 0;  // elements per sample of the previous output
  int h = 0, w = 0, c = 0;
  int nsect = -1;  // section of this layer in the description
  int index = 0;   // position of this layer in the network
  int time_steps = 1;
  bool quant = false;
  bool fast = false;
  Network* net = nullptr;
};

// What one pass hands to each layer.
struct NetworkParams {
  Ftype* workspace = nullptr;
  Ftype* input = nullptr;
  Ftype* delta = nullptr;
  char* qinput = nullptr;
  float* truth = nullptr;
  Network* net = nullptr;
  int batch = 0;
  int siamese = 1;
};

class Layer {
 public:
  Layer(int mode, void* handle);
  virtual ~Layer();
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  virtual void parseConfig(ConfigReader& cfg, InputParams& params);
  virtual int loadConfig(FILE* fp, InputParams& params);
  virtual int loadWeight(FILE* fp, bool quant) { return 0; }
  virtual int saveConfig(FILE* fp);
  virtual int saveWeight(FILE* fp) { return 0; }
  virtual void resize(InputParams& params) {}
  virtual void forward(NetworkParams& params) {}
  virtual void backward(NetworkParams& params) {}
  virtual void update(int batch, float rate, float momentum, float decay) {}
  virtual void _freeLayer();
  virtual void _makeLayer(bool quant, bool fast) {}

  int mode;
  int type = -1;
  float cost = -1;
  int _in_h = 0, _in_w = 0, _in_c = 0;
  int _inputs = 0;
  int _out_h = 0, _out_w = 0, _out_c = 0;
  int _outputs = 0;
  int _batch = 0;
  int _truths = 0;
  Ftype* _output = nullptr;
  Ftype* _delta = nullptr;
  size_t _workspace_size = 0;
  size_t _qinput_size = 0;
  size_t _flops = 0;
  void* _gpu_handle;
  int _weights = 0;
  Ftype* _weight = nullptr;
  Ftype* _weight_update = nullptr;
  Ftype* _bias = nullptr;
  Ftype* _bias_update = nullptr;
  char* _qweight = nullptr;
  float _qscale = 0;
  float _iqthresh_init = 0;
  float _iqthresh = 0;
  int _totruth = 0;
  float _learning_rate_scale = 1;
  float _smooth = 0;
  // Kept for the record layout only: the convolution plan holds the descriptors it uses and
  // nothing sets these. Entry b describes a pass of b samples (1 .. _batch).
  cudnnTensorStruct** _srcTensorDesc = nullptr;
  cudnnTensorStruct** _dstTensorDesc = nullptr;
  cudnnTensorStruct* _dsrcTensorDesc = nullptr;
  cudnnTensorStruct* _ddstTensorDesc = nullptr;
  cudnnTensorStruct* _normTensorDesc = nullptr;
  cudnnTensorStruct* _biasTensorDesc = nullptr;
  cudnnFilterStruct* _weightDesc = nullptr;
  cudnnFilterStruct* _dweightDesc = nullptr;
  cudnnFilterStruct* _qweightDesc = nullptr;
};

// Maps section names and stored type ids to new layer objects.
class LayerType {
 public:
  // Null for "network" and "train" (silently) and for an unknown name (with a line on stdout).
  static Layer* create(const char* str, int mode, Layer* prev_l, void* handle);
  // Null for an id without a class.
  static Layer* create(int type, int mode, Layer* prev_l, void* handle);
  // Type id of a section name, -1 when it names no layer.
  static int type(const char* str);
  // Section name of a type id, "?" when it has no class.
  static const char* name(int type);
};

enum LayerTypeId {
  LAYER_CONVOLUTION = 0,
  LAYER_FCONN = 2,
  LAYER_MAXPOOL = 3,
  LAYER_SOFTMAX = 4,
  LAYER_DROPOUT = 6,
  LAYER_ROUTE = 8,
  LAYER_COST = 9,
  LAYER_AVGPOOL = 11,
  LAYER_SHORTCUT = 13,
  LAYER_ACTIVATION = 14,
  LAYER_BATCHNORM = 19,
  LAYER_REGION = 21,
  LAYER_REORG = 22,
  LAYER_UPSAMPLE = 23,
  LAYER_SPRESIZE = 24,
  LAYER_SCALEMAP = 25,
  LAYER_ATTENTION = 26,
  LAYER_DYNACT = 27,
  LAYER_SMERGE = 28,
  LAYER_QREGION = 29,
  LAYER_HEATMAP = 30,
  LAYER_DETOBJ = 31,
  LAYER_YOLO = 32,
  LAYER_RESIZE = 33,
  LAYER_CENTERNET = 34,
  LAYER_CMAXPOOL = 35,
  LAYER_GROUTE = 36,
};

// Per-channel normalisation owned by a layer: normalises the layer's output, scales it and
// adds the layer's own bias; in inference it can fold itself into the layer's weights.
class Batchnorm {
 public:
  // outputs: the layer's batch * outputs; mode non-zero means training.
  Batchnorm(int n, int outputs, int mode, void* handle);
  ~Batchnorm();
  Batchnorm(const Batchnorm&) = delete;
  Batchnorm& operator=(const Batchnorm&) = delete;

  int loadWeight(FILE* fp);
  int saveWeight(FILE* fp);
  void forward(Layer* l, int batch, int n, int size);
  void backward(Layer* l, int batch);
  void update(int n, float rate, float momentum);
  // Folds the running statistics into l's bias and weights; size is weights per filter.
  void scale(Layer* l, int n, int size);

  void* _gpu_handle;
  int _mode;
  Ftype* _scale = nullptr;
  Ftype* _scale_update = nullptr;
  Ftype* _mean = nullptr;
  Ftype* _mean_delta = nullptr;
  Ftype* _mean_rolling = nullptr;
  Ftype* _var = nullptr;
  Ftype* _var_delta = nullptr;
  Ftype* _var_rolling = nullptr;
  Ftype* _x = nullptr;
  Ftype* _xnorm = nullptr;
  int _n;
  // Float copies of the per-channel tensors for the device library (training only).
  float* _param32 = nullptr;
};

}  // namespace ORVA

ORVA_API_END
