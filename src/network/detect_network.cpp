#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cstdlib>

#include "layer/region_layer.h"
#include "layer/yolo_layer.h"
#include "orva/cuda.h"
#include "orva/networks.h"
#include "orva/util.h"

namespace ORVA {

namespace {
// What an image without parameters of its own is detected with.
constexpr float kDefaultThresh = 0.3f;
constexpr float kDefaultNms = 0.4f;
constexpr float kMinThresh = 0.001f;
}  // namespace

DetectNetwork::~DetectNetwork() { _freeDetect(); }

int DetectNetwork::load(const char* path_cfg, const char* path_weight, bool quant, bool fast) {
  const int r = Network::load(path_cfg, path_weight, quant, fast);
  if (r == 0) _makeDetect();
  return r;
}

int DetectNetwork::load(const char* path_net, bool quant, bool fast) {
  const int r = Network::load(path_net, quant, fast);
  if (r == 0) _makeDetect();
  return r;
}

void DetectNetwork::resize(int w, int h) {
  Network::resize(w, h);
  _makeDetect();
}

void DetectNetwork::_makeDetect() {
  Layer* top = getOutputLayer();
  const int type = top ? top->type : -1;
  if (type != LAYER_REGION && type != LAYER_QREGION && type != LAYER_DETOBJ && type != LAYER_YOLO &&
      type != LAYER_CENTERNET)
    ORVA_FATAL("top layer is not LayerType::Region");
  _freeDetect();
  size_t pulled = 0;
  if (type == LAYER_YOLO) {
    for (int i = 0; i + 1 < getLayerCount(); ++i)
      if (getLayer(i)->type == LAYER_YOLO) {
        _heads.push_back(static_cast<DetectionHead*>(getLayer(i)));
        pulled += (size_t)nBatch * getLayer(i)->_outputs;
      }
    // The top head's suppression settings hold for the network.
    const YoloLayer* y = static_cast<const YoloLayer*>(top);
    _classwise = true;
    _beta = y->_nms_kind == YoloLayer::kDiouNms ? y->_beta_nms : -1.f;
  }
  _heads.push_back(static_cast<DetectionHead*>(top));
  _head_out.assign(pulled, 0.f);
  _head_stage.assign(pulled, Ftype());
  for (DetectionHead* h : _heads) _gridsz += h->getRegionOutputNum();
  const size_t n = (size_t)_gridsz * nBatch;
  _prob = static_cast<float*>(calloc(n, sizeof(float)));
  _cid = static_cast<int*>(calloc(n, sizeof(int)));
  _rank = static_cast<int*>(calloc(n, sizeof(int)));
  _box = static_cast<BBox*>(calloc(n, sizeof(BBox)));
}

void DetectNetwork::_freeDetect() {
  free(_prob);
  free(_cid);
  free(_rank);
  free(_box);
  _prob = nullptr;
  _cid = _rank = nullptr;
  _box = nullptr;
  _gridsz = 0;
  _heads.clear();
  _head_out.clear();
  _head_stage.clear();
  _classwise = false;
  _beta = -1;
}

int DetectNetwork::getClassNum() { return _gridsz ? _heads.back()->getClassNum() : 0; }

void DetectNetwork::_pullHeads(int n) {
  if (_heads.size() < 2) return;
  size_t o = 0;
  for (size_t h = 0; h + 1 < _heads.size(); ++h) {
    const Layer* l = _heads[h];
    const size_t count = (size_t)n * l->_outputs;
    cuda_pull(_gpu_handle, _head_stage.data() + o, l->_output, count * sizeof(Ftype));
    o += (size_t)nBatch * l->_outputs;
  }
  cuda_sync(_gpu_handle);
  o = 0;
  for (size_t h = 0; h + 1 < _heads.size(); ++h) {
    const size_t count = (size_t)n * _heads[h]->_outputs;
    half2float_cpu(_head_out.data() + o, reinterpret_cast<const _half*>(_head_stage.data() + o), count);
    o += (size_t)nBatch * _heads[h]->_outputs;
  }
}

void DetectNetwork::_decode(const float* output, int k, float* prob, int* cid, BBox* box) {
  size_t o = 0, row = 0;
  for (size_t h = 0; h < _heads.size(); ++h) {
    DetectionHead* head = _heads[h];
    const float* out = h + 1 == _heads.size() ? output : _head_out.data() + o + (size_t)k * head->_outputs;
    head->getRegionBox(const_cast<float*>(out), 0, prob + row, cid + row, box + row);
    row += head->getRegionOutputNum();
    o += (size_t)nBatch * head->_outputs;
  }
}

void DetectNetwork::setParameter(unsigned int key, float thresh, float nms) {
  _thresh[key] = std::max(thresh, kMinThresh);
  _nms[key] = nms;
}

void DetectNetwork::_keyParams(const unsigned int* keys, int k, float* thresh, float* nms) const {
  *thresh = kDefaultThresh;
  *nms = kDefaultNms;
  if (!keys) return;
  auto t = _thresh.find(keys[k]);
  if (t == _thresh.end()) return;
  *thresh = t->second;
  auto s = _nms.find(keys[k]);
  if (s != _nms.end()) *nms = s->second;
}

void DetectNetwork::_detectOne(const float* output, int k, DetectObjList& objs, const cv::Size& size, float thresh,
                               float nms) {
  if (!_gridsz) return;
  const size_t o = (size_t)k * _gridsz;
  float* prob = _prob + o;
  int* cid = _cid + o;
  int* rank = _rank + o;
  BBox* box = _box + o;
  _decode(output, k, prob, cid, box);
  if (nms > 0 && _classwise)
    box_nms_class(box, prob, cid, rank, _gridsz, nms, thresh, _beta);
  else if (nms > 0)
    box_nms(box, prob, rank, _gridsz, nms, thresh);
  else
    box_nms_soft(box, prob, rank, _gridsz, thresh);
  box_correct(objs, prob, cid, box, rank, _gridsz, thresh, size.width, size.height, iW, iH);
}

float* DetectNetwork::detect(DetectObjList& objs, cv::Mat& frame, cv::Size& size, float thresh, float nms) {
  float* out = predict(&frame, 1);
  getDetect(out, objs, frame, size, thresh, nms);
  return out;
}

void DetectNetwork::getDetect(float* output, DetectObjList& objs, cv::Mat& frame, cv::Size& size, float thresh,
                              float nms) {
  _pullHeads(1);
  _detectOne(output, 0, objs, size, std::max(thresh, kMinThresh), nms);
}

float* DetectNetwork::detect(DetectObjList* objs, cv::Mat* frames, cv::Size* sizes, unsigned int* keys, int n) {
  if (n < 1) return nullptr;
  float* out = predict(frames, n);
  getDetect(out, objs, frames, sizes, keys, n);
  return out;
}

void DetectNetwork::getDetect(float* output, DetectObjList* objs, cv::Mat* frames, cv::Size* sizes,
                              unsigned int* keys, int n) {
  // More images than the network's batch have no candidate slices to work in.
  n = std::min(n, nBatch);
  if (n < 1) return;
  const int outputs = getOutputs();
  _pullHeads(n);
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), [&](const tbb::blocked_range<int>& r) {
    for (int k = r.begin(); k < r.end(); ++k) {
      float thresh, nms;
      _keyParams(keys, k, &thresh, &nms);
      _detectOne(output + (size_t)k * outputs, k, objs[k], sizes[k], thresh, nms);
    }
  });
}

