#include "cfg_check.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <stdexcept>
#include <vector>

#include "orva/activation.h"
#include "orva/layer.h"

namespace orvacli {

namespace {

// The keys each section reads, besides those every layer reads.
const char* const kLayerCommon = "learning_rate_scale quant_thresh smooth totruth";
const char* const kTrain =
    "learning_rate momentum decay max_batches subdivisions time_steps policy burn_in power gamma step scale steps "
    "scales";
const char* const kHead = "class_scale noobject_scale object_scale ";
const char* const kRegion =
    "anchors bg_class classes coord_scale coords loc_type num rescore scale_xy softmax thresh";

const std::map<std::string, std::string>& sectionKeys() {
  static const std::map<std::string, std::string> keys = {
      {"network", std::string("width height channels inputs precision siamese ") + kTrain},
      {"train", std::string("batch ") + kTrain},
      {"convolution", "activation batch_normalize dilation filters groups pad size stride"},
      {"fconn", "activation batch_normalize output"},
      {"maxpool", "centred pad size stride"},
      {"cmaxpool", "centred pad size stride"},
      {"avgpool", "pad size square stride tmax tmin"},
      {"softmax", "groups map temperature"},
      {"dropout", "probability"},
      {"route", "group_id groups layers"},
      {"groute", "group_id groups layers"},
      {"cost", "bias gamma neg_scale pos_scale ratio scale thresh type"},
      {"shortcut", "activation alpha beta from"},
      {"activation", "activation"},
      {"batchnorm", ""},
      {"region", std::string(kHead) + kRegion},
      {"qregion", std::string(kHead) + kRegion},
      {"detobj", std::string(kHead) + kRegion},
      {"heatmap", std::string(kHead) + "bg_class classes num softmax thresh"},
      {"yolo", std::string(kHead) + "anchors beta_nms classes cls_normalizer ignore_thresh iou_loss iou_normalizer "
                                    "mask new_coords nms_kind num scale_x_y truth_thresh"},
      {"resize", "align_corners half_pixel height stride width"},
      {"centernet", "classes peak scale stride topk"},
      {"reorg", "stride"},
      {"upsample", "stride"},
      {"spresize", "stride"},
      {"scalemap", "from"},
      {"attention", "from"},
      {"dynact", "slope"},
      {"smerge", "merge"},
  };
  return keys;
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = std::min(text.find(' ', at), text.size());
    if (end > at) out.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diag = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t up = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (a[i - 1] != b[j - 1])});
      diag = up;
    }
  }
  return row[b.size()];
}

std::string trim(const std::string& s) {
  const size_t b = s.find_first_not_of(" \t\r\n\f\v");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t\r\n\f\v") - b + 1);
}

struct Key {
  std::string name, value;
  int line;
};
struct Section {
  std::string name;
  int line;
  std::vector<Key> keys;
};

// The description's sections and keys with their lines, read by the same rules as the
// engine's reader; malformed lines are left to the engine, which reports them.
std::vector<Section> scan(const std::string& path) {
  std::ifstream in(path);
  std::vector<Section> sections;
  std::string raw;
  for (int line = 1; std::getline(in, raw); ++line) {
    if (line == 1 && raw.compare(0, 3, "\xEF\xBB\xBF") == 0) raw.erase(0, 3);
    const bool indented = !raw.empty() && isspace((unsigned char)raw[0]);
    const std::string text = trim(raw);
    if (text.empty() || text[0] == ';' || text[0] == '#') continue;
    if (indented && !sections.empty() && !sections.back().keys.empty()) {
      sections.back().keys.back().value = text;  // a continuation replaces the value
      continue;
    }
    if (text[0] == '[') {
      const size_t close = text.find(']');
      if (close == std::string::npos) return sections;
      sections.push_back({text.substr(1, close - 1), line, {}});
      continue;
    }
    const size_t delim = text.find_first_of("=:");
    if (delim == std::string::npos || sections.empty()) continue;
    std::string value = text.substr(delim + 1);
    for (size_t k = 1; k < value.size(); ++k)
      if (value[k] == '#' && isspace((unsigned char)value[k - 1])) {
        value.resize(k);
        break;
      }
    sections.back().keys.push_back({trim(text.substr(0, delim)), trim(value), line});
  }
  return sections;
}

}  // namespace

std::string closest(const std::string& word, const std::string* begin, const std::string* end) {
  std::string best;
  size_t best_d = std::max<size_t>(2, word.size() / 3) + 1;
  for (const std::string* c = begin; c != end; ++c) {
    const size_t d = editDistance(word, *c);
    if (d < best_d) best_d = d, best = *c;
  }
  return best;
}

void checkDescription(const std::string& path) {
  const auto& table = sectionKeys();
  std::vector<std::string> section_names;
  for (const auto& [name, keys] : table) section_names.push_back(name);
  auto fault = [&](int line, const std::string& what) {
    throw std::runtime_error(path + ":" + std::to_string(line) + ": " + what);
  };
  auto hint = [](const std::string& near, const char* open, const char* close) {
    return near.empty() ? std::string() : "; did you mean " + std::string(open) + near + close + "?";
  };
  for (const Section& s : scan(path)) {
    const auto known = table.find(s.name);
    if (known == table.end() && ORVA::LayerType::type(s.name.c_str()) < 0)
      fault(s.line, "unknown section [" + s.name + "]" +
                        hint(closest(s.name, section_names.data(), section_names.data() + section_names.size()),
                             "[", "]"));
    std::vector<std::string> keys;
    if (known != table.end()) {
      keys = words(known->second);
      if (s.name != "network" && s.name != "train")
        for (const std::string& k : words(kLayerCommon)) keys.push_back(k);
    }
    int num = 1, anchors = -1, anchors_line = 0;
    for (const Key& k : s.keys) {
      if (known != table.end() && std::find(keys.begin(), keys.end(), k.name) == keys.end())
        fault(k.line, "[" + s.name + "] unknown key '" + k.name + "'" +
                          hint(closest(k.name, keys.data(), keys.data() + keys.size()), "'", "'"));
      if (k.name == "activation" && ActivationType::type(k.value.c_str()) < 0)
        fault(k.line, "[" + s.name + "] unknown activation '" + k.value + "'");
      if (k.name == "num") num = std::atoi(k.value.c_str());
      if (k.name == "anchors" && !k.value.empty()) {
        anchors = 1 + (int)std::count(k.value.begin(), k.value.end(), ',');
        anchors_line = k.line;
      }
    }
    if (anchors >= 0 && anchors != 2 * num)
      fault(anchors_line, "[" + s.name + "] anchors has " + std::to_string(anchors) + " values; num=" +
                              std::to_string(num) + " needs " + std::to_string(2 * num));
  }
}

}  // namespace orvacli
