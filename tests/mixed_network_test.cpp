// Networks mixing the layer types: they build with the expected shapes, run on every
// backend with the same result, and come back from a model file with identical output.
// Damaged model files of every layer type are the model-file fuzz target's work.
#include <gtest/gtest.h>

#include "layer_test_util.h"

using namespace orva_test;

namespace {

// Convolutions with batch normalisation and leaky, six max-pools, the last 2 x 2 / 1; the
// filter counts are an eighth of the real trunk's (same geometry, little work).
std::string tiny_yolo_trunk() {
  std::string s = "[network]\nwidth=64\nheight=64\nchannels=3\n";
  for (int i = 0; i < 7; ++i) {
    s += "[convolution]\nbatch_normalize=1\nfilters=" + std::to_string(2 << i) + "\nsize=3\nactivation=leaky\n";
    if (i < 6) s += i < 5 ? "[maxpool]\nsize=2\nstride=2\n" : "[maxpool]\nsize=2\nstride=1\n";
  }
  return s;
}

// A residual trunk: shortcuts over one and two convolutions, one from a larger layer.
const char* kResidualTrunk =
    "[network]\nwidth=18\nheight=14\nchannels=3\n"
    "[convolution]\nfilters=8\nsize=3\nactivation=leaky\n"                       // 0
    "[convolution]\nfilters=8\nsize=3\nactivation=leaky\n"                       // 1
    "[shortcut]\nfrom=-2\nactivation=linear\n"                                   // 2
    "[convolution]\nfilters=8\nsize=3\nstride=2\nactivation=leaky\n"            // 3: 9 x 7
    "[convolution]\nfilters=8\nsize=1\nactivation=leaky\n"                       // 4
    "[shortcut]\nfrom=2\nalpha=0.5\nbeta=0.75\nactivation=leaky\n"              // 5: strided from 18 x 14
    "[avgpool]\n"                                                                 // 6
    "[softmax]\ngroups=1\n";                                                      // 7

// A branched trunk: route of several inputs, upsample, reorg and concatenation.
const char* kBranchedTrunk =
    "[network]\nwidth=16\nheight=12\nchannels=3\n"
    "[convolution]\nfilters=8\nsize=3\nactivation=leaky\n"                       // 0: 16 x 12 x 8
    "[maxpool]\nsize=2\nstride=2\n"                                               // 1: 8 x 6 x 8
    "[convolution]\nfilters=16\nsize=3\nactivation=leaky\n"                      // 2: 8 x 6 x 16
    "[maxpool]\nsize=3\nstride=2\n"                                               // 3: 5 x 4 (pad 1) x 16
    "[route]\nlayers=-2\n"                                                        // 4: 8 x 6 x 16
    "[reorg]\nstride=2\n"                                                         // 5: 4 x 3 x 64
    "[upsample]\nstride=2\n"                                                      // 6: 8 x 6 x 64
    "[route]\nlayers=-1,2,1\n"                                                    // 7: 8 x 6 x 88
    "[convolution]\nfilters=4\nsize=1\nactivation=linear\n";                     // 8

// Every layer type of the library in one network, siamese so that the merge has pairs.
const char* kEveryLayer =
    "[network]\nwidth=8\nheight=6\nchannels=3\nsiamese=2\n"
    "[convolution]\nfilters=8\nsize=3\nbatch_normalize=1\nactivation=leaky\n"  // 0: 8 x 6 x 8
    "[batchnorm]\n[activation]\nactivation=logistic\n[dynact]\n"               // 1-3
    "[maxpool]\nsize=2\nstride=2\n"                                              // 4: 4 x 3 x 8
    "[avgpool]\nsize=2\nstride=1\npad=0\n"                                      // 5: 4 x 3 x 8
    "[upsample]\n[reorg]\n[spresize]\n"                                         // 6-8: 8 x 6 x 8
    "[shortcut]\nfrom=6\nactivation=leaky\n"                                    // 9
    "[route]\nlayers=-1,6\n"                                                     // 10: 8 x 6 x 16
    "[convolution]\nfilters=1\nsize=1\nactivation=logistic\n[scalemap]\nfrom=10\n"  // 11-12
    "[avgpool]\ntmin=2\ntmax=3\n[fconn]\noutput=16\nactivation=logistic\n"       // 13-14
    "[attention]\nfrom=12\n[dropout]\n[smerge]\nmerge=add\n"                    // 15-17
    "[avgpool]\nsquare=1\n[fconn]\noutput=6\n[softmax]\ngroups=2\nmap=2,4\n";    // 18-20

TEST(MixedNetwork, TrunksBuildAndRoundTrip) {
  struct Case {
    std::string text;
    int w, h, siamese, layers, outputs;
  } cases[] = {
      {tiny_yolo_trunk(), 64, 64, 1, 13, 2 * 2 * 128},
      {kResidualTrunk, 18, 14, 1, 8, 8},
      {kBranchedTrunk, 16, 12, 1, 9, 8 * 6 * 4},
      {kEveryLayer, 8, 6, 2, 21, 6},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    auto net = net_from_text(c.text, 1, -1);
    EXPECT_EQ(net->getLayerCount(), c.layers);
    EXPECT_EQ(net->getOutputs(), c.outputs);
    check_round_trip(c.text, c.w, c.h, 3, c.siamese);
  }
}

}  // namespace
