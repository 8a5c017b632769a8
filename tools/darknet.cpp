#include "darknet.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace orvacli {

std::vector<DarknetSection> readDarknetCfg(const std::string& path) {
  std::ifstream f(path);
  if (!f) throw ConvertError(path + ": can't open");
  std::vector<DarknetSection> out;
  std::string raw;
  for (int line = 1; std::getline(f, raw); ++line) {
    std::string s;
    for (char c : raw)
      if (!std::isspace((unsigned char)c)) s += c;
    if (line == 1 && s.compare(0, 3, "\xEF\xBB\xBF") == 0) s.erase(0, 3);
    if (s.empty() || s[0] == '#' || s[0] == ';') continue;
    const std::string at = path + ":" + std::to_string(line) + ": ";
    if (s[0] == '[') {
      if (s.back() != ']') throw ConvertError(at + "section header without ']'");
      out.push_back({s.substr(1, s.size() - 2), line, {}});
      continue;
    }
    const size_t eq = s.find('=');
    if (eq == std::string::npos || eq == 0) throw ConvertError(at + "expected key=value, found '" + s + "'");
    if (out.empty()) throw ConvertError(at + "key before the first section");
    out.back().keys.push_back({s.substr(0, eq), s.substr(eq + 1), line});
  }
  return out;
}

namespace {

// One section's keys: typed look-ups with the dialect's defaults, and a final check that
// every key present was understood.
class Keys {
 public:
  Keys(const DarknetSection& s, const std::string& path) : _s(s), _path(path) {}

  std::string at(int line) const { return _path + ":" + std::to_string(line) + ": [" + _s.name + "] "; }
  std::string header() const { return at(_s.line); }
  [[noreturn]] void fail(const std::string& key, const std::string& problem) const {
    const DarknetSection::Key* k = find(key);
    throw ConvertError(at(k ? k->line : _s.line) + "'" + key + "': " + problem);
  }

  bool has(const std::string& key) const { return find(key) != nullptr; }
  std::string str(const std::string& key, const std::string& def) {
    const DarknetSection::Key* k = find(key);
    _used.insert(key);
    return k ? k->value : def;
  }
  int i(const std::string& key, int def) {
    const std::string v = str(key, "");
    if (v.empty()) return def;
    char* end = nullptr;
    const long r = std::strtol(v.c_str(), &end, 10);
    if (*end || r < -(1L << 30) || r > (1L << 30)) fail(key, "'" + v + "' is not an integer");
    return (int)r;
  }
  float f(const std::string& key, float def) {
    const std::string v = str(key, "");
    if (v.empty()) return def;
    char* end = nullptr;
    const double r = std::strtod(v.c_str(), &end);
    if (*end || !std::isfinite(r)) fail(key, "'" + v + "' is not a number");
    return (float)r;
  }
  // A key the engine has no counterpart for: accepted only at its neutral value.
  void neutral(const std::string& key, int value) {
    if (has(key) && i(key, value) != value)
      fail(key, "only " + std::to_string(value) + " can be expressed by the engine");
    _used.insert(key);
  }
  // Keys that steer training or augmentation only; a model file has no place for them.
  void ignore(std::initializer_list<const char*> keys) {
    for (const char* k : keys) _used.insert(k);
  }
  void finish() const {
    for (const auto& k : _s.keys)
      if (!_used.count(k.key))
        throw ConvertError(at(k.line) + "key '" + k.key + "' cannot be expressed by the engine");
  }