void DetectNetwork::_heatmapOne(const float* output, int k, cv::Mat& map, int cid, float thresh) {
  map = cv::Mat::zeros(2 * oH, 2 * oW, CV_8UC1);
  if (!_gridsz) return;
  const size_t o = (size_t)k * _gridsz;
  float* prob = _prob + o;
  int* cls = _cid + o;
  BBox* box = _box + o;
  _decode(output, k, prob, cls, box);
  for (int i = 0; i < _gridsz; ++i) {
    if (!(prob[i] > thresh) || cls[i] != cid) continue;
    const int row = (int)(map.rows * box[i].y), col = (int)(map.cols * box[i].x);
    // Centres decoded outside the input have no pixel.
    if (row < 0 || row >= map.rows || col < 0 || col >= map.cols) continue;
    map.at<unsigned char>(row, col) = (unsigned char)std::min(255, (int)(prob[i] * 255.0));
  }
}

void DetectNetwork::getHeatmap(float* output, cv::Mat& map, int cid, float thresh) {
  _pullHeads(1);
  _heatmapOne(output, 0, map, cid, std::max(thresh, kMinThresh));
}

void DetectNetwork::getHeatmap(float* output, cv::Mat* maps, int* cids, unsigned int* keys, int n) {
  n = std::min(n, nBatch);
  if (n < 1) return;
  const int outputs = getOutputs();
  _pullHeads(n);
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), [&](const tbb::blocked_range<int>& r) {
    for (int k = r.begin(); k < r.end(); ++k) {
      float thresh, nms;
      _keyParams(keys, k, &thresh, &nms);
      _heatmapOne(output + (size_t)k * outputs, k, maps[k], cids[k], thresh);
    }
  });
}

}  // namespace ORVA
