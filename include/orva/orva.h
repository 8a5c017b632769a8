// The network, task and worker classes.
#pragma once
#include "orva/export.h"
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "orva/cuda.h"
#include "orva/data.h"
#include "orva/float16.h"
#include "orva/layer.h"
#include "orva/train.h"
#include "orva/util.h"

ORVA_API_BEGIN

#define ORVA_MAJOR_VERSION 4
#define ORVA_MINOR_VERSION 0

namespace ORVA {

// Header of the model file: 64 bytes, little-endian.
struct ModelHeader {
  char magic[8];
  short major;
  short minor;
  unsigned int rev;
  char _reserved[44];
  unsigned int chksum;
};
static_assert(sizeof(ModelHeader) == 64, "the model header is 64 bytes on disk");

// Read-only description of one layer of a built network.
struct LayerInfo {
  int type = -1;           // layer type id (LayerTypeId)
  const char* name = "?";  // its section name in a description
  int in_w = 0, in_h = 0, in_c = 0;
  int out_w = 0, out_h = 0, out_c = 0;
  size_t params = 0;  // weights, plus one bias per output channel where the layer has them
  size_t flops = 0;   // operations per frame
};

// Called after each layer of a pass with the layer's index and the milliseconds it took.
typedef std::function<void(int layer, double ms)> LayerTimer;

class Network {
 public:
  // gpu_index >= 0 asks for that CUDA device; a negative index runs on the host. A CUDA
  // request that can't be served falls back to the host with one WARNING line.
  Network(int mode, int batch, int gpu_index);
  virtual ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  // Builds from a text description, then reads a weights-only file when path_weight names one.
  // Returns -1 when the description has no "network" section. Throws std::runtime_error when
  // the description can't be read or parsed (naming the file and line) or the weights file
  // can't be opened, and the short count (size_t) when the weights file ends too early. Any
  // failure leaves the network empty: predict then refuses to run.
  virtual int load(const char* path_cfg, const char* path_weight, bool quant = false, bool fast = false);
  // The same from the text of a description and, when weights is not null, the bytes of a
  // weights-only file, both held in memory.
  int loadText(const std::string& cfg, const void* weights = nullptr, size_t weight_bytes = 0, bool quant = false,
               bool fast = false);
  // Builds from a model file; throws std::runtime_error on any fault of the file.
  virtual int load(const char* path_net, bool quant = false, bool fast = false);
  // unify: the model file; otherwise the weights-only file.
  virtual int save(const char* path, bool unify = true);

  // Every predict throws std::runtime_error on a network that was never built or whose load
  // failed. The caller has filled the input tensor already.
  virtual float* predict(int batch);
  // Planar floats laid out like the input tensor.
  virtual float* predict(float* img, int batch);
  // One 8-bit matrix holding the whole batch; cgroup: channel groups per sample.
  virtual float* predict(cv::Mat& img, int batch, int cgroup);
  // batch x siamese matrices, one per sample.
  virtual float* predict(cv::Mat* img, int batch);
  // batch x siamese lists; the matrices of a list are stacked along the channel axis.
  virtual float* predict(std::vector<cv::Mat>* img_vec, int batch);
  // One pass of stochastic gradient descent over every row of d (a multiple of the batch);
  // returns the mean cost per sample.
  virtual float train(TData& d);

  virtual void resize(int w, int h);
  // i < 0: the output layer; null outside the layer list.
  virtual Layer* getLayer(int i);
  virtual Layer* getOutputLayer() { return _loutput; }
  // i < 0: the output layer. Throws std::out_of_range outside the layer list.
  LayerInfo layerInfo(int i) const;
  // While a timer is set, every pass runs its layers one at a time, draining the backend
  // around each, and reports each layer's time; null removes it.
  void setLayerTimer(LayerTimer timer);
  virtual char* getVersion() { return _version; }
  virtual unsigned int getChecksum(const char* path);
  virtual bool testChecksum(const char* path);

  int getMode() const { return mode; }
  // The CUDA device serving this network; -1 on the host backend.
  int getGpuIndex() const { return _gpu_index; }
  int getBatch() const { return nBatch; }
  int getLayerCount() const { return (int)_layers.size(); }
  int getInputs() const { return _inputs; }
  int getOutputs() const { return _outputs; }
  int getSiamese() const { return _siamese; }
  int getPrecision() const { return _precision; }
  size_t getSeen() const { return _seen; }
  void setSeen(size_t seen) { _seen = seen; }
  Ftype* getInput() { return static_cast<Ftype*>(_input); }
  void* getHandle() { return _gpu_handle; }
  BackendKind getBackend() const { return handle_kind(_gpu_handle); }
  typedef ::TrainParams TrainParams;
  TrainParams& getTrainParams() { return _tparams; }
  int getTruths() const { return _truths; }
  float getCost() const { return _cost; }

