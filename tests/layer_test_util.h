// Helpers for the layer tests: networks from description text, and the descriptions of the
// mixed trunks shared by the tests and the benchmarks.
#pragma once
#include <memory>
#include <string>

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

inline std::vector<Ftype> layer_output(ORVA::Network& net, int i, int batch) {
  ORVA::Layer* l = net.getLayer(i);
  return pull(net.getHandle(), l->_output, (size_t)batch * l->_outputs);
}

// Convolutions with batch normalisation and leaky, six max-pools, the last 2 x 2 / 1.
inline std::string tiny_yolo_trunk(int side) {
  std::string s = "[network]\nwidth=" + std::to_string(side) + "\nheight=" + std::to_string(side) + "\nchannels=3\n";
  const int filters[] = {16, 32, 64, 128, 256, 512};
  for (int i = 0; i < 6; ++i) {
    s += "[convolution]\nbatch_normalize=1\nfilters=" + std::to_string(filters[i]) + "\nsize=3\nactivation=leaky\n";
    s += i < 5 ? "[maxpool]\nsize=2\nstride=2\n" : "[maxpool]\nsize=2\nstride=1\n";
  }
  s += "[convolution]\nbatch_normalize=1\nfilters=1024\nsize=3\nactivation=leaky\n";
  return s;
}

// A residual trunk: shortcuts over one and two convolutions, one from a larger layer.
inline const char* kResidualTrunk =
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
inline const char* kBranchedTrunk =
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

}  // namespace orva_test
