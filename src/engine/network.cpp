#include "orva/orva.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>

#include "backend/device_error.h"
#include "base/checked_size.h"
#include "base/chksum.h"
#include "orva/config.h"

namespace ORVA {

namespace {
constexpr char kMagic[8] = {'O', 'R', 'V', 'A', ' ', ' ', ' ', ' '};
constexpr int kEngineVersion = (ORVA_MAJOR_VERSION << 16) | ORVA_MINOR_VERSION;
constexpr const char* kSummaryHeader =
    "LAYER      FILTER     SIZE          INPUT                 OUTPUT        FLOPS\n";

struct FileCloser {
  void operator()(FILE* f) const {
    if (f) fclose(f);
  }
};
typedef std::unique_ptr<FILE, FileCloser> FilePtr;

FilePtr open_model(const char* path, const char* how) {
  FILE* f = path ? fopen(path, how) : nullptr;
  if (!f) throw std::runtime_error("Can't open model file");
  return FilePtr(f);
}

// (major << 16) | minor as the bits of an int; shifted unsigned so a negative major can't
// overflow the shift.
int header_version(const ModelHeader& h) {
  return (int)(((uint32_t)(uint16_t)h.major << 16) | (uint16_t)h.minor);
}

// A model file of fewer than 64 bytes has no header; returns false then.
bool read_header(const char* path, ModelHeader& h) {
  FilePtr f = open_model(path, "rb");
  return fread(&h, 1, sizeof(h), f.get()) == sizeof(h);
}

void read_int(FILE* fp, int& v) { chk_fread(&v, 4, 1, fp); }

long long file_size(FILE* f) {
  const long pos = ftell(f);
  if (pos < 0 || fseek(f, 0, SEEK_END) != 0) return -1;
  const long end = ftell(f);
  fseek(f, pos, SEEK_SET);
  return end;
}

// Why a built layer breaks the network-wide bounds, or empty. `elements` accumulates the
// outputs and weights of the layers so far.
std::string layer_bounds_fault(const Layer* l, int64_t& elements) {
  char why[200];
  const int64_t outputs = checked_product({l->_batch, l->_outputs}, kMaxTensorElements);
  if (l->_batch < 0 || l->_outputs < 0 || outputs < 0) {
    snprintf(why, sizeof(why), "output of batch %d x %d elements exceeds %lld", l->_batch, l->_outputs,
             (long long)kMaxTensorElements);
    return why;
  }
  if (l->_weights < 0 || l->_weights > kMaxTensorElements) {
    snprintf(why, sizeof(why), "weights %d exceed %lld", l->_weights, (long long)kMaxTensorElements);
    return why;
  }
  elements += outputs + l->_weights;
  if (elements > kMaxNetworkElements) {
    snprintf(why, sizeof(why), "the layers so far need %lld elements, more than %lld", (long long)elements,
             (long long)kMaxNetworkElements);
    return why;
  }
  if (l->_workspace_size > (size_t)kMaxWorkspaceBytes || l->_qinput_size > (size_t)kMaxWorkspaceBytes) {
    snprintf(why, sizeof(why), "workspace %zu bytes, 8-bit input %zu bytes exceed %lld", l->_workspace_size,
             l->_qinput_size, (long long)kMaxWorkspaceBytes);
    return why;
  }
  return "";
}
}  // namespace

Network::Network(int mode, int batch, int gpu_index)
    : mode(mode), nBatch(batch < 1 ? 1 : batch), _gpu_index(gpu_index), _gpu_handle(&_handle) {
  if (create_handle(&_handle, gpu_index) != BackendKind::CUDA) _gpu_index = -1;
  ORVA_MSG(ALERT, "[ORVA v%d.%d]\n", ORVA_MAJOR_VERSION, ORVA_MINOR_VERSION);
}

Network::~Network() {
  _deleteLayers();
  _freeNetwork();
  destroy_handle(&_handle);
}

void Network::_deleteLayers() {
  for (Layer* l : _layers) delete l;
  _layers.clear();
  _loutput = nullptr;
}

Layer* Network::getLayer(int i) {
  if (i < 0) return _loutput;
  if (i < (int)_layers.size()) return _layers[i];
  return nullptr;
}

// --- Construction from a description ------------------------------------------------------

int Network::load(const char* path_cfg, const char* path_weight, bool quant, bool fast) {
  try {
    const int built = _parseConfig(path_cfg, quant, fast);
    if (built != 0 || !path_weight || !*path_weight) return built;
    _loadWeights(path_weight, quant);
  } catch (...) {
    // A network that could not be built completely is never left half usable.
    _deleteLayers();
    _freeNetwork();
    throw;
  }
  return 0;
}

int Network::loadText(const std::string& cfg_text, const void* weights, size_t weight_bytes, bool quant,
                      bool fast) {
  try {
    ConfigReader cfg;
    const int built = _buildConfig(cfg, cfg.loadText(cfg_text), "(in memory)", quant, fast);
    if (built != 0 || !weights) return built;
    FILE* raw = weight_bytes ? fmemopen(const_cast<void*>(weights), weight_bytes, "rb") : nullptr;
    if (!raw) throw std::runtime_error("Can't open weights file (in memory, " + std::to_string(weight_bytes) + " bytes)");
    FilePtr f(raw);
    _readWeights(f.get(), "(in memory)", quant);
  } catch (...) {
    _deleteLayers();
    _freeNetwork();
    throw;
  }
  return 0;
}

void Network::_loadWeights(const char* path, bool quant) {
  FILE* raw = fopen(path, "rb");
  if (!raw) throw std::runtime_error(std::string("Can't open weights file ") + path);
  FilePtr f(raw);
  _readWeights(f.get(), path, quant);
}

void Network::_readWeights(FILE* fp, const char* path, bool quant) {
  const long long bytes = file_size(fp);
  int layer = -1;
  try {
    int leading[3];
    chk_fread(leading, 4, 3, fp);
    uint64_t seen = 0;
    chk_fread(&seen, 8, 1, fp);
    _seen = (size_t)seen;
    for (layer = 0; layer < (int)_layers.size(); ++layer) {
      Layer* l = _layers[layer];
      layer_step(LayerType::name(l->type), layer, "loading weights", [&] { l->loadWeight(fp, quant); });
    }
  } catch (size_t) {
    if (layer < 0)
      ORVA_ERROR("weights file %s has %lld bytes, fewer than the 20 of its header", path, bytes);
    else
      ORVA_ERROR("weights file %s has %lld bytes and ends inside the weights of layer %d", path, bytes, layer);
    throw;
  }
  const long long used = ftell(fp);
  if (bytes > used)
    ORVA_MSG(WARNING, "WARNING: weights file %s has %lld bytes, the network reads %lld of them\n", path, bytes,
             used);
}

int Network::_parseConfig(const char* path, bool quant, bool fast) {
  ConfigReader cfg;
  return _buildConfig(cfg, path ? cfg.load(path) : -1, path ? path : "(null)", quant, fast);
}

int Network::_buildConfig(ConfigReader& cfg, int read, const char* path, bool quant, bool fast) {
  if (read < 0) {
    ORVA_ERROR("can't read the description %s", path);
    throw std::runtime_error("Can't open config file");
  }
  if (read > 0) {
    throw std::runtime_error(std::string("Can't parse config file ") + path + ", line " + std::to_string(read) +
                             ": neither a [section] nor a key=value pair");
  }
  _deleteLayers();
  _freeNetwork();
  const int ns = cfg.findSection("network", 0);
  if (ns < 0) return -1;
  const char* side_keys[3] = {"width", "height", "channels"};
  int* sides[3] = {&iW, &iH, &iC};
  for (int k = 0; k < 3; ++k) {
    *sides[k] = cfg.findInt(ns, side_keys[k], 0, true);
    if (*sides[k] < 0 || *sides[k] > kMaxInputSide)
      ORVA_FATAL("network: %s %d out of range 0..%d", side_keys[k], *sides[k], kMaxInputSide);
  }
  const int64_t product = checked_product({iW, iH, iC}, kMaxTensorElements);
  if (product < 0) {
    ORVA_FATAL("network: input %d x %d x %d exceeds %lld elements", iW, iH, iC, (long long)kMaxTensorElements);
  }
  _inputs = cfg.findInt(ns, "inputs", (int)product, true);
  if (_inputs < 0 || _inputs > kMaxTensorElements)
    ORVA_FATAL("network: inputs %d out of range 0..%lld", _inputs, (long long)kMaxTensorElements);
  if (_inputs == 0 && (!iW || !iH || !iC)) {
    ORVA_FATAL("No input parameters supplied");
  }
  const char* precision = cfg.findStr(ns, "precision", "fp32", true);
  if (strcmp(precision, "fp32") == 0) {
    _precision = FP32;
  } else if (strcmp(precision, "fp16") == 0) {
    _precision = FP16;
  } else if (strcmp(precision, "int8") == 0) {
    _precision = INT8;
  } else {
    ORVA_MSG(WARNING, "Couldn't find precision %s, going with fp32\n", precision);
    _precision = FP32;
  }
  _siamese = cfg.findInt(ns, "siamese", 1, true);
  if (_siamese < 1 || _siamese > kMaxSiamese) {
    ORVA_FATAL("network: siamese %d out of range 1..%d", _siamese, kMaxSiamese);
  }
  const int ts = cfg.findSection("train", 0);
  if (ts >= 0) {
    // The training parameters proper belong to the training loop; the batch is what
    // construction needs from them.
    mode = TRAIN;
    parse_train_options(_tparams, cfg);
    nBatch = std::max(1, cfg.findInt(ts, "batch", nBatch, true));
  }
  const int64_t sample = std::max<int64_t>(_inputs, product);
  if (checked_product({nBatch, _siamese, sample}, kMaxTensorElements) < 0) {
    ORVA_FATAL("network: batch %d x siamese %d x %lld input elements exceeds %lld", nBatch, _siamese,
               (long long)sample, (long long)kMaxTensorElements);
  }

  _quant = quant;
  _fast = fast;
  ORVA_MSG(INFO, "%s", kSummaryHeader);
  const auto make = [&](int s, InputParams& params) -> Layer* {
    const char* name = cfg.getSectionName(s);
    Layer* l = LayerType::create(name, mode, _layers.empty() ? nullptr : _layers.back(), _gpu_handle);
    if (!l) return nullptr;
    if ((int)_layers.size() >= kMaxLayers) {
      delete l;
      ORVA_FATAL("network: more than %d layers", kMaxLayers);
    }
    params.nsect = s;
    params.index = (int)_layers.size();
    ORVA_MSG(INFO, "%4d  ", params.index);
    _layers.push_back(l);  // owned from here on, even if its configuration fails
    layer_step(cfg.getSectionName(s), params.index, "building", [&] { l->parseConfig(cfg, params); });
    return l;
  };
  const auto fault = [&](const InputParams& params, Layer*, const std::string& why) {
    ORVA_FATAL("%s (layer %d): %s", cfg.getSectionName(params.nsect), params.index, why.c_str());
  };
  const ChainNeeds needs = _buildChain(_firstInputParams(), cfg.getSectionSize(), make, fault);
  if (_layers.empty()) throw std::runtime_error(std::string("Network description has no layers: ") + path);
  _makeNetwork(needs.workspace, needs.qinput);
  return 0;
}

void Network::_makeNetwork(size_t workspace_size, size_t qinput_size) {
  _freeNetwork();
  _loutput = _layers.empty() ? nullptr : _layers.back();
  for (int i = (int)_layers.size() - 1; i > 0 && _loutput->type == LAYER_COST; --i) _loutput = _layers[i - 1];
  _outputs = _loutput ? _loutput->_outputs : 0;
  oH = _loutput ? _loutput->_out_h : 0;
  oW = _loutput ? _loutput->_out_w : 0;
  oC = _loutput ? _loutput->_out_c : 0;
  void* h = _gpu_handle;
  // A resized non-square input counts h x h x c elements; the tensor still holds the image.
  // Both builders bounded every count used here, so the products can't wrap.
  const size_t sample = std::max((size_t)_inputs, (size_t)iW * iH * iC);
  _input = cuda_malloc(h, 2 * (size_t)nBatch * sample * _siamese);
  _input_raw = static_cast<unsigned char*>(cuda_malloc(h, sample * _siamese));
  _input_raws = _inputs;
  _omem_dev = static_cast<float*>(cuda_malloc(h, 4 * (size_t)_outputs * nBatch));
  _omem = static_cast<float*>(cuda_malloc_host(h, 4 * (size_t)nBatch * _outputs));
  _output = _omem;
  if (mode == TRAIN) {
    _truths = _loutput ? (_loutput->_truths ? _loutput->_truths : _loutput->_outputs) : 0;
    // Every cost layer reads truth for its own outputs, which need not be the output layer's.
    int per_sample = _truths;
    for (Layer* l : _layers)
      if (l->type == LAYER_COST) per_sample = std::max(per_sample, l->_outputs);
    if (checked_product({nBatch, _siamese, per_sample}, kMaxTensorElements) < 0)
      throw std::runtime_error("network: batch " + std::to_string(nBatch) + " x siamese " + std::to_string(_siamese) +
                               " x truths " + std::to_string(per_sample) + " exceeds " +
                               std::to_string(kMaxTensorElements));
    // A pass carries batch x siamese samples, and the cost layers read truth for each of them.
    _truth = static_cast<float*>(calloc((size_t)nBatch * _siamese * per_sample + 1, 4));
    if (!_truth) throw std::bad_alloc();
  }
  if (workspace_size) _workspace = cuda_malloc(h, workspace_size);
  if (qinput_size) _qinput = cuda_malloc(h, _siamese * qinput_size);
}

void Network::_freeNetwork() {
  void* h = _gpu_handle;
  void** device[] = {&_workspace, &_qinput, &_input, reinterpret_cast<void**>(&_input_raw),
                     reinterpret_cast<void**>(&_omem_dev), reinterpret_cast<void**>(&_input_f32)};
  for (void** p : device) {
    if (*p) cuda_free(h, *p);
    *p = nullptr;
  }
  if (_omem) cuda_free_host(h, _omem);
  free(_truth);
  _omem = _output = _truth = nullptr;
  _input_raws = 0;
}

void Network::resize(int w, int h) {
  if (_layers.empty()) throw std::runtime_error("resize: the network is not built");
  if (w < 1 || h < 1 || w > kMaxInputSide || h > kMaxInputSide ||
      checked_product({nBatch, _siamese, std::max(h, w), h, iC}, kMaxTensorElements) < 0)
    throw std::invalid_argument("resize: " + std::to_string(w) + " x " + std::to_string(h) + " x " +
                                std::to_string(iC) + " is out of range");
  iH = h;
  iW = w;
  _inputs = h * h * iC;  // square inputs are what resizing is for
  try {
    const auto make = [&](int i, InputParams& params) -> Layer* {
      layer_step(LayerType::name(_layers[i]->type), i, "resizing", [&] { _layers[i]->resize(params); });
      return _layers[i];
    };
    const auto fault = [](const InputParams&, Layer*, const std::string& why) {
      throw std::runtime_error("resize: " + why);
    };
    const ChainNeeds needs = _buildChain(_firstInputParams(), (int)_layers.size(), make, fault);
    _makeNetwork(needs.workspace, needs.qinput);
  } catch (...) {
    // Some layers have the new shape and some the old one: nothing of it can run.
    _deleteLayers();
    _freeNetwork();
    throw;
  }
}

// --- Inference ------------------------------------------------------------------------

void Network::_forward(int batch) {
  NetworkParams params;
  params.workspace = static_cast<Ftype*>(_workspace);
  params.input = static_cast<Ftype*>(_input);
  params.qinput = static_cast<char*>(_qinput);
  params.truth = _truth;
  params.net = this;
  params.batch = _siamese * batch;
  params.siamese = _siamese;
  if (_layer_timer) {
    // Each layer on its own: the backend is drained before and after it.
    cuda_sync(_gpu_handle);
    for (size_t i = 0; i < _layers.size(); ++i) {
      const auto t0 = std::chrono::steady_clock::now();
      Layer* l = _layers[i];
      layer_step(LayerType::name(l->type), (int)i, "forward", [&] { l->forward(params); });
      cuda_sync(_gpu_handle);
      _layer_timer((int)i, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
      params.input = _layers[i]->_output;
      params.batch = _siamese * batch;
    }
    return;
  }
  for (size_t i = 0; i < _layers.size(); ++i) {
    Layer* l = _layers[i];
    layer_step(LayerType::name(l->type), (int)i, "forward", [&] { l->forward(params); });
    params.input = l->_output;
    params.batch = _siamese * batch;
  }
}

// Shape handed to the first layer: the input the network holds now, with the choices it was
// built with, so that a resize keeps the 8-bit path and the fast algorithm choice.
InputParams Network::_firstInputParams() {
  InputParams params;
  params.batch = _siamese * nBatch;
  params.inputs = _inputs;
  params.h = iH;
  params.w = iW;
  params.c = iC;
  params.quant = _quant;
  params.fast = _fast;
  params.net = this;
  return params;
}

Network::ChainNeeds Network::_buildChain(InputParams params, int count, const ChainStep& make,
                                         const ChainFault& fault) {
  ChainNeeds needs;
  int64_t elements = 0;
  for (int i = 0; i < count; ++i) {
    Layer* l = make(i, params);
    if (!l) continue;
    const std::string why = layer_bounds_fault(l, elements);
    if (!why.empty()) fault(params, l, why);
    params.batch = l->_batch;
    params.inputs = l->_outputs;
    params.h = l->_out_h;
    params.w = l->_out_w;
    params.c = l->_out_c;
    needs.workspace = std::max(needs.workspace, l->_workspace_size);
    needs.qinput = std::max(needs.qinput, l->_qinput_size);
  }
  return needs;
}

template <typename FillInput>
float* Network::_predict(int batch, FillInput fill_input) {
  if (!_loutput)
    throw std::runtime_error("predict: the network is not built (its load failed or never happened)");
  const int n = std::min(batch, nBatch);
  if (n < 1) return _output;
  void* h = _gpu_handle;
  fill_input(n);
  _forward(n);
  half2float_gpu(h, _omem_dev, _loutput->_output, (size_t)n * _outputs);
  cuda_pull(h, _omem, _omem_dev, 4 * (size_t)n * _outputs);
  cuda_sync(h);
  return _output;
}

float* Network::predict(int batch) {
  return _predict(batch, [](int) {});
}

float* Network::predict(float* img, int batch) {
  return _predict(batch, [&](int n) {
    const size_t count = (size_t)iW * iH * iC * n * _siamese;
    if (!_input_f32) _input_f32 = static_cast<float*>(cuda_malloc(_gpu_handle, (size_t)iW * iH * iC * nBatch * _siamese * 4));
    cuda_push(_gpu_handle, _input_f32, img, count * 4);
    float2half_gpu(_gpu_handle, _input_f32, static_cast<Ftype*>(_input), count);
  });
}

float* Network::predict(cv::Mat& img, int batch, int cgroup) {
  return _predict(batch, [&](int n) {
    const size_t needed = (size_t)_inputs * n * _siamese;
    if (img.depth() != CV_8U || !img.isContinuous() || img.total() * img.elemSize() < needed)
      throw std::invalid_argument("predict: the matrix must hold " + std::to_string(needed) +
                                  " continuous 8-bit values, it holds " + std::to_string(img.total() * img.elemSize()));
    if (_input_raws < nBatch * _inputs) {
      cuda_free(_gpu_handle, _input_raw);
      _input_raw = static_cast<unsigned char*>(cuda_malloc(_gpu_handle, (size_t)nBatch * _inputs * _siamese));
      _input_raws = nBatch * _inputs;
    }
    const int cc = cgroup == 0 ? 0 : (cgroup == -1 ? -iC : iC / cgroup);
    cvt_cv2data(_gpu_handle, img.data, static_cast<Ftype*>(_input), _input_raw, iW * iH, cc, cgroup, n * _siamese);
  });
}

float* Network::predict(cv::Mat* img, int batch) {
  return _predict(batch, [&](int n) {
    for (int k = 0; k < n * _siamese; ++k) {
      const cv::Mat& m = img[k];
      if (m.cols != iW || m.rows != iH || m.channels() != iC || m.depth() != CV_8U || !m.isContinuous())
        throw std::invalid_argument("predict: image " + std::to_string(k) + " is " + std::to_string(m.cols) + "x" +
                                    std::to_string(m.rows) + "x" + std::to_string(m.channels()) + ", the network takes " +
                                    std::to_string(iW) + "x" + std::to_string(iH) + "x" + std::to_string(iC) +
                                    " continuous 8-bit");
      cvt_cv2data(_gpu_handle, m.data, static_cast<Ftype*>(_input) + (size_t)k * _inputs, _input_raw, iW * iH, iC, 1, 1);
    }
  });
}

float* Network::predict(std::vector<cv::Mat>* img_vec, int batch) {
  return _predict(batch, [&](int n) {
    for (int k = 0; k < n * _siamese; ++k) {
      Ftype* dst = static_cast<Ftype*>(_input) + (size_t)k * _inputs;
      int filled = 0;
      for (const cv::Mat& m : img_vec[k]) {
        const int ch = m.channels();
        if (m.cols != iW || m.rows != iH || m.depth() != CV_8U || !m.isContinuous() || filled + ch > iC)
          throw std::invalid_argument("predict: list " + std::to_string(k) + " does not stack into " + std::to_string(iW) +
                                      "x" + std::to_string(iH) + "x" + std::to_string(iC) + " continuous 8-bit planes");
        cvt_cv2data(_gpu_handle, m.data, dst, _input_raw, iW * iH, ch, 1, 1);
        dst += (size_t)iW * iH * ch;
        filled += ch;
      }
    }
  });
}

// --- Model file -----------------------------------------------------------------------

unsigned int Network::getChecksum(const char* path) {
  FilePtr f = open_model(path, "rb");
  ModelHeader header;
  if (fread(&header, 1, sizeof(header), f.get()) != sizeof(header)) return 0;
  header.chksum = 0;
  unsigned int h = xxh32(&header, sizeof(header), 0);
  unsigned char block[1024];
  size_t n;
  while ((n = fread(block, 1, sizeof(block), f.get())) > 0) h = xxh32(block, (unsigned int)n, h);
  return h;
}

bool Network::testChecksum(const char* path) {
  ModelHeader header;
  if (!read_header(path, header)) return false;
  // Files before format 4.0 carry no checksum.
  if (header_version(header) < 0x40000) return true;
  const unsigned int computed = getChecksum(path);
  printf("CHECKSUM: %08x %08x\n", header.chksum, computed);
  return header.chksum == computed;
}

int Network::save(const char* path, bool unify) {
  ModelHeader header;
  memset(&header, 0, sizeof(header));
  {
    FilePtr f = open_model(path, "wb");
    FILE* fp = f.get();
    if (unify) {
      memcpy(header.magic, kMagic, sizeof(kMagic));
      header.major = ORVA_MAJOR_VERSION;
      header.minor = ORVA_MINOR_VERSION;
      header.rev = (unsigned int)time(nullptr);
      chk_fwrite(&header, sizeof(header), 1, fp);
      const int frame[6] = {iH, iW, iC, (int)_layers.size(), _precision, _siamese};
      chk_fwrite(frame, 4, 6, fp);
      for (Layer* l : _layers) {
        chk_fwrite(&l->type, 4, 1, fp);
        l->saveConfig(fp);
      }
    } else {
      const int leading[3] = {0, 2, 0};
      chk_fwrite(leading, 4, 3, fp);
      const uint64_t seen = _seen;
      chk_fwrite(&seen, 8, 1, fp);
    }
    for (Layer* l : _layers) l->saveWeight(fp);
  }
  if (unify) {
    header.chksum = getChecksum(path);
    FilePtr f = open_model(path, "r+b");
    chk_fwrite(&header, sizeof(header), 1, f.get());
  }
  return 0;
}

int Network::load(const char* path_net, bool quant, bool fast) {
  if (!testChecksum(path_net)) throw std::runtime_error("Invalid checksum");
  FilePtr f = open_model(path_net, "rb");
  ModelHeader header;
  if (fread(&header, 1, sizeof(header), f.get()) != sizeof(header) || memcmp(header.magic, kMagic, 8) != 0)
    throw std::runtime_error("Invalid model format");
  version = header_version(header);
  if (header.major < 0) throw std::runtime_error("Invalid model format: version " + std::to_string(header.major) + "." +
                                                 std::to_string(header.minor));
  if (version >= kEngineVersion + 1) throw std::runtime_error("Must engine version >= model version");
  char stamp[20] = "";
  const time_t rev = (time_t)header.rev;
  struct tm local;
  if (localtime_r(&rev, &local)) strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M", &local);
  snprintf(_version, sizeof(_version), "v%d.%d (%s)", header.major, header.minor, stamp);
  ORVA_MSG(ALERT, "ORVA Network %s\n", _version);
  try {
    _loadModel(f.get(), quant, fast);
  } catch (size_t) {
    _deleteLayers();
    _freeNetwork();
    throw std::runtime_error(std::string("Invalid model format: the file ends inside a record: ") + path_net);
  } catch (...) {
    _deleteLayers();
    _freeNetwork();
    throw;
  }
  return 0;
}

void Network::_loadModel(FILE* fp, bool quant, bool fast) {
  _loadConfig(fp, quant, fast);
  for (size_t i = 0; i < _layers.size(); ++i) {
    Layer* l = _layers[i];
    layer_step(LayerType::name(l->type), (int)i, "loading weights", [&] { l->loadWeight(fp, quant); });
  }
}

void Network::_loadConfig(FILE* fp, bool quant, bool fast) {
  _deleteLayers();
  _freeNetwork();
  read_int(fp, iH);
  read_int(fp, iW);
  read_int(fp, iC);
  int count = 0;
  read_int(fp, count);
  read_int(fp, _precision);
  if (version > 0x30002) read_int(fp, _siamese);
  char why[200];
  const int64_t sample = checked_product({iH, iW, iC}, kMaxTensorElements);
  if (iH < 0 || iW < 0 || iC < 0 || iH > kMaxInputSide || iW > kMaxInputSide || iC > kMaxInputSide || sample < 0) {
    snprintf(why, sizeof(why), "Invalid model format: input %d x %d x %d", iW, iH, iC);
    throw std::runtime_error(why);
  }
  if (count < 0 || count > kMaxLayers || _siamese < 1 || _siamese > kMaxSiamese ||
      checked_product({nBatch, _siamese, sample}, kMaxTensorElements) < 0) {
    snprintf(why, sizeof(why), "Invalid model format: %d layers, siamese %d, batch %d", count, _siamese, nBatch);
    throw std::runtime_error(why);
  }
  _inputs = (int)sample;
  _quant = quant;
  _fast = fast;
  ORVA_MSG(INFO, "%s", kSummaryHeader);
  const auto make = [&](int i, InputParams& params) -> Layer* {
    int type = -1;
    read_int(fp, type);
    Layer* l = LayerType::create(type, mode, _layers.empty() ? nullptr : _layers.back(), _gpu_handle);
    if (!l) {
      snprintf(why, sizeof(why), "Invalid model format: unknown layer type %d in record %d", type, i);
      throw std::runtime_error(why);
    }
    _layers.push_back(l);
    params.index = i;
    ORVA_MSG(INFO, "%4d  ", i);
    layer_step(LayerType::name(type), i, "building", [&] { l->loadConfig(fp, params); });
    return l;
  };
  const auto fault = [&](const InputParams& params, Layer* l, const std::string& fault) {
    snprintf(why, sizeof(why), "Invalid model format: record %d (type %d): %s", params.index, l->type,
             fault.c_str());
    throw std::runtime_error(why);
  };
  const ChainNeeds needs = _buildChain(_firstInputParams(), count, make, fault);
  _makeNetwork(needs.workspace, needs.qinput);
}

}  // namespace ORVA
