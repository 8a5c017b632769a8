// The network builder on arbitrary descriptions: load, then one pass when it is cheap.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::setup();
  fuzz::seeds_option(argc, argv, [](const std::string& dir) {
    int k = 0;
    for (const std::string& d : fuzz::descriptions())
      fuzz::write_seed(dir, "net" + std::to_string(k++) + ".cfg", std::vector<uint8_t>(d.begin(), d.end()));
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz::write_file("input.cfg", data, size);
  ORVA::Network net(ORVA::TEST, 1, -1);
  try {
    // The 8-bit paths are chosen by a bit of the input that leaves the text alone.
    if (net.load(path.c_str(), nullptr, size % 3 == 0, false) == 0) fuzz::run_if_small(net);
  } catch (const std::exception&) {
  } catch (size_t) {
  }
  return 0;
}