 private:
  const DarknetSection::Key* find(const std::string& key) const {
    const DarknetSection::Key* r = nullptr;
    for (const auto& k : _s.keys)
      if (k.key == key) r = &k;  // a later line replaces an earlier one
    return r;
  }
  const DarknetSection& _s;
  std::string _path;
  std::set<std::string> _used;
};

// Reads 32-bit floats off the weights file in order.
class WeightReader {
 public:
  WeightReader(const std::vector<unsigned char>* bytes, const std::string& path) : _b(bytes), _path(path) {
    if (!_b) return;
    int32_t v[3];
    if (_b->size() < 16) throw ConvertError(path + ": too short for the header");
    std::memcpy(v, _b->data(), 12);
    // Files from version 0.2 on count the samples seen in 64 bits, older ones in 32.
    const bool wide = (int64_t)v[0] * 10 + v[1] >= 2 && v[0] < 1000 && v[1] < 1000;
    _transposed = v[0] > 1000 || v[1] > 1000;
    if (wide) {
      if (_b->size() < 20) throw ConvertError(path + ": too short for the header");
      std::memcpy(&_seen, _b->data() + 12, 8);
      _pos = 20;
    } else {
      uint32_t s;
      std::memcpy(&s, _b->data() + 12, 4);
      _seen = s;
      _pos = 16;
    }
  }
  uint64_t seen() const { return _seen; }
  bool transposed() const { return _transposed; }
  std::vector<float> take(size_t n, const std::string& where) {
    std::vector<float> v(n, 0.f);
    if (!_b) return v;
    if (_pos + 4 * n > _b->size())
      throw ConvertError(_path + ": ends inside the weights of " + where + " (" + std::to_string(n) +
                         " floats wanted, " + std::to_string((_b->size() - _pos) / 4) + " left)");
    std::memcpy(v.data(), _b->data() + _pos, 4 * n);
    _pos += 4 * n;
    return v;
  }
  void finish() const {
    if (_b && _pos != _b->size())
      throw ConvertError(_path + ": " + std::to_string(_b->size() - _pos) +
                         " bytes left after the last layer; description and weights disagree");
  }

 private:
  const std::vector<unsigned char>* _b;
  std::string _path;
  size_t _pos = 0;
  uint64_t _seen = 0;
  bool _transposed = false;
};

const std::set<std::string> kActivations = {"logistic", "relu", "relie", "linear", "tanh", "leaky",
                                            "elu",      "loggy", "hardtan", "relu6", "mish", "swish"};

std::string activation(Keys& k, const char* def) {
  const std::string a = k.str("activation", def);
  if (!kActivations.count(a)) k.fail("activation", "'" + a + "' has no counterpart in the engine");
  return a;
}

void append(std::vector<float>& w, const std::vector<float>& v) { w.insert(w.end(), v.begin(), v.end()); }

// Comma-separated integers or numbers of one key; an item that is neither fails the key.
std::vector<double> list(Keys& k, const std::string& key, bool integers) {
  std::vector<double> v;
  const std::string text = k.str(key, "");
  std::stringstream ss(text);
  std::string item;
  while (std::getline(ss, item, ',')) {
    char* end = nullptr;
    const double x = std::strtod(item.c_str(), &end);
    if (item.empty() || *end || !std::isfinite(x) || (integers && x != (long)x))
      k.fail(key, "'" + item + "' is not " + (integers ? "an integer" : "a number"));
    v.push_back(x);
  }
  return v;
}

// [yolo]: the masked anchors of the network's list, the loss and suppression choices.
void yolo(Keys& k, const LayerShape& cur, std::ostringstream& o) {
  const int classes = k.i("classes", 20), num = k.i("num", 1);
  if (classes < 0 || classes > 65535) k.fail("classes", "must lie in 0..65535");
  if (num < 1 || num > 255) k.fail("num", "must lie in 1..255");
  const std::vector<double> anchors = list(k, "anchors", false);
  if ((int)anchors.size() < 2 * num)
    k.fail("anchors", std::to_string(anchors.size()) + " values for num=" + std::to_string(num) + " (2 per anchor)");
  std::vector<double> mask = list(k, "mask", true);
  if (mask.empty())
    for (int a = 0; a < num; ++a) mask.push_back(a);
  for (double m : mask)
    if (m < 0 || m >= num)
      k.fail("mask", std::to_string((long)m) + " names no anchor (num=" + std::to_string(num) + ")");
  const long long want = (5LL + classes) * (long long)mask.size();
  if (cur.c != want)
    k.fail("classes", "the layer before gives " + std::to_string(cur.c) + " channels, (5 + classes) x " +
                          std::to_string(mask.size()) + " masked anchors is " + std::to_string(want));
  const std::string nms_kind = k.str("nms_kind", "greedynms");
  if (nms_kind != "greedynms" && nms_kind != "diounms")
    k.fail("nms_kind", "'" + nms_kind + "' cannot be expressed by the engine (greedynms, diounms)");
  const std::string iou_loss = k.str("iou_loss", "mse");
  if (iou_loss != "mse" && iou_loss != "giou" && iou_loss != "ciou")
    k.fail("iou_loss", "'" + iou_loss + "' cannot be expressed by the engine (mse, giou, ciou)");
  const int new_coords = k.i("new_coords", 0);
  if (new_coords != 0 && new_coords != 1) k.fail("new_coords", "must be 0 or 1");
  const float scale = k.f("scale_x_y", 1);
  if (scale < 1) k.fail("scale_x_y", "must be 1 or more");
  k.neutral("focal_loss", 0);
  k.ignore({"jitter", "random", "resize", "max_delta", "counters_per_class", "label_smooth_eps", "uc_normalizer",
            "iou_thresh", "obj_normalizer", "delta_normalizer", "objectness_smooth", "max", "track_history_size",
            "sim_thresh", "dets_for_track", "dets_for_show", "track_ciou_norm", "embedding_layer"});
  o << "[yolo]\nclasses=" << classes << "\nnum=" << num << "\nmask=";
  for (size_t a = 0; a < mask.size(); ++a) o << (a ? "," : "") << (long)mask[a];
  o << "\nanchors=";
  for (int a = 0; a < 2 * num; ++a) o << (a ? "," : "") << anchors[a];
  o << "\nscale_x_y=" << scale << "\nnew_coords=" << new_coords << "\nignore_thresh=" << k.f("ignore_thresh", 0.5f)
    << "\ntruth_thresh=" << k.f("truth_thresh", 1) << "\niou_loss=" << iou_loss
    << "\niou_normalizer=" << k.f("iou_normalizer", 1) << "\ncls_normalizer=" << k.f("cls_normalizer", 1)
    << "\nnms_kind=" << nms_kind << "\nbeta_nms=" << k.f("beta_nms", 0.6f) << "\n";
}

}  // namespace

