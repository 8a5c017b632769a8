#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cstdlib>

#include "layer/heatmap_layer.h"
#include "orva/networks.h"
#include "orva/util.h"

namespace ORVA {

namespace {
constexpr float kDefaultThresh = 0.3f;
constexpr float kMinThresh = 0.001f;

HeatmapLayer* heatmap_of(Network* net) { return static_cast<HeatmapLayer*>(net->getOutputLayer()); }
}  // namespace

HeatmapNetwork::~HeatmapNetwork() { _freeHeatmap(); }

int HeatmapNetwork::load(const char* path_cfg, const char* path_weight, bool quant, bool fast) {
  const int r = Network::load(path_cfg, path_weight, quant, fast);
  if (r == 0) _makeHeatmap();
  return r;
}

int HeatmapNetwork::load(const char* path_net, bool quant, bool fast) {
  const int r = Network::load(path_net, quant, fast);
  if (r == 0) _makeHeatmap();
  return r;
}

void HeatmapNetwork::resize(int w, int h) {
  Network::resize(w, h);
  _makeHeatmap();
}

void HeatmapNetwork::_makeHeatmap() {
  Layer* top = getOutputLayer();
  if (!top || top->type != LAYER_HEATMAP) ORVA_FATAL("top layer is not LayerType::Heatmap");
  _freeHeatmap();
  _gridsz = heatmap_of(this)->getHeatmapOutputNum();
  _prob = static_cast<float*>(calloc((size_t)_gridsz * nBatch, sizeof(float)));
  _cid = static_cast<int*>(calloc((size_t)_gridsz * nBatch, sizeof(int)));
}

void HeatmapNetwork::_freeHeatmap() {
  free(_prob);
  free(_cid);
  _prob = nullptr;
  _cid = nullptr;
  _gridsz = 0;
}

int HeatmapNetwork::getClassNum() { return _gridsz ? heatmap_of(this)->getClassNum() : 0; }

void HeatmapNetwork::setParameter(unsigned int key, float thresh) { _thresh[key] = std::max(thresh, kMinThresh); }

void HeatmapNetwork::_heatmapOne(const float* output, int k, cv::Mat& map, int cid, float thresh) {
  if (!_gridsz) return;
  HeatmapLayer* top = heatmap_of(this);
  float* prob = _prob + (size_t)k * _gridsz;
  int* cls = _cid + (size_t)k * _gridsz;
  top->getHeatmap(const_cast<float*>(output), thresh, prob, cls);
  const int s = top->_subdiv;
  map.create(s * top->_out_h, s * top->_out_w, CV_8UC1);
  unsigned char* px = map.ptr<unsigned char>(0);
  const int count = map.rows * map.cols;
  for (int i = 0; i < count; ++i)
    px[i] = cls[i] == cid ? (unsigned char)std::min(255, std::max(0, (int)(prob[i] * 255.0))) : 0;
}

void HeatmapNetwork::getHeatmap(float* output, cv::Mat& map, int cid, float thresh) {
  _heatmapOne(output, 0, map, cid, std::max(thresh, kMinThresh));
}

void HeatmapNetwork::getHeatmap(float* output, cv::Mat* maps, int* cids, unsigned int* keys, int n) {
  n = std::min(n, nBatch);
  if (n < 1) return;
  const int outputs = getOutputs();
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), [&](const tbb::blocked_range<int>& r) {
    for (int k = r.begin(); k < r.end(); ++k) {
      float thresh = kDefaultThresh;
      if (keys) {
        auto t = _thresh.find(keys[k]);
        if (t != _thresh.end()) thresh = t->second;
      }
      _heatmapOne(output + (size_t)k * outputs, k, maps[k], cids[k], thresh);
    }
  });
}

}  // namespace ORVA
