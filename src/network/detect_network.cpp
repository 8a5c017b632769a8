#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cstdlib>

#include "layer/detection_head.h"
#include "orva/networks.h"
#include "orva/util.h"

namespace ORVA {

namespace {
// What an image without parameters of its own is detected with.
constexpr float kDefaultThresh = 0.3f;
constexpr float kDefaultNms = 0.4f;
constexpr float kMinThresh = 0.001f;

// Every head a detect network accepts decodes boxes through the shared base.
DetectionHead* region_of(Network* net) { return static_cast<DetectionHead*>(net->getOutputLayer()); }
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
  if (type != LAYER_REGION && type != LAYER_QREGION && type != LAYER_DETOBJ && type != LAYER_CENTERNET)
    ORVA_FATAL("top layer is not LayerType::Region");
  _freeDetect();
  _gridsz = region_of(this)->getRegionOutputNum();
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
}

int DetectNetwork::getClassNum() { return _gridsz ? region_of(this)->getClassNum() : 0; }

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
  region_of(this)->getRegionBox(const_cast<float*>(output), thresh, prob, cid, box);
  if (nms > 0)
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
  region_of(this)->getRegionBox(const_cast<float*>(output), thresh, prob, cls, box);
  for (int i = 0; i < _gridsz; ++i) {
    if (!(prob[i] > thresh) || cls[i] != cid) continue;
    const int row = (int)(map.rows * box[i].y), col = (int)(map.cols * box[i].x);
    // Centres decoded outside the input have no pixel.
    if (row < 0 || row >= map.rows || col < 0 || col >= map.cols) continue;
    map.at<unsigned char>(row, col) = (unsigned char)std::min(255, (int)(prob[i] * 255.0));
  }
}

void DetectNetwork::getHeatmap(float* output, cv::Mat& map, int cid, float thresh) {
  _heatmapOne(output, 0, map, cid, std::max(thresh, kMinThresh));
}

void DetectNetwork::getHeatmap(float* output, cv::Mat* maps, int* cids, unsigned int* keys, int n) {
  n = std::min(n, nBatch);
  if (n < 1) return;
  const int outputs = getOutputs();
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), [&](const tbb::blocked_range<int>& r) {
    for (int k = r.begin(); k < r.end(); ++k) {
      float thresh, nms;
      _keyParams(keys, k, &thresh, &nms);
      _heatmapOne(output + (size_t)k * outputs, k, maps[k], cids[k], thresh);
    }
  });
}

}  // namespace ORVA
