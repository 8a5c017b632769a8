// Shared by the fuzz targets: a private scratch folder, the library's settings under the
// fuzzer, the networks the seed corpora are made from, and `TARGET --seeds=DIR`, which writes
// a target's seeds into DIR and exits (libFuzzer passes flags starting with "--" through).
#pragma once
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orva/orva.h"

namespace fuzz {

// One folder per process, removed when the process ends: in memory (/dev/shm) where there
// is one, since every input passes through a file, else under TMPDIR.
class Scratch {
 public:
  static std::string file(const std::string& name) {
    static Scratch s;
    return s._dir + "/" + name;
  }
  ~Scratch() {
    std::error_code ec;
    if (getpid() == _owner) std::filesystem::remove_all(_dir, ec);
  }

 private:
  Scratch() : _owner(getpid()) {
    const char* t = getenv("TMPDIR");
    std::string base = t && *t ? t : "/tmp";
    if (access("/dev/shm", W_OK) == 0) base = "/dev/shm";
    std::string p = base + "/orva_fuzz_XXXXXX";
    if (!mkdtemp(&p[0])) abort();
    _dir = p;
  }
  pid_t _owner;
  std::string _dir;
};

inline std::string write_file(const std::string& name, const void* data, size_t size) {
  const std::string path = Scratch::file(name);
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) abort();
  if (size) fwrite(data, 1, size, f);
  fclose(f);
  return path;
}

inline std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// Faults that would end the process throw instead, and nothing is printed: the fuzzer only
// cares about crashes, leaks and undefined behaviour.
inline void setup() {
  ORVA::setFatalThrows(true);
  ORVA::setMsgLevel(5);
}

// Small networks over every layer family; sections of layers a build lacks are skipped.
inline const std::vector<std::string>& descriptions() {
  static const std::vector<std::string> d = {
      "[network]\nwidth=6\nheight=5\nchannels=3\n"
      "[convolution]\nfilters=4\nsize=3\nactivation=leaky\nbatch_normalize=1\n"
      "[convolution]\nfilters=4\nsize=3\ngroups=2\ndilation=2\nstride=2\nactivation=mish\n"
      "[convolution]\nfilters=2\nsize=1\nactivation=linear\n",
      "[network]\nwidth=16\nheight=12\nchannels=3\n"
      "[convolution]\nfilters=8\nsize=3\nactivation=leaky\n[maxpool]\nsize=2\nstride=2\n"
      "[convolution]\nfilters=16\nsize=3\nactivation=leaky\n[maxpool]\nsize=3\nstride=2\n"
      "[route]\nlayers=-2\n[reorg]\nstride=2\n[upsample]\nstride=2\n[route]\nlayers=-1,2,1\n"
      "[convolution]\nfilters=4\nsize=1\nactivation=linear\n",
      "[network]\nwidth=18\nheight=14\nchannels=3\nsiamese=2\n"
      "[convolution]\nfilters=8\nsize=3\nactivation=relu\n[convolution]\nfilters=8\nsize=3\nactivation=leaky\n"
      "[shortcut]\nfrom=-2\nactivation=linear\n[avgpool]\n[softmax]\ngroups=1\n[cost]\n",
      "[network]\nwidth=16\nheight=12\nchannels=3\n"
      "[convolution]\nfilters=14\nsize=1\nactivation=linear\n"
      "[region]\nclasses=2\nnum=2\nanchors=1.015625,2.515625, 3.015625,1.015625\n",
      "[network]\nwidth=8\nheight=8\nchannels=4\n[train]\nbatch=2\nlearning_rate=0.01\n"
      "[convolution]\nfilters=8\nsize=3\nactivation=leaky\nquant_thresh=4\n[dropout]\nprobability=0.5\n"
      "[fconn]\noutput=6\nactivation=logistic\n[activation]\nactivation=tanh\n[batchnorm]\n"
      "[dynact]\n[scalemap]\n[attention]\n[softmax]\n[cost]\ntype=sse\n",
      "[network]\nwidth=8\nheight=8\nchannels=3\nsiamese=2\n[convolution]\nfilters=4\nsize=3\n"
      "[smerge]\n[spresize]\nstride=2\n[heatmap]\nclasses=2\n",
      "[network]\nwidth=16\nheight=16\nchannels=3\n[convolution]\nfilters=18\nsize=1\n"
      "[qregion]\nclasses=1\nnum=3\nanchors=1,1, 2,2, 3,3\n",
      "[network]\nwidth=16\nheight=16\nchannels=3\n[convolution]\nfilters=12\nsize=1\n[detobj]\nclasses=2\n",
      "[network]\nwidth=16\nheight=16\nchannels=3\n[convolution]\nfilters=6\nsize=4\nstride=2\npad=1\nactivation=hswish\n"
      "[resize]\nhalf_pixel=1\n[resize]\nwidth=5\nheight=7\nalign_corners=1\n[convolution]\nfilters=6\nsize=1\n"
      "activation=hsigmoid\n[centernet]\nclasses=2\nstride=2\nscale=4\n",
  };
  return d;
}

// Builds description i for seeds; null when this build of the library can't make it.
inline std::unique_ptr<ORVA::Network> build(size_t i, int mode) {
  const std::string path = write_file("seed.cfg", descriptions()[i].data(), descriptions()[i].size());
  auto net = std::make_unique<ORVA::Network>(mode, 1, -1);
  try {
    if (net->load(path.c_str(), nullptr) == 0) return net;
  } catch (...) {
  }
  return nullptr;
}

// One pass over a zeroed input when the network is cheap to run, so the layers' forward
// passes meet the shapes a file asked for. Returns whether it ran. Large networks within the
// limits are legal, just too slow to run for every input.
inline bool run_if_small(ORVA::Network& net) {
  if (net.getLayerCount() == 0) return false;
  double flops = 0, elements = 0;
  for (int i = 0; i < net.getLayerCount(); ++i) {
    const ORVA::Layer* l = net.getLayer(i);
    flops += (double)l->_flops;
    elements += (double)l->_weights + (double)l->_batch * l->_outputs;
  }
  if (flops > 2e6 || elements > 1e6) return false;
  const size_t n = (size_t)net.getBatch() * net.getSiamese() * (size_t)std::max(net.getInputs(), net.iW * net.iH * net.iC);
  cuda_memset(net.getHandle(), net.getInput(), 0, n * sizeof(Ftype));
  net.predict(1);
  return true;
}

inline void write_seed(const std::string& dir, const std::string& name, const std::vector<uint8_t>& bytes) {
  std::ofstream(dir + "/" + name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// Handles --seeds=DIR: calls make(DIR) and exits.
inline void seeds_option(int* argc, char*** argv, const std::function<void(const std::string&)>& make) {
  for (int i = 1; i < *argc; ++i) {
    if (strncmp((*argv)[i], "--seeds=", 8) != 0) continue;
    const std::string dir = (*argv)[i] + 8;
    std::filesystem::create_directories(dir);
    make(dir);
    exit(0);
  }
}

}  // namespace fuzz
