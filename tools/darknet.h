// Import of network descriptions and weights in the darknet dialect.
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "model_build.h"

namespace orvacli {

struct DarknetSection {
  std::string name;
  int line = 0;  // of the header, 1-based
  struct Key {
    std::string key, value;
    int line;
  };
  std::vector<Key> keys;
};

// The dialect's syntax: "[name]" headers, "key=value" lines, '#' and ';' comment lines; blanks
// anywhere in a line are dropped. Throws ConvertError "path:line: problem".
std::vector<DarknetSection> readDarknetCfg(const std::string& path);

// Maps every section onto one engine layer and reorders the weights into the engine's
// records. `weights` is the whole weights file (header included), or null for a network
// with zero weights. Any section, key or value the engine cannot express is an error that
// names the file, the line and the key.
ConvertedModel darknetToEngine(const std::vector<DarknetSection>& sections, const std::string& cfg_path,
                               const std::vector<unsigned char>* weights, const std::string& weights_path);

}  // namespace orvacli
