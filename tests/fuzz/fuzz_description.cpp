// The description reader on arbitrary bytes: every look-up over every section it kept.
#include "fuzz_common.h"
#include "orva/config.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::setup();
  fuzz::seeds_option(argc, argv, [](const std::string& dir) {
    int k = 0;
    for (const std::string& d : fuzz::descriptions())
      fuzz::write_seed(dir, "net" + std::to_string(k++) + ".cfg", std::vector<uint8_t>(d.begin(), d.end()));
    const std::string odd = "\xEF\xBB\xBF[a] # c\nk: v ; x\n  continued\n[b\n";
    fuzz::write_seed(dir, "odd.cfg", std::vector<uint8_t>(odd.begin(), odd.end()));
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz::write_file("input.cfg", data, size);
  ConfigReader cfg;
  if (cfg.load(path.c_str()) < 0) return 0;
  static const char* const keys[] = {"width", "filters", "size", "anchors", "layers", "steps", "k", ""};
  for (int s = -1; s <= cfg.getSectionSize(); ++s) {
    if (const char* name = cfg.getSectionName(s)) cfg.findSection(name, s);
    for (const char* key : keys) {
      cfg.findInt(s, key, 0, true);
      cfg.findFloat(s, key, 0, true);
      cfg.findStr(s, key, nullptr, true);
      int lo = 0, hi = 0;
      float flo = 0, fhi = 0;
      get_minmax(cfg, s, key, lo, hi);
      get_minmax(cfg, s, key, flo, fhi);
    }
  }
  return 0;
}
