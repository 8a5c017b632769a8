// Helpers for the layer tests: networks from description text, float64 references of the
// last layer, finite-difference checks of its backward.
#pragma once
#include <functional>
#include <memory>
#include <string>

#include "layer/activation_layer.h"
#include "layer/batchnorm_layer.h"
#include "layer/dynactivation_layer.h"
#include "network_test_util.h"

namespace orva_test {

inline std::unique_ptr<ORVA::Network> net_from_text(const std::string& text, int batch, int gpu,
                                                    int mode = ORVA::TEST) {
  static int serial = 0;
  const std::string path = temp_path("net" + std::to_string(serial++) + ".cfg");
  write_file(path, text);
  auto net = std::make_unique<ORVA::Network>(mode, batch, gpu);
  EXPECT_EQ(net->load(path.c_str(), nullptr), 0);
  return net;
}

// One layer of the given section over a w x h x c input, outside any network.
inline std::unique_ptr<ORVA::Layer> make_layer(void* handle, int mode, const std::string& section,
                                               const std::string& keys, int batch, int w, int h, int c,
                                               bool quant = false, bool fast = false) {
  const std::string path = temp_path("layer.cfg");
  write_file(path, "[" + section + "]\n" + keys);
  ConfigReader cfg;
  EXPECT_EQ(cfg.load(path.c_str()), 0);
  ORVA::InputParams params;
  params.batch = batch;
  params.h = h;
  params.w = w;
  params.c = c;
  params.inputs = w * h * c;
  params.nsect = 0;
  params.quant = quant;
  params.fast = fast;
  std::unique_ptr<ORVA::Layer> l(ORVA::LayerType::create(section.c_str(), mode, nullptr, handle));
  l->parseConfig(cfg, params);
  return l;
}

inline ORVA::Layer* last_layer(ORVA::Network& net) { return net.getLayer(net.getLayerCount() - 1); }

inline std::vector<Ftype> layer_output(ORVA::Network& net, int i, int batch) {
  ORVA::Layer* l = net.getLayer(i);
  return pull(net.getHandle(), l->_output, (size_t)batch * l->_outputs);
}

// What layer i read: the previous layer's output, or the network input for the first layer.
inline std::vector<double> layer_input(ORVA::Network& net, int i, int batch) {
  if (i == 0)
    return to_doubles(pull(net.getHandle(), net.getInput(), (size_t)batch * net.getSiamese() * net.getInputs()));
  return to_doubles(layer_output(net, i - 1, batch * (net.getLayer(i - 1)->_batch / net.getBatch())));
}

inline std::vector<double> output_of(ORVA::Network& net, int i, int batch) {
  return to_doubles(layer_output(net, i, batch));
}

// Random learned parameters for every layer that has them.
inline void randomize_layers(ORVA::Network& net) {
  void* h = net.getHandle();
  for (int i = 0; i < net.getLayerCount(); ++i) {
    ORVA::Layer* l = net.getLayer(i);
    if (auto* c = dynamic_cast<ORVA::ConvolutionLayer*>(l)) randomize_conv(c);
    if (auto* d = dynamic_cast<ORVA::DynActivationLayer*>(l)) push(h, d->_weight, random_halves(d->_weights, 0.05f, 0.5f));
    if (auto* b = dynamic_cast<ORVA::BatchnormLayer*>(l)) {
      const int c = b->_out_c;
      push(h, b->_bias, random_halves(c, -0.3f, 0.3f));
      push(h, b->_bn->_scale, random_halves(c, 0.5f, 1.5f));
      push(h, b->_bn->_mean_rolling, random_halves(c, -0.3f, 0.3f));
      push(h, b->_bn->_var_rolling, random_halves(c, 0.5f, 2.0f));
    }
  }
}

// The last layer's float64 reference, computed from what its sources hold after a pass.
using Reference = std::function<std::vector<double>(ORVA::Network& net, int batch)>;

// On every backend: build, randomise, run a batch of random inputs in [lo, hi], and compare
// the last layer's output with its reference.
inline void check_forward(const std::string& text, int batch, const Reference& ref, double tol, float lo = -1.f,
                          float hi = 1.f) {
  for (int gpu : test_backends()) {
    auto net = net_from_text(text, batch, gpu);
    randomize_layers(*net);
    const size_t n = (size_t)batch * net->getSiamese() * net->getInputs();
    const std::vector<float> input = to_floats(random_halves(n, lo, hi));
    predict_copy(*net, input, batch);
    const int last = net->getLayerCount() - 1;
    const int items = net->getLayer(last)->_batch * batch / net->getBatch();
    const std::vector<Ftype> got = layer_output(*net, last, items);
    const std::vector<double> expected = ref(*net, batch);
    ASSERT_EQ(expected.size(), got.size()) << text;
    ASSERT_FALSE(got.empty());
    EXPECT_TRUE(NearL2(expected, got, tol)) << text << "\non " << handle_name(net->getHandle());
    if (gpu >= 0) count_cuda_comparison();
  }
}

// A tensor the last layer reads and the tensor its backward adds the gradient to.
struct GradPair {
  Ftype* value;
  Ftype* grad;
  size_t n;
};

// Finite differences of L = sum r * y over the last layer of a training network against
// its backward with delta = r, for each pair. distinct: the values are spread apart by more
// than the step and away from zero, so no maximum, rank or sign changes under a perturbation.
inline void check_backward(ORVA::Network& net, int batch, std::vector<GradPair> pairs, Ftype* prev_delta, float step,
                           double tol, bool distinct = false) {
  void* h = net.getHandle();
  const int li = net.getLayerCount() - 1;
  ORVA::Layer* l = net.getLayer(li);
  for (GradPair& p : pairs) {
    std::vector<Ftype> v = random_halves(p.n, -1.f, 1.f);
    if (distinct) {
      for (size_t i = 0; i < p.n; ++i) v[i] = Ftype{float2half_cpu(((float)i - p.n / 2.f + 0.5f) * 0.0625f)};
      std::shuffle(v.begin(), v.end(), rng());
    }
    push(h, p.value, v);
  }
  Buffer<char> workspace(h, l->_workspace_size + 16);
  ORVA::NetworkParams params;
  params.workspace = reinterpret_cast<Ftype*>(workspace.get());
  params.input = li ? net.getLayer(li - 1)->_output : net.getInput();
  params.delta = prev_delta;
  params.net = &net;
  params.batch = batch;
  const size_t n_out = (size_t)l->_batch * l->_outputs;
  const std::vector<double> r = to_doubles(random_halves(n_out, -1.f, 1.f));
  auto loss = [&]() {
    l->forward(params);
    const std::vector<double> y = output_of(net, li, l->_batch);
    double s = 0;
    for (size_t i = 0; i < n_out; ++i)
      if (std::isfinite(y[i])) s += r[i] * y[i];  // an empty max-pool window stays minus infinity
    return s;
  };
  loss();
  push(h, l->_delta, to_halves(r));
  for (GradPair& p : pairs) push(h, p.grad, std::vector<Ftype>(p.n, fp_0));
  l->backward(params);
  for (GradPair& p : pairs) {
    const std::vector<double> grad = to_doubles(pull(h, p.grad, p.n));
    std::vector<Ftype> v = pull(h, p.value, p.n);
    std::vector<double> numeric, analytic;
    for (int k = 0; k < 20; ++k) {
      const size_t i = rng()() % p.n;
      const Ftype keep = v[i];
      const float x = half2float_cpu(keep.__x);
      const Ftype up{float2half_cpu(x + step)}, down{float2half_cpu(x - step)};
      v[i] = up;
      push(h, p.value, v);
      const double lp = loss();
      v[i] = down;
      push(h, p.value, v);
      const double lm = loss();
      v[i] = keep;
      push(h, p.value, v);
      numeric.push_back((lp - lm) / (half2float_cpu(up.__x) - half2float_cpu(down.__x)));
      analytic.push_back(grad[i]);
    }
    EXPECT_TRUE(NearL2(numeric, to_halves(analytic), tol)) << "layer type " << l->type << ", tensor of " << p.n;
  }
}

// check_backward of a one-layer training network on every backend: the gradient into the
// input and, with weights, into the layer's learned parameters.
inline void check_input_backward(const std::string& text, int batch, float step, double tol, bool distinct = false,
                                 bool weights = false) {
  for (int gpu : test_backends()) {
    SCOPED_TRACE(text);
    auto net = net_from_text(text, batch, gpu, ORVA::TRAIN);
    ORVA::Layer* l = net->getLayer(0);
    const size_t n = (size_t)batch * l->_inputs;
    Buffer<Ftype> dx(net->getHandle(), n);
    std::vector<GradPair> pairs = {{net->getInput(), dx.get(), n}};
    if (weights) pairs.push_back({l->_weight, l->_weight_update, (size_t)l->_weights});
    check_backward(*net, batch, pairs, dx.get(), step, tol, distinct);
  }
}

// The one model-file round trip of the suite.
inline ORVA::Network* load_model(ORVA::Network& net, const std::string& path) {
  ::testing::internal::CaptureStdout();  // the checksum line
  const int status = net.load(path.c_str(), false, false);
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(status, 0);
  return &net;
}

// A model file of a randomised network, loaded (inference folds batch normalisation) and
// saved again: the second copy, and the description with the weights-only file, must
// reproduce the first exactly on the host, and CUDA (when present) must agree with the host.
// Returns the host network loaded from the model file, for checks of the records themselves.
inline std::unique_ptr<ORVA::Network> check_round_trip(const std::string& text, int side_w, int side_h, int channels,
                                                       int siamese = 1) {
  const int batch = 2;
  const std::vector<float> input = random_floats((size_t)batch * siamese * side_w * side_h * channels, 0.f, 1.f);
  const std::string model = temp_path("mixed.orva"), again = temp_path("again.orva");
  const std::string weights = temp_path("mixed.weights"), cfg = temp_path("mixed.cfg");
  {
    auto net = net_from_text(text, batch, -1);
    randomize_layers(*net);
    net->save(model.c_str(), true);
    net->save(weights.c_str(), false);
  }
  auto loaded_first = std::make_unique<ORVA::Network>(ORVA::TEST, batch, -1);
  ORVA::Network& first = *loaded_first;
  load_model(first, model);
  const std::vector<float> expected = predict_copy(first, input, batch);
  first.save(again.c_str(), true);
  // The description with the weights-only file builds the same network.
  write_file(cfg, text);
  ORVA::Network described(ORVA::TEST, batch, -1);
  EXPECT_EQ(described.load(cfg.c_str(), weights.c_str()), 0);
  EXPECT_EQ(predict_copy(described, input, batch), expected);
  for (int gpu : test_backends()) {
    ORVA::Network loaded(ORVA::TEST, batch, gpu);
    load_model(loaded, again);
    EXPECT_EQ(loaded.getLayerCount(), first.getLayerCount());
    if (loaded.getLayerCount() != first.getLayerCount()) break;
    for (int i = 0; i < first.getLayerCount(); ++i) {
      EXPECT_EQ(loaded.getLayer(i)->type, first.getLayer(i)->type) << i;
      EXPECT_EQ(loaded.getLayer(i)->_outputs, first.getLayer(i)->_outputs) << i;
    }
    const std::vector<float> got = predict_copy(loaded, input, batch);
    if (gpu < 0) {
      EXPECT_EQ(got, expected);
    } else {
      EXPECT_TRUE(NearL2(std::vector<double>(expected.begin(), expected.end()), got, kHalfAccumulate));
      count_cuda_comparison();
    }
  }
  return loaded_first;
}

}  // namespace orva_test
