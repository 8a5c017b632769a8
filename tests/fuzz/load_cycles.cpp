// Soak check: CYCLES rounds (default 300) of build from a description and weights, predict,
// destroy, then load from a model file, predict, destroy, over the seed descriptions. Prints
// the resident size after the warm-up and at the end and fails when it grew by more than 2 MiB;
// run under LeakSanitizer or valgrind for what was lost.
#include <unistd.h>

#include <fstream>

#include "fuzz_common.h"

namespace {
long resident_kib() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void predict_zeros(ORVA::Network& net) {
  std::vector<float> input((size_t)net.getBatch() * net.getSiamese() * net.iW * net.iH * net.iC, 0.25f);
  net.predict(input.data(), net.getBatch());
}
}  // namespace

int main(int argc, char** argv) {
  const int cycles = argc > 1 ? atoi(argv[1]) : 300;
  fuzz::setup();
  struct Files {
    std::string cfg, weights, model;
  };
  std::vector<Files> files;
  for (size_t i = 0; i < fuzz::descriptions().size(); ++i) {
    auto net = fuzz::build(i, ORVA::TRAIN);
    if (!net) continue;
    const std::string n = std::to_string(i);
    Files f{fuzz::write_file("net" + n + ".cfg", fuzz::descriptions()[i].data(), fuzz::descriptions()[i].size()),
            fuzz::Scratch::file("net" + n + ".weights"), fuzz::Scratch::file("net" + n + ".orva")};
    net->save(f.weights.c_str(), false);
    net->save(f.model.c_str(), true);
    files.push_back(f);
  }
  const int warmup = std::min(20, cycles);
  long after_warmup = 0;
  for (int c = 0; c < cycles; ++c) {
    const Files& f = files[c % files.size()];
    {
      ORVA::Network net(ORVA::TEST, 2, -1);
      net.load(f.cfg.c_str(), f.weights.c_str());
      predict_zeros(net);
    }
    {
      ORVA::Network net(ORVA::TEST, 2, -1);
      net.load(f.model.c_str(), false, false);
      predict_zeros(net);
    }
    if (c + 1 == warmup) after_warmup = resident_kib();
  }
  const long end = resident_kib();
  printf("load_cycles: %d cycles over %zu networks, resident %ld KiB after %d, %ld KiB at the end\n", cycles,
         files.size(), after_warmup, warmup, end);
  return end - after_warmup > 2048 ? 1 : 0;
}
