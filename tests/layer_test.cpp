// The remaining layers (softmax, fully connected, activation, batch normalisation, dropout,
// learned-slope activation): forward against float64 references on every backend and
// finite differences of their backward; then the table of descriptions every layer must
// refuse with a clear error instead of building.
#include <gtest/gtest.h>

#include <cmath>

#include "layer/dropout_layer.h"
#include "layer/fullconnect_layer.h"
#include "layer/softmax_layer.h"
#include "layer_test_util.h"

using namespace orva_test;

namespace {

std::vector<double> reference_softmax(ORVA::Network& net, int batch) {
  auto* l = static_cast<ORVA::SoftmaxLayer*>(last_layer(net));
  std::vector<double> x = layer_input(net, net.getLayerCount() - 1, batch);
  std::vector<int> groups(l->_gmap_cpu, l->_gmap_cpu + l->_groups);
  for (int b = 0; b < batch; ++b) {
    double* v = x.data() + (size_t)b * l->_inputs;
    for (int n : groups) {
      double top = v[0], sum = 0;
      for (int i = 0; i < n; ++i) top = std::max(top, v[i]);
      for (int i = 0; i < n; ++i) sum += v[i] = std::exp((v[i] - top) / l->_temperature);
      for (int i = 0; i < n; ++i) v[i] /= sum;
      v += n;
    }
  }
  return x;
}

std::vector<double> reference_fconn(ORVA::Network& net, int batch) {
  const int li = net.getLayerCount() - 1;
  return reference_conv(static_cast<ORVA::ConvolutionLayer*>(net.getLayer(li)), layer_input(net, li, batch), batch);
}

// Activation, batch normalisation (running statistics), dropout (identity at inference) and
// the learned slopes, element by element.
std::vector<double> reference_elementwise(ORVA::Network& net, int batch) {
  const int li = net.getLayerCount() - 1;
  ORVA::Layer* l = net.getLayer(li);
  void* h = net.getHandle();
  std::vector<double> x = layer_input(net, li, batch);
  const size_t size = (size_t)l->_out_w * l->_out_h, c = l->_out_c;
  for (size_t i = 0; i < x.size(); ++i) {
    const size_t ch = i / size % c;
    if (l->type == ORVA::LAYER_ACTIVATION) {
      x[i] = reference_activation(static_cast<ORVA::ActivationLayer*>(l)->_acttype, x[i]);
    } else if (l->type == ORVA::LAYER_BATCHNORM) {
      auto* bn = static_cast<ORVA::BatchnormLayer*>(l)->_bn;
      const double mean = to_doubles(pull(h, bn->_mean_rolling, c))[ch], var = to_doubles(pull(h, bn->_var_rolling, c))[ch];
      const double scale = to_doubles(pull(h, bn->_scale, c))[ch], bias = to_doubles(pull(h, l->_bias, c))[ch];
      x[i] = (x[i] - mean) / std::sqrt(var + 0.00001) * scale + bias;
    } else if (l->type == ORVA::LAYER_DYNACT) {
      if (x[i] <= 0) x[i] *= to_doubles(pull(h, l->_weight, c))[ch];
    }
  }
  return x;
}

const char* kSoftmaxMap = "[network]\nwidth=30\nheight=1\nchannels=1\n[softmax]\ngroups=2\nmap=10,20\ntemperature=2\n";
const char* kFconn = "[network]\nwidth=5\nheight=3\nchannels=4\n[fconn]\noutput=7\nactivation=leaky\n";
const char* kElementwise[] = {
    "[network]\nwidth=5\nheight=3\nchannels=4\n[activation]\nactivation=logistic\n",
    "[network]\nwidth=5\nheight=3\nchannels=4\n[batchnorm]\n",
    "[network]\nwidth=5\nheight=3\nchannels=4\n[dropout]\nprobability=0.3\n",
    "[network]\nwidth=5\nheight=3\nchannels=4\n[dynact]\nslope=0.2\n",
};

TEST(LayerForward, MatchesReferenceOnEveryBackend) {
  // The references read the group map and the input count from the layer: check those first.
  // A description without a map always builds one group over every input.
  auto soft = net_from_text("[network]\nwidth=5\nheight=3\nchannels=2\n[softmax]\ngroups=4\n", 1, -1);
  auto* s = static_cast<ORVA::SoftmaxLayer*>(soft->getLayer(0));
  EXPECT_EQ(std::make_pair(s->_groups, s->_gmap_cpu[0]), std::make_pair(1, 30));
  auto fc = net_from_text(kFconn, 1, -1);
  EXPECT_EQ(std::make_pair(fc->getLayer(0)->_in_c, fc->getOutputs()), std::make_pair(60, 7));

  // Exponentials in float: one rounding per output.
  check_forward(kSoftmaxMap, 2, reference_softmax, kHalfChain, -4.f, 4.f);
  check_forward("[network]\nwidth=5\nheight=3\nchannels=2\n[softmax]\ngroups=4\n", 2, reference_softmax, kHalfChain,
                -4.f, 4.f);
  check_forward(kFconn, 3, reference_fconn, kHalfChain);
  check_forward("[network]\nwidth=3\nheight=3\nchannels=2\n[fconn]\noutput=5\nbatch_normalize=1\nactivation=logistic\n",
                2, reference_fconn, kHalfChain);
  for (const char* text : kElementwise) check_forward(text, 2, reference_elementwise, kHalfChain, -2.f, 2.f);
}

TEST(LayerBackward, MatchesFiniteDifferences) {
  const int batch = 2;
  // Smooth layers take a step well above the half resolution of their outputs; the learned
  // rectifier is linear on each side of zero, which the distinct inputs keep away from.
  check_input_backward("[network]\nwidth=5\nheight=3\nchannels=4\n[fconn]\noutput=6\nactivation=linear\n", batch,
                       0.25f, 2e-2);
  check_input_backward(kElementwise[0], batch, 0.25f, 2e-2);
  check_input_backward(kElementwise[1], batch, 0.25f, 5e-2);
  check_input_backward("[network]\nwidth=5\nheight=3\nchannels=4\n[dynact]\nslope=0.3\n", batch, 0.02f, 2e-2, true,
                       true);

  // Dropout draws a fresh mask per pass, so its gradient is checked against the mask.
  for (int gpu : test_backends()) {
    auto net = net_from_text("[network]\nwidth=5\nheight=3\nchannels=4\n[dropout]\nprobability=0.25\n", batch, gpu,
                             ORVA::TRAIN);
    auto* d = static_cast<ORVA::DropoutLayer*>(net->getLayer(0));
    const size_t n = (size_t)batch * d->_inputs;
    const std::vector<Ftype> x = random_halves(n, 0.5f, 1.f), r = random_halves(n, -1.f, 1.f);
    std::vector<float> xf = to_floats(x);
    predict_copy(*net, xf, batch);
    push(net->getHandle(), d->_delta, r);
    Buffer<Ftype> dx(net->getHandle(), std::vector<Ftype>(n, fp_0));
    ORVA::NetworkParams params;
    params.delta = dx.get();
    d->backward(params);
    const std::vector<float> y = to_floats(layer_output(*net, 0, batch)), g = to_floats(dx.download()),
                             rf = to_floats(r);
    int dropped = 0;
    for (size_t i = 0; i < n; ++i) {
      const bool kept = y[i] != 0.f;
      dropped += !kept;
      if (kept) EXPECT_NEAR(y[i], xf[i] / 0.75f, 2e-3) << i;
      EXPECT_NEAR(g[i], kept ? rf[i] / 0.75f : 0.f, 2e-3) << i;
    }
    EXPECT_GT(dropped, (int)n / 10);
    EXPECT_LT(dropped, (int)n / 2);
  }
}

// Descriptions no layer may build: the error names the layer, the key and the values (or
// is the layer's own fixed message), and the build ends in ORVA::FatalError, never a crash.
TEST(LayerDescriptions, FaultsAreReportedNotBuilt) {
  const std::string net = "[network]\nwidth=8\nheight=6\nchannels=4\n";
  const std::string conv = "[convolution]\nfilters=4\nsize=3\n";
  const std::pair<std::string, const char*> cases[] = {
      {net + "[route]\nlayers=5\n", "Not exist layer indexes"},
      {net + conv + "[route]\nlayers=1\n", "Not exist layer indexes"},
      {net + conv + "[route]\nlayers=-3\n", "Not exist layer indexes"},
      {net + conv + "[route]\n", "Route Layer must specify input layers"},
      {net + conv + "[maxpool]\nsize=2\n[route]\nlayers=0,1\n", "Not match input layer dimentions"},
      {net + conv + "[convolution]\nfilters=4\nsize=3\nstride=3\n[shortcut]\nfrom=0\n", "does not match input"},
      {net + conv + "[shortcut]\nfrom=1\n", "is not an earlier layer"},
      {net + "[maxpool]\nsize=9\npad=0\n", "size 9 exceeds the padded input 8 x 6"},
      {net + "[maxpool]\nsize=0\n", "maxpool: size 0 out of range"},
      {net + "[maxpool]\nsize=2\nstride=-1\n", "maxpool: stride -1 out of range"},
      {net + "[avgpool]\nsize=3\npad=-1\n", "avgpool: pad -1 out of range"},
      {net + "[avgpool]\ntmin=20\ntmax=28\n", "tmin 20 and tmax 28 leave nothing of a 8 x 6 plane"},
      {"[network]\ninputs=10\n[maxpool]\n", "Layer before maxpool layer must output image."},
      {net + "[reorg]\nstride=4\n", "reorg: stride 4 does not divide input 8 x 6 x 4"},
      {net + "[reorg]\nstride=0\n", "reorg: stride 0 out of range"},
      {net + "[spresize]\nstride=3\n", "spresize: stride 3 squared does not divide the 4 input channels"},
      {net + "[upsample]\nstride=-2\n", "upsample: stride -2 out of range"},
      {net + "[softmax]\ngroups=3\nmap=10,20\n", "Map list must equal to groups."},
      {net + "[softmax]\ngroups=2\nmap=10,20\n", "Total map elements must equal to inputs."},
      {net + "[softmax]\ngroups=2\nmap=-2,194\n", "softmax: map entry 0 is -2"},
      {net + "[softmax]\ntemperature=0\n", "softmax: temperature 0 must be finite and non-zero"},
      {net + "[fconn]\noutput=0\n", "fconn: output 0 over inputs 192"},
      {net + "[activation]\nactivation=nosuch\n", "activation: activation nosuch is unknown"},
      {net + "[dropout]\nprobability=1\n", "dropout: probability 1 out of range"},
      {net + conv + "[scalemap]\n", "scalemap: the key from is required"},
      {net + conv + "[scalemap]\nfrom=0\n", "map 8 x 6 x 4 does not fit layer 0 output 8 x 6"},
      {net + conv + "[avgpool]\n[attention]\nfrom=-3\n", "attention: from -1 names no earlier layer"},
      {net + conv + "[avgpool]\n[fconn]\noutput=3\n[attention]\nfrom=0\n", "attention: 3 factors do not fit the 4 channels"},
      {net + "[smerge]\nmerge=sub\n", "smerge: merge sub needs siamese 2, not 1"},
      {net + "[smerge]\nmerge=mul\n", "smerge: merge mul is not concat, add or sub"},
  };
  ORVA::setFatalThrows(true);
  for (const auto& c : cases) {
    ::testing::internal::CaptureStderr();
    const std::string what = thrown<ORVA::FatalError>([&] { net_from_text(c.first, 2, -1); });
    ::testing::internal::GetCapturedStderr();
    EXPECT_NE(what.find(c.second), std::string::npos) << what << "\nfor\n" << c.first;
  }
  ORVA::setFatalThrows(false);
}

}  // namespace
