// The model-file loader. Input byte 0 holds flags: bit 0 stores the right checksum into a
// format 4 header first (else only files before format 4.0 and lucky checksums get past the
// test), bit 1 asks for the 8-bit paths. A file that loads a small network runs it once and
// saves and loads it again.
#include "fuzz_common.h"

namespace {
std::vector<uint8_t> with_version(std::vector<uint8_t> b, int16_t major, int16_t minor) {
  memcpy(&b[8], &major, 2);
  memcpy(&b[10], &minor, 2);
  return b;
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::setup();
  fuzz::seeds_option(argc, argv, [](const std::string& dir) {
    for (size_t i = 0; i < fuzz::descriptions().size(); ++i) {
      auto net = fuzz::build(i, ORVA::TRAIN);
      if (!net) continue;
      const std::string path = fuzz::Scratch::file("seed.orva");
      try {
        net->save(path.c_str(), true);
      } catch (...) {
        continue;
      }
      std::vector<uint8_t> file = fuzz::read_file(path);
      for (uint8_t flags : {0, 1, 2}) {
        std::vector<uint8_t> seed = {flags};
        const std::vector<uint8_t> body = flags == 2 ? with_version(file, 3, 3) : file;
        seed.insert(seed.end(), body.begin(), body.end());
        fuzz::write_seed(dir, "model" + std::to_string(i) + "_" + std::to_string(flags), seed);
      }
    }
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t flags = data[0];
  const std::string path = fuzz::write_file("input.orva", data + 1, size - 1);
  ORVA::Network net(ORVA::TEST, 1, -1);
  try {
    if ((flags & 1) && size - 1 >= sizeof(ORVA::ModelHeader)) {
      ORVA::ModelHeader h;
      memcpy(&h, data + 1, sizeof(h));
      h.chksum = net.getChecksum(path.c_str());
      FILE* f = fopen(path.c_str(), "r+b");
      fwrite(&h, sizeof(h), 1, f);
      fclose(f);
    }
    net.load(path.c_str(), (flags & 2) != 0, false);
    if (!fuzz::run_if_small(net)) return 0;
    const std::string again = fuzz::Scratch::file("again.orva");
    net.save(again.c_str(), true);
    ORVA::Network reloaded(ORVA::TEST, 1, -1);
    reloaded.load(again.c_str(), false, false);
  } catch (const std::exception&) {
  } catch (size_t) {
  }
  return 0;
}
