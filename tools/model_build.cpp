#include "model_build.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "orva/orva.h"

namespace fs = std::filesystem;

namespace orvacli {

std::vector<unsigned char> weightsOnlyFile(const ConvertedModel& m) {
  static_assert(sizeof(float) == 4, "records hold 32-bit floats");
  const int32_t head[3] = {0, 2, 0};
  std::vector<unsigned char> out(20 + m.weights.size() * 4);
  std::memcpy(out.data(), head, 12);
  std::memcpy(out.data() + 12, &m.seen, 8);
  if (!m.weights.empty()) std::memcpy(out.data() + 20, m.weights.data(), m.weights.size() * 4);
  return out;
}

void writeModel(const ConvertedModel& m, const std::string& path) {
  const std::vector<unsigned char> w = weightsOnlyFile(m);

  // Description faults come back as exceptions here, not as the end of the process.
  struct FatalThrows {
    bool was = ORVA::fatalThrows();
    FatalThrows() { ORVA::setFatalThrows(true); }
    ~FatalThrows() { ORVA::setFatalThrows(was); }
  } fatal_throws;
  ORVA::Network net(ORVA::TEST, 1, -1);
  try {
    if (net.loadText(m.cfg, w.data(), w.size()) != 0) throw ConvertError("the description has no network section");
  } catch (const ConvertError&) {
    throw;
  } catch (const std::exception& e) {
    throw ConvertError(std::string("the engine refused the converted network: ") + e.what());
  }
  if (!m.shapes.empty()) {
    if ((size_t)net.getLayerCount() != m.shapes.size())
      throw ConvertError("the engine built " + std::to_string(net.getLayerCount()) + " layers, expected " +
                         std::to_string(m.shapes.size()) + " (a section it does not know?)");
    for (int i = 0; i < net.getLayerCount(); ++i) {
      const ORVA::LayerInfo l = net.layerInfo(i);
      const LayerShape& s = m.shapes[i];
      if (s.w < 0) continue;  // a shape the source does not fix
      if (l.out_w != s.w || l.out_h != s.h || l.out_c != s.c) {
        const std::string where = i < (int)m.origin.size() ? m.origin[i] : "layer " + std::to_string(i);
        throw ConvertError(where + ": the engine's layer gives " + std::to_string(l.out_w) + " x " +
                           std::to_string(l.out_h) + " x " + std::to_string(l.out_c) + ", the source " +
                           std::to_string(s.w) + " x " + std::to_string(s.h) + " x " + std::to_string(s.c) +
                           "; the engine cannot express this layer exactly");
      }
    }
  }
  try {
    net.save(path.c_str(), true);
  } catch (const std::exception& e) {
    throw ConvertError(path + ": " + e.what());
  } catch (size_t) {
    throw ConvertError(path + ": can't write (the device is full or failing)");
  }
  if (!m.names.empty()) {
    std::ofstream f(namesPath(path));
    for (const std::string& n : m.names) f << n << "\n";
    if (!f) throw ConvertError(namesPath(path) + ": can't write");
  }
}

std::string namesPath(const std::string& model_path) {
  return fs::path(model_path).replace_extension(".names").string();
}

std::vector<std::string> readNames(const std::string& path) {
  std::vector<std::string> names;
  std::ifstream f(path);
  std::string line;
  while (std::getline(f, line)) {
    const size_t a = line.find_first_not_of(" \t\r");
    if (a == std::string::npos) continue;
    const size_t b = line.find_last_not_of(" \t\r");
    names.push_back(line.substr(a, b - a + 1));
  }
  return names;
}

}  // namespace orvacli
