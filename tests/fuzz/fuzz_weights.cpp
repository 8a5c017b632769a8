// The weights-only loader: input byte 0 picks one of the seed descriptions (and the 8-bit
// paths with its top bit), the rest is the weights file.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::setup();
  fuzz::seeds_option(argc, argv, [](const std::string& dir) {
    for (size_t i = 0; i < fuzz::descriptions().size(); ++i) {
      auto net = fuzz::build(i, ORVA::TRAIN);
      if (!net) continue;
      const std::string path = fuzz::Scratch::file("seed.weights");
      try {
        net->save(path.c_str(), false);
      } catch (...) {
        continue;
      }
      std::vector<uint8_t> seed = {(uint8_t)i};
      const std::vector<uint8_t> body = fuzz::read_file(path);
      seed.insert(seed.end(), body.begin(), body.end());
      fuzz::write_seed(dir, "weights" + std::to_string(i), seed);
    }
  });
  // The descriptions are written once; every input only changes the weights file.
  for (size_t i = 0; i < fuzz::descriptions().size(); ++i)
    fuzz::write_file("net" + std::to_string(i) + ".cfg", fuzz::descriptions()[i].data(), fuzz::descriptions()[i].size());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t pick = (data[0] & 0x7F) % fuzz::descriptions().size();
  const std::string cfg = fuzz::Scratch::file("net" + std::to_string(pick) + ".cfg");
  const std::string weights = fuzz::write_file("input.weights", data + 1, size - 1);
  ORVA::Network net(ORVA::TEST, 1, -1);
  try {
    if (net.load(cfg.c_str(), weights.c_str(), (data[0] & 0x80) != 0, false) == 0) fuzz::run_if_small(net);
  } catch (const std::exception&) {
  } catch (size_t) {
  }
  return 0;
}