ConvertedModel darknetToEngine(const std::vector<DarknetSection>& sections, const std::string& cfg_path,
                               const std::vector<unsigned char>* weights, const std::string& weights_path) {
  if (sections.empty() || (sections[0].name != "net" && sections[0].name != "network"))
    throw ConvertError(cfg_path + ": the first section must be [net]");
  ConvertedModel m;
  WeightReader wr(weights, weights_path);
  m.seen = wr.seen();
  std::ostringstream cfg;
  LayerShape cur;
  int inputs = 0;
  {
    Keys k(sections[0], cfg_path);
    cur = {k.i("width", 0), k.i("height", 0), k.i("channels", 0)};
    inputs = k.i("inputs", cur.w * cur.h * cur.c);
    if (inputs <= 0) throw ConvertError(k.header() + "no input size (width, height, channels or inputs)");
    k.ignore({"batch", "subdivisions", "momentum", "decay", "angle", "saturation", "exposure", "hue",
              "learning_rate", "burn_in", "max_batches", "policy", "steps", "scales", "step", "gamma",
              "power", "max_crop", "min_crop", "aspect", "flip", "jitter", "random", "time_steps",
              "adam", "B1", "B2", "eps", "mosaic", "letter_box", "mixup", "cutmix", "blur",
              "label_smooth_eps", "resize_step", "notruth", "track", "augment_speed", "sequential",
              "rate", "seed", "center", "max_chart_loss", "hue_shift", "gaussian_noise", "mosaic_bound",
              "contrastive", "unsupervised", "label_smooth_eps", "adversarial_lr", "attention", "equidistant_point",
              "dynamic_minibatch", "optimized_memory", "workspace_size_limit_MB", "cutmix", "max_chart_loss",
              "try_fix_nan", "loss_scale", "ema_alpha", "use_cuda_graph", "show_receptive_field"});
    k.finish();
    cfg << "[network]\nwidth=" << cur.w << "\nheight=" << cur.h << "\nchannels=" << cur.c;
    if (k.has("inputs")) cfg << "\ninputs=" << inputs;
    cfg << "\n\n";
  }

  std::vector<LayerShape> shapes;  // per layer of the dialect, for route and shortcut
  // Per layer of the dialect, the engine layer holding its output: a dropout section adds
  // no engine layer (it is the identity when running), so later indexes shift.
  std::vector<int> engine_index;
  int engine_layers = 0;
  for (size_t si = 1; si < sections.size(); ++si) {
    const DarknetSection& s = sections[si];
    Keys k(s, cfg_path);
    const int index = (int)si - 1;
    const std::string where = "section " + std::to_string(si) + " [" + s.name + "] (line " +
                              std::to_string(s.line) + ")";
    const bool image = cur.w > 0 && cur.h > 0 && cur.c > 0;
    auto need_image = [&] {
      if (!image) throw ConvertError(k.header() + "needs an image input, the layer before gives a flat vector");
    };
    LayerShape out = cur;
    std::ostringstream o;
    const std::string& n = s.name;
    if (n == "convolutional" || n == "conv") {
      need_image();
      const int filters = k.i("filters", 1), size = k.i("size", 1), stride = k.i("stride", 1);
      const int groups = k.i("groups", 1), dilation = k.i("dilation", 1);
      k.neutral("stride_x", stride);
      k.neutral("stride_y", stride);
      const int pad_flag = k.i("pad", 0), padding = pad_flag ? size / 2 : k.i("padding", 0);
      k.ignore({"padding", "flipped", "dot"});
      k.neutral("binary", 0);
      k.neutral("xnor", 0);
      k.neutral("antialiasing", 0);
      const std::string act = activation(k, "logistic");
      const int bn = k.i("batch_normalize", 0);
      if (filters < 1 || size < 1 || stride < 1 || dilation < 1 || groups < 1 || padding < 0)
        throw ConvertError(k.header() + "filters, size, stride, groups and dilation must be positive");
      if (cur.c % groups || filters % groups)
        k.fail("groups", std::to_string(groups) + " does not divide the " + std::to_string(cur.c) +
                             " input channels and " + std::to_string(filters) + " filters");
      const int ext = (size - 1) * dilation + 1;
      out = {(cur.w + 2 * padding - ext) / stride + 1, (cur.h + 2 * padding - ext) / stride + 1, filters};
      if (out.w < 1 || out.h < 1) throw ConvertError(k.header() + "the kernel is larger than its input");
      o << "[convolution]\nfilters=" << filters << "\nsize=" << size << "\nstride=" << stride
        << "\npad=" << padding << "\ngroups=" << groups << "\ndilation=" << dilation
        << "\nactivation=" << act << "\nbatch_normalize=" << (bn ? 1 : 0) << "\n";
      // The engine's record has the dialect's order: biases, normalisation, weights.
      append(m.weights, wr.take(filters, where));
      if (bn) append(m.weights, wr.take(3 * (size_t)filters, where));
      append(m.weights, wr.take((size_t)filters * (cur.c / groups) * size * size, where));
    } else if (n == "connected" || n == "conn") {
      const int output = k.i("output", 1), bn = k.i("batch_normalize", 0);
      const std::string act = activation(k, "logistic");
      if (output < 1) k.fail("output", "must be positive");
      const int in = image ? cur.w * cur.h * cur.c : inputs;
      out = {1, 1, output};
      o << "[fconn]\noutput=" << output << "\nactivation=" << act << "\nbatch_normalize=" << (bn ? 1 : 0) << "\n";
      // The dialect stores the normalisation after the weights; the engine before them.
      std::vector<float> b = wr.take(output, where), w = wr.take((size_t)output * in, where), norm;
      if (bn) norm = wr.take(3 * (size_t)output, where);
      if (wr.transposed()) {
        std::vector<float> t(w.size());
        for (int r = 0; r < in; ++r)
          for (int c = 0; c < output; ++c) t[(size_t)c * in + r] = w[(size_t)r * output + c];
        w.swap(t);
      }
      append(m.weights, b);
      append(m.weights, norm);
      append(m.weights, w);
    } else if (n == "maxpool" || n == "max") {
      need_image();
      const int stride = k.i("stride", 1), size = k.i("size", stride), padding = k.i("padding", size - 1);
      k.neutral("stride_x", stride);
      k.neutral("stride_y", stride);
      k.neutral("maxpool_depth", 0);
      k.neutral("antialiasing", 0);
      if (size < 1 || stride < 1 || padding < 0) throw ConvertError(k.header() + "size and stride must be positive");
      // The dialect pads `padding` in all, half of it before; the engine pads `pad` before.
      out = {(cur.w + padding - size) / stride + 1, (cur.h + padding - size) / stride + 1, cur.c};
      if (out.w < 1 || out.h < 1) k.fail("size", std::to_string(size) + " is larger than the padded input");
      const int pad = padding / 2;
      o << "[maxpool]\nsize=" << size << "\nstride=" << stride << "\npad=" << pad << "\n";
      // The engine's plain rule, (in + 2 pad) / stride, leaves the window size out; where it
      // gives another shape (the stride-1 pyramid pools) the centred rule gives the dialect's.
      const bool plain = (cur.w + 2 * pad) / stride == out.w && (cur.h + 2 * pad) / stride == out.h;
      // An odd padding has no centred form either; the shape check after the build refuses it.
      if (!plain && padding % 2 == 0 && size > pad) o << "centred=1\n";
    } else if (n == "avgpool" || n == "avg") {
      need_image();
      out = {1, 1, cur.c};
      o << "[avgpool]\n";
    } else if (n == "route") {
      const std::string list = k.str("layers", "");
      if (list.empty()) throw ConvertError(k.header() + "'layers' is required");
      const int groups = k.i("groups", 1), group_id = k.i("group_id", 0);
      if (groups < 1) k.fail("groups", "must be positive");
      if (group_id < 0 || group_id >= groups)
        k.fail("group_id", std::to_string(group_id) + " is not below groups = " + std::to_string(groups));
      std::string abs;
      std::stringstream ss(list);
      std::string item;
      bool first = true;
      while (std::getline(ss, item, ',')) {
        char* end = nullptr;
        long v = std::strtol(item.c_str(), &end, 10);
        if (item.empty() || *end) k.fail("layers", "'" + item + "' is not a layer index");
        if (v < 0) v += index;
        if (v < 0 || v >= index) k.fail("layers", "'" + item + "' names no earlier layer");
        LayerShape src = shapes[v];
        if (src.c % groups)
          k.fail("groups", std::to_string(groups) + " does not divide the " + std::to_string(src.c) +
                               " channels of layer " + std::to_string(v));
        src.c /= groups;
        if (first) {
          out = src;
        } else {
          if (src.w != out.w || src.h != out.h) k.fail("layers", "the layers differ in width or height");
          out.c += src.c;
        }
        abs += (first ? "" : ",") + std::to_string(engine_index[v]);
        first = false;
      }
      o << "[route]\nlayers=" << abs << "\n";
      if (groups > 1) o << "groups=" << groups << "\ngroup_id=" << group_id << "\n";
    } else if (n == "shortcut") {
      if (!k.has("from")) throw ConvertError(k.header() + "'from' is required");
      int from = k.i("from", 0);
      if (from < 0) from += index;
      if (from < 0 || from >= index) k.fail("from", "names no earlier layer");
      const std::string act = activation(k, "linear");
      const float alpha = k.f("alpha", 1), beta = k.f("beta", 1);
      for (const char* key : {"weights_type", "weights_normalization"})
        if (k.str(key, "none") != "none") k.fail(key, "only none can be expressed");
      o << "[shortcut]\nfrom=" << engine_index[from] << "\nactivation=" << act << "\nalpha=" << alpha << "\nbeta=" << beta << "\n";
    } else if (n == "upsample") {
      need_image();
      const int stride = k.i("stride", 2);
      if (stride < 1) k.fail("stride", "only upsampling (a positive stride) can be expressed");
      if (k.f("scale", 1) != 1.f) k.fail("scale", "only 1 can be expressed");
      out = {cur.w * stride, cur.h * stride, cur.c};
      o << "[upsample]\nstride=" << stride << "\n";
    } else if (n == "reorg") {
      need_image();
      const int stride = k.i("stride", 1);
      k.neutral("reverse", 0);
      k.neutral("flatten", 0);
      k.neutral("extra", 0);
      if (stride < 1 || cur.w % stride || cur.h % stride) k.fail("stride", "must divide the input width and height");
      out = {cur.w / stride, cur.h / stride, cur.c * stride * stride};
      o << "[reorg]\nstride=" << stride << "\n";
    } else if (n == "region") {
      need_image();
      const int classes = k.i("classes", 20), coords = k.i("coords", 4), num = k.i("num", 1);
      const std::string anchors = k.str("anchors", "");
      if (anchors.empty()) throw ConvertError(k.header() + "'anchors' is required");
      if (k.has("tree") || k.has("map")) throw ConvertError(k.header() + "a class tree cannot be expressed");
      k.neutral("log", 0);
      k.neutral("sqrt", 0);
      k.ignore({"jitter", "random", "bias_match", "absolute", "max", "classfix", "focal_loss"});
      const int values = 1 + (int)std::count(anchors.begin(), anchors.end(), ',');
      if (values != 2 * num) k.fail("anchors", std::to_string(values) + " values for num=" + std::to_string(num));
      if (cur.c != num * (coords + 1 + classes))
        throw ConvertError(k.header() + "the layer before gives " + std::to_string(cur.c) +
                           " channels, num x (coords + 1 + classes) is " +
                           std::to_string(num * (coords + 1 + classes)));
      o << "[region]\nclasses=" << classes << "\ncoords=" << coords << "\nnum=" << num
        << "\nsoftmax=" << k.i("softmax", 0) << "\nbg_class=" << k.i("background", 0)
        << "\nrescore=" << k.f("rescore", 0) << "\nthresh=" << k.f("thresh", 0.5f)
        << "\nobject_scale=" << k.f("object_scale", 1) << "\nnoobject_scale=" << k.f("noobject_scale", 1)
        << "\nclass_scale=" << k.f("class_scale", 1) << "\ncoord_scale=" << k.f("coord_scale", 1)
        << "\nanchors=" << anchors << "\n";
    } else if (n == "yolo") {
      need_image();
      yolo(k, cur, o);
    } else if (n == "softmax" || n == "soft") {
      const int in = image ? cur.w * cur.h * cur.c : inputs;
      const int groups = k.i("groups", 1);
      if (groups < 1 || in % groups) k.fail("groups", "must divide the " + std::to_string(in) + " inputs");
      if (k.has("tree")) throw ConvertError(k.header() + "a class tree cannot be expressed");
      k.neutral("spatial", 0);
      k.ignore({"noloss"});
      o << "[softmax]\ngroups=" << groups << "\ntemperature=" << k.f("temperature", 1) << "\n";
      // The engine spreads a description's groups through an explicit map.
      if (groups > 1) {
        o << "map=";
        for (int g = 0; g < groups; ++g) o << (g ? "," : "") << in / groups;
        o << "\n";
      }
      out = {1, 1, in};
    } else if (n == "dropout") {
      const float p = k.f("probability", 0.5f);
      if (p < 0 || p >= 1) k.fail("probability", "must lie in [0, 1)");
      k.neutral("dropblock", 0);
      if (engine_layers == 0) throw ConvertError(k.header() + "a dropout section cannot come first");
      k.finish();
      shapes.push_back(cur);
      engine_index.push_back(engine_layers - 1);
      continue;
    } else if (n == "cost") {
      const std::string type = k.str("type", "sse");
      const char* engine = type == "sse" ? "L2" : type == "L1" ? "L1" : type == "smooth" ? "L1s" : nullptr;
      if (!engine) k.fail("type", "'" + type + "' has no counterpart in the engine");
      o << "[cost]\ntype=" << engine << "\nscale=" << k.f("scale", 1) << "\nratio=" << k.f("ratio", 0)
        << "\nthresh=" << k.f("thresh", 0) << "\n";
      k.ignore({"noobject_scale"});
      out = {-1, -1, -1};  // the engine does not report a trailing cost layer's shape
    } else if (n == "net" || n == "network") {
      throw ConvertError(k.header() + "only the first section may be [net]");
    } else {
      throw ConvertError(k.header() + "this section cannot be expressed by the engine");
    }
    k.finish();
    cfg << o.str() << "\n";
    m.origin.push_back(where);
    m.shapes.push_back(out);
    shapes.push_back(out);
    engine_index.push_back(engine_layers++);
    if (out.w >= 0) {
      cur = out;
      inputs = cur.w * cur.h * cur.c;
    }
  }
  wr.finish();
  m.cfg = cfg.str();
  return m;
}

}  // namespace orvacli