  int version = 0;
  int mode;
  int iH = 0, iW = 0, iC = 0;
  int nBatch;
  int oH = 0, oW = 0, oC = 0;

 protected:
  int _parseConfig(const char* path, bool quant, bool fast);
  // Builds from a description already read into cfg (read: what its load returned).
  int _buildConfig(ConfigReader& cfg, int read, const char* path, bool quant, bool fast);
  void _loadConfig(FILE* fp, bool quant, bool fast);
  void _loadModel(FILE* fp, bool quant, bool fast);
  // Reads a weights-only file onto the built layers; a short file throws the short count.
  void _loadWeights(const char* path, bool quant);
  void _readWeights(FILE* fp, const char* path, bool quant);
  void _makeNetwork(size_t workspace_size, size_t qinput_size);
  void _freeNetwork();
  void _deleteLayers();
  void _forward(int batch);
  // Clamps the batch, lets fill_input(n) write the input tensor, runs the layers and
  // brings the output to the host.
  template <typename FillInput>
  float* _predict(int batch, FillInput fill_input);
  InputParams _firstInputParams();
  // The one place the layer chain is built, for descriptions, model files and resize:
  // make(i, params) creates or reshapes the layer at position i for the shape in params
  // (null: nothing there); each layer's tensors are checked against the limits (fault
  // reports a failure and does not return) and its output shape handed to the next.
  struct ChainNeeds {
    size_t workspace = 0, qinput = 0;
  };
  using ChainStep = std::function<Layer*(int, InputParams&)>;
  using ChainFault = std::function<void(const InputParams&, Layer*, const std::string&)>;
  ChainNeeds _buildChain(InputParams params, int count, const ChainStep& make, const ChainFault& fault);

  std::vector<Layer*> _layers;
  Layer* _loutput = nullptr;
  int _inputs = 0;
  int _outputs = 0;
  char _version[32] = {0};
  int _gpu_index;
  int _precision = FP32;
  int _siamese = 1;
  bool _quant = false, _fast = false;  // the build's choices, kept for resize
  void* _gpu_handle;
  int _truths = 0;
  void* _workspace = nullptr;
  void* _input = nullptr;
  void* _qinput = nullptr;
  float* _omem_dev = nullptr;
  float* _omem = nullptr;
  float* _output = nullptr;
  float* _truth = nullptr;
  unsigned char* _input_raw = nullptr;
  int _input_raws = 0;
  // Backend staging for predict(float*), grown once to a full batch.
  float* _input_f32 = nullptr;
  float _cost = 0;
  size_t _seen = 0;
  TrainParams _tparams;

 private:
  void _tforward();
  void _tbackward();
  void _tupdate();
  float _getCurrentRate();

  CudaHandle _handle;
  LayerTimer _layer_timer;
};

// Base of the asynchronous tasks: one worker thread runs the network on queued inputs. Callers
// on any thread feed the input queue and drain the output queue; a derived task decides what
// the items are. run, stop and destruction belong to the thread that owns the task.
class NetworkTask {
 public:
  // The flag is accepted for compatibility and has no effect.
  NetworkTask(Network* net, bool flag = false);
  // Stops the worker. Items still queued are the derived task's to release.
  virtual ~NetworkTask();
  NetworkTask(const NetworkTask&) = delete;
  NetworkTask& operator=(const NetworkTask&) = delete;

  // Queues one input; false when it was not taken. The base takes nothing.
  virtual bool process(TaskInput& in) { return false; }
  // Starts the worker unless one exists; always true.
  bool run();
  // Ends and joins the worker; inputs queued afterwards wait for the next run.
  void stop();

 protected:
  // The worker's body: returns once _run is false.
  virtual void _loopTask() {}

  Network* _net;
  std::unique_ptr<std::thread> _thread;
  std::queue<void*> _qinput;
  std::queue<void*> _qoutput;
  // Never held together: the worker publishes results without blocking producers.
  std::mutex _imutex;
  std::mutex _omutex;
  std::condition_variable _icv;  // input queued, or stop requested
  std::condition_variable _ocv;  // a result queued
  std::atomic<bool> _run{false};
};

// Detection on a worker thread: frames from any number of sources (TaskInput::id) are
// letterboxed into the network input, detected in batches of up to the network batch, and
// returned one result per accepted frame, in the order they were accepted. The source id is
// the network's parameter key, so DetectNetwork::setParameter sets per-source thresholds.
// The network must be a DetectNetwork, used by nobody else while the task runs.
class DetectTask : public NetworkTask {
 public:
  DetectTask(Network* net, bool flag = false);
  // Stops the worker and releases every frame and result still queued.
  ~DetectTask() override;
  // False, and the frame dropped, when 2 x batch frames are already waiting.
  bool process(TaskInput& in) override;
  // Never blocks: false when no result is waiting (out untouched).
  bool getResult(DetectTaskResult& out);

 protected:
  void _loopTask() override;
};

}  // namespace ORVA

ORVA_API_END
