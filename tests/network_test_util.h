// Helpers shared by the network, convolution and model-file tests: description files, tensor
// transfers, random parameters and a float64 reference of the convolution layer.
#pragma once
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "graph_reference.h"
#include "harness.h"
#include "temp_dir.h"
#include "layer/convolution_layer.h"
#include "orva/orva.h"

namespace orva_test {

inline std::string data_path(const char* name) { return std::string(ORVA_TEST_DATA) + "/" + name; }

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string text(const std::string& path) {
  std::ifstream f(path);
  return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline std::vector<unsigned char> read_bytes(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<unsigned char>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline void write_bytes(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

inline std::vector<Ftype> pull(void* handle, const Ftype* p, size_t n) {
  std::vector<Ftype> v(n);
  cuda_pull(handle, v.data(), p, n * sizeof(Ftype));
  cuda_sync(handle);
  return v;
}

inline void push(void* handle, Ftype* p, const std::vector<Ftype>& v) {
  cuda_push(handle, p, v.data(), v.size() * sizeof(Ftype));
  cuda_sync(handle);
}

inline ORVA::ConvolutionLayer* conv_at(ORVA::Network& net, int i) {
  return dynamic_cast<ORVA::ConvolutionLayer*>(net.getLayer(i));
}

// Weights scaled to the fan-in so activations stay near unit size through a stack.
inline void randomize_conv(ORVA::ConvolutionLayer* l) {
  void* h = l->_gpu_handle;
  const float s = 1.5f / std::sqrt((float)(l->_weights / l->_kn));
  push(h, l->_weight, random_halves(l->_weights, -s, s));
  push(h, l->_bias, random_halves(l->_kn, -0.2f, 0.2f));
  if (l->_bn) {
    push(h, l->_bn->_scale, random_halves(l->_kn, 0.5f, 1.5f));
    push(h, l->_bn->_mean_rolling, random_halves(l->_kn, -0.3f, 0.3f));
    push(h, l->_bn->_var_rolling, random_halves(l->_kn, 0.5f, 2.0f));
  }
}

inline void randomize_network(ORVA::Network& net) {
  for (int i = 0; i < net.getLayerCount(); ++i)
    if (ORVA::ConvolutionLayer* l = conv_at(net, i)) randomize_conv(l);
}

inline std::vector<float> predict_copy(ORVA::Network& net, std::vector<float> input, int batch) {
  const float* out = net.predict(input.data(), batch);
  const int n = std::min(batch, net.getBatch());
  return std::vector<float>(out, out + (size_t)n * net.getOutputs());
}

// The analytic detector: a 1 x 1 convolution before a region head on a 16 x 12 input (grid =
// input). Anchor 0 (1 x 2.5 cells) lights up where the frame is red, anchor 1 (3 x 1 cells)
// where it is blue: objectness logistic(8 x colour - 4); class 1 wins where it is also green.
inline const char* kAnalyticDetectorCfg =
    "[network]\nwidth=16\nheight=12\nchannels=3\n"
    "[convolution]\nfilters=14\nsize=1\nactivation=linear\n"
    "[region]\nclasses=2\nnum=2\nanchors=1.015625,2.515625, 3.015625,1.015625\n";

inline void set_analytic_detector_weights(ORVA::Network& net) {
  auto* conv = conv_at(net, 0);
  std::vector<float> w(14 * 3, 0.f), b(14, 0.f);
  for (int n = 0; n < 2; ++n) {
    const int base = n * 7;  // x, y, w, h, objectness, class 0, class 1
    w[(base + 4) * 3 + (n == 0 ? 0 : 2)] = 8.f;  // plane 0 is red, plane 2 blue
    b[base + 4] = -4.f;
    b[base + 5] = 0.5f;
    w[(base + 6) * 3 + 1] = 0.5f;
    b[base + 6] = 0.25f;
  }
  push(net.getHandle(), conv->_weight, to_halves(w));
  push(net.getHandle(), conv->_bias, to_halves(b));
}

inline double reference_activation(int type, double x) {
  switch (type) {
    case 0: return 1.0 / (1.0 + std::exp(-x));                    // logistic
    case 1: return x > 0 ? x : 0;                                  // relu
    case 7: return x > 0 ? x : 0.0999755859375 * x;                // leaky, the half slope
    default: return x;                                             // linear and none
  }
}

// One convolution layer in float64 from its current parameters: inference semantics
// (running statistics) unless `batch_mean`/`batch_var` are given.
inline std::vector<double> reference_conv(ORVA::ConvolutionLayer* l, const std::vector<double>& in, int batch) {
  void* h = l->_gpu_handle;
  const std::vector<double> w = to_doubles(pull(h, l->_weight, l->_weights));
  const std::vector<double> bias = to_doubles(pull(h, l->_bias, l->_kn));
  std::vector<double> scale, mean, var;
  if (l->_bn) {
    scale = to_doubles(pull(h, l->_bn->_scale, l->_kn));
    mean = to_doubles(pull(h, l->_bn->_mean_rolling, l->_kn));
    var = to_doubles(pull(h, l->_bn->_var_rolling, l->_kn));
  }
  const int pad[4] = {l->_pad, l->_pad, l->_pad, l->_pad}, plane = l->_out_h * l->_out_w;
  std::vector<double> out;
  for (int b = 0; b < batch; ++b) {
    const size_t n = (size_t)l->_inputs;
    const graph_ref::T x{l->_in_c, l->_in_h, l->_in_w, {in.begin() + b * n, in.begin() + (b + 1) * n}};
    const graph_ref::T y = graph_ref::conv(x, w, {}, l->_kn, l->_size, l->_stride, pad, l->_dilation, l->_groups);
    EXPECT_EQ(std::make_pair(y.h, y.w), std::make_pair(l->_out_h, l->_out_w));
    for (size_t i = 0; i < y.v.size(); ++i) {
      const int f = (int)(i / plane);
      double v = y.v[i];
      if (l->_bn)
        v = (v - mean[f]) / std::sqrt(var[f] + 0.00001) * scale[f] + bias[f];
      else if (l->_activation)
        v += bias[f];
      out.push_back(reference_activation(l->_acttype, v));
    }
  }
  return out;
}

}  // namespace orva_test
