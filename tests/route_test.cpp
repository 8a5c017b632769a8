// Layers that read earlier layers: route, shortcut, scalemap, attention and the siamese
// merge. Forward against float64 references on every backend; finite differences of every
// backward, into the previous layer and into the layers reached back to.
#include <gtest/gtest.h>

#include "layer/route_layer.h"
#include "layer/scalemap_layer.h"
#include "layer/shortcut_layer.h"
#include "layer/siammerge_layer.h"
#include "layer_test_util.h"

using namespace orva_test;

namespace {

std::vector<double> reference_route(ORVA::Network& net, int batch) {
  auto* l = static_cast<ORVA::RouteLayer*>(last_layer(net));
  std::vector<double> out;
  for (int b = 0; b < batch; ++b)
    for (int i = 0; i < l->_ln; ++i) {
      const std::vector<double> src = output_of(net, l->_lindex[i], batch);
      const int n = l->_lsize[i];
      out.insert(out.end(), src.begin() + (size_t)b * n, src.begin() + (size_t)(b + 1) * n);
    }
  return out;
}

std::vector<double> reference_shortcut(ORVA::Network& net, int batch) {
  const int li = net.getLayerCount() - 1;
  auto* l = static_cast<ORVA::ShortcutLayer*>(last_layer(net));
  std::vector<double> out = layer_input(net, li, batch);
  const std::vector<double> add = l->_from >= 0 ? output_of(net, l->_from, batch) : layer_input(net, 0, batch);
  const int w1 = l->_in_w, h1 = l->_in_h, c1 = l->_in_c, w2 = l->_out_w, h2 = l->_out_h, c2 = l->_out_c;
  const int stride = std::max(w1 / w2, 1), sample = std::max(w2 / w1, 1);
  // Positions the resampling does not reach keep the input as it is.
  for (int b = 0; b < batch; ++b)
    for (int k = 0; k < std::min(c1, c2); ++k)
      for (int y = 0; y < std::min(h1, h2); ++y)
        for (int x = 0; x < std::min(w1, w2); ++x) {
          double& o = out[(((size_t)b * c2 + k) * h2 + y * sample) * w2 + x * sample];
          o = l->_alpha * o + l->_beta * add[(((size_t)b * c1 + k) * h1 + y * stride) * w1 + x * stride];
        }
  for (double& v : out) v = reference_activation(l->_acttype, v);
  return out;
}

// Features of layer "from" times the previous output: per position (scalemap) or per channel.
std::vector<double> reference_scale(ORVA::Network& net, int batch) {
  const int li = net.getLayerCount() - 1;
  auto* l = static_cast<ORVA::ScalemapLayer*>(last_layer(net));
  const std::vector<double> s = layer_input(net, li, batch);
  std::vector<double> out = output_of(net, l->_from, batch);
  const size_t size = (size_t)l->_out_w * l->_out_h, c = l->_out_c;
  for (size_t i = 0; i < out.size(); ++i) {
    const size_t b = i / (c * size), ch = i / size % c, p = i % size;
    out[i] *= l->type == ORVA::LAYER_SCALEMAP ? s[b * size + p] : s[b * c + ch];
  }
  return out;
}

std::vector<double> reference_smerge(ORVA::Network& net, int batch) {
  auto* l = static_cast<ORVA::SiamMergeLayer*>(last_layer(net));
  const std::vector<double> in = layer_input(net, net.getLayerCount() - 1, batch);
  if (l->_merge == ORVA::SiamMergeLayer::CONCAT) return in;
  std::vector<double> out((size_t)batch * l->_outputs);
  for (size_t i = 0; i < out.size(); ++i) {
    const size_t b = i / l->_outputs, j = i % l->_outputs;
    const double a = in[(2 * b) * l->_inputs + j], c = in[(2 * b + 1) * l->_inputs + j];
    out[i] = l->_merge == ORVA::SiamMergeLayer::ADD ? a + c : a - c;
  }
  return out;
}

// Producers are layers without the device library (learned rectifier, pools, resampling), so
// that every backend, the emulated one included, runs these networks.
// The route joins sources of 4, 16 and 4 channels, one of them twice.
const char* kRoute =
    "[network]\nwidth=18\nheight=14\nchannels=4\n"
    "[dynact]\n[maxpool]\nsize=2\nstride=2\n[route]\nlayers=0\n[reorg]\n[route]\nlayers=1,-1,1\n";
std::string shortcut_down(const char* activation) {
  return std::string("[network]\nwidth=10\nheight=8\nchannels=3\n[dynact]\n[maxpool]\nsize=2\nstride=2\n"
                     "[shortcut]\nfrom=0\nalpha=0.5\nbeta=1.5\nactivation=") + activation + "\n";
}
const char* kShortcutUp =
    "[network]\nwidth=10\nheight=8\nchannels=4\n"
    "[maxpool]\nsize=2\nstride=2\n[upsample]\n[spresize]\nstride=1\n[shortcut]\nfrom=0\nactivation=linear\n";
const char* kShortcutInput = "[network]\nwidth=6\nheight=5\nchannels=3\n[dynact]\n[shortcut]\nfrom=-2\n";
// The map: the features pooled to 6 x 5 and their four channels folded into one 12 x 10 plane.
const char* kScalemap =
    "[network]\nwidth=12\nheight=10\nchannels=4\n[dynact]\n[maxpool]\nsize=2\nstride=2\n[spresize]\n"
    "[scalemap]\nfrom=0\n";
const char* kAttention =
    "[network]\nwidth=6\nheight=5\nchannels=4\n[dynact]\n[avgpool]\n[attention]\nfrom=-2\n";

std::string siamese_net(const char* merge) {
  return std::string("[network]\nwidth=5\nheight=3\nchannels=2\nsiamese=2\n[dynact]\n[smerge]\nmerge=") + merge +
         "\n";
}

TEST(RouteForward, EarlierLayersOnEveryBackend) {
  // The route reference follows the layer's own indexes: check them against the description.
  auto route = net_from_text(kRoute, 1, -1);
  auto* r = static_cast<ORVA::RouteLayer*>(route->getLayer(4));
  EXPECT_EQ(std::vector<int>(r->_lindex, r->_lindex + r->_ln), (std::vector<int>{1, 3, 1}));
  EXPECT_EQ(r->_out_c, 24);
  auto merged = net_from_text(siamese_net("concat"), 3, -1);
  EXPECT_EQ(std::make_pair(merged->getLayer(1)->_batch, merged->getOutputs()), std::make_pair(3, 5 * 3 * 4));

  check_forward(kRoute, 2, reference_route, kHalfRounding);
  check_forward(shortcut_down("leaky"), 2, reference_shortcut, kHalfChain);
  check_forward(kShortcutUp, 2, reference_shortcut, kHalfChain);
  check_forward(kShortcutInput, 2, reference_shortcut, kHalfChain);
  check_forward(kScalemap, 2, reference_scale, kHalfRounding);
  check_forward(kAttention, 2, reference_scale, kHalfRounding);
  for (const char* merge : {"concat", "add", "sub"}) check_forward(siamese_net(merge), 2, reference_smerge, kHalfRounding);
}

TEST(RouteBackward, MatchesFiniteDifferences) {
  for (int gpu : test_backends()) {
    const int batch = 2;
    auto route = net_from_text(kRoute, batch, gpu, ORVA::TRAIN);
    ORVA::Layer* a = route->getLayer(3);
    ORVA::Layer* b = route->getLayer(1);
    // Routing is a copy: the loss is exactly linear.
    check_backward(*route, batch,
                   {{a->_output, a->_delta, (size_t)batch * a->_outputs}, {b->_output, b->_delta, (size_t)batch * b->_outputs}},
                   nullptr, 0.5f, 1e-2);

    // Linear shortcuts: the loss has no kink for the step to cross.
    for (const std::string& text : {shortcut_down("linear"), std::string(kShortcutUp), std::string(kScalemap),
                                    std::string(kAttention)}) {
      SCOPED_TRACE(text);
      auto net = net_from_text(text, batch, gpu, ORVA::TRAIN);
      const int li = net->getLayerCount() - 1;
      ORVA::Layer* l = net->getLayer(li);
      ORVA::Layer* prev = net->getLayer(li - 1);
      auto* scaling = dynamic_cast<ORVA::ScalemapLayer*>(l);
      ORVA::Layer* src = net->getLayer(scaling ? scaling->_from : static_cast<ORVA::ShortcutLayer*>(l)->_from);
      Buffer<Ftype> d(net->getHandle(), (size_t)batch * prev->_outputs);
      // Products of two halves, each output rounded once.
      check_backward(*net, batch,
                     {{prev->_output, d.get(), (size_t)batch * prev->_outputs},
                      {src->_output, src->_delta, (size_t)batch * src->_outputs}},
                     d.get(), 0.25f, 3e-2);
    }

    for (const char* merge : {"concat", "add", "sub"}) {
      auto net = net_from_text(siamese_net(merge), batch, gpu, ORVA::TRAIN);
      ORVA::Layer* prev = net->getLayer(0);
      Buffer<Ftype> d(net->getHandle(), (size_t)2 * batch * prev->_outputs);
      check_backward(*net, 2 * batch, {{prev->_output, d.get(), (size_t)2 * batch * prev->_outputs}}, d.get(), 0.5f,
                     1e-2);
    }
  }
}

}  // namespace
