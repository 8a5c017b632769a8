#include "tfjs.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "graph_mapper.h"
#include "weights_manifest.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace orvacli {

namespace {

// Bounds that keep a hostile file from asking for unbounded memory or recursion.
constexpr size_t kMaxNodes = 100000;
constexpr int kMaxDepth = 2000;

using Tensor = NamedTensor;

std::string base64(const std::string& in) {
  std::string out;
  unsigned v = 0;
  int bits = 0;
  for (char ch : in) {
    int d;
    if (ch >= 'A' && ch <= 'Z') d = ch - 'A';
    else if (ch >= 'a' && ch <= 'z') d = ch - 'a' + 26;
    else if (ch >= '0' && ch <= '9') d = ch - '0' + 52;
    else if (ch == '+' || ch == '-') d = 62;
    else if (ch == '/' || ch == '_') d = 63;
    else continue;  // padding
    v = (v << 6) | (unsigned)d;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += (char)((v >> bits) & 0xFF);
    }
  }
  return out;
}

// Every tensor of the manifest, by name.
std::map<std::string, Tensor> read_weights(const json& manifest, const ShardReader& read, const std::string& src) {
  std::map<std::string, Tensor> out;
  for (Tensor& t : readWeightGroups(manifest, read, src)) out[t.name] = std::move(t);
  return out;
}

struct Node {
  std::string name, op;
  std::vector<std::string> in;
  const json* attr = nullptr;
};

// What a graph tensor is for the engine: the output of engine layer `layer` (-1: the network
// input) of w x h x c, a constant, or a layer output with a zero border still to be applied.
struct Value {
  int layer = -1;
  int w = 0, h = 0, c = 0;
  const Tensor* k = nullptr;
  int pad[4] = {0, 0, 0, 0};  // top, bottom, left, right of an explicit Pad
  bool padded = false;
};

class Importer {
 public:
  Importer(const json& doc, std::map<std::string, Tensor> weights, const std::string& src, const TfjsOptions& opt)
      : _src(src), _opt(opt), _weights(std::move(weights)), _map(src) {
    const json& nodes = doc.at("modelTopology").at("node");
    if (!nodes.is_array() || nodes.size() > kMaxNodes) throw ConvertError(src + ": modelTopology.node is not a list");
    for (const json& n : nodes) {
      Node node;
      node.name = n.at("name").get<std::string>();
      node.op = n.at("op").get<std::string>();
      if (n.contains("input"))
        for (const json& i : n.at("input")) {
          std::string s = i.get<std::string>();
          if (!s.empty() && s[0] == '^') continue;  // control dependency
          if (s.size() > 2 && s.compare(s.size() - 2, 2, ":0") == 0) s.resize(s.size() - 2);
          node.in.push_back(s);
        }
      if (n.contains("attr")) node.attr = &n.at("attr");
      if (!_nodes.emplace(node.name, node).second) throw ConvertError(src + ": node '" + node.name + "' twice");
      _order.push_back(node.name);
    }
    for (const auto& kv : _nodes)
      for (const std::string& i : kv.second.in) _consumers[i].insert(kv.first);
    if (doc.contains("signature") && doc.at("signature").contains("outputs"))
      for (const auto& o : doc.at("signature").at("outputs").items()) {
        std::string name = o.value().value("name", o.key());
        if (name.size() > 2 && name.compare(name.size() - 2, 2, ":0") == 0) name.resize(name.size() - 2);
        _outputs.push_back(name);
      }
  }

  ConvertedModel run() {
    const Node* topk = find_op("TopKV2");
    if (topk) {
      centernet_head(*topk);
    } else {
      std::vector<std::string> outs = _outputs;
      if (outs.empty())
        for (const std::string& n : _order)
          if (!_consumers.count(n) && _nodes.at(n).op != "Const") outs.push_back(n);
      if (outs.size() != 1)
        throw ConvertError(_src + ": the graph has " + std::to_string(outs.size()) +
                           " outputs; the engine's networks have one (or a CenterNet head)");
      const Value v = get(outs[0], 0);
      if (v.k || v.layer < 0) throw ConvertError(_src + ": the output '" + outs[0] + "' is not computed by a layer");
      last(v, node(outs[0]));
    }
    return _map.finish("Converted by orva convert --tfjs from " + fs::path(_src).filename().string());
  }

 private:
  std::string _src;
  TfjsOptions _opt;
  std::map<std::string, Tensor> _weights;
  std::map<std::string, Node> _nodes;
  std::vector<std::string> _order, _outputs;
  std::map<std::string, std::set<std::string>> _consumers;
  std::map<std::string, Value> _values;
  GraphMapper _map;
  int _in_w = 0, _in_h = 0;
  bool _input_read = false;

  // ---- graph look-ups ----
  const Node& node(const std::string& name) const {
    auto it = _nodes.find(name);
    if (it == _nodes.end()) throw ConvertError(_src + ": no node '" + name + "'");
    return it->second;
  }
  const Node* find_op(const std::string& op) const {
    for (const std::string& n : _order)
      if (_nodes.at(n).op == op) return &_nodes.at(n);
    return nullptr;
  }
  ConvertError fault(const Node& n, const std::string& problem) const {
    return ConvertError(_src + ": node '" + n.name + "' (" + n.op + "): " + problem);
  }
  // The node behind Identity links.
  const Node& through_identity(const std::string& name) const {
    const Node* n = &node(name);
    for (int k = 0; n->op == "Identity" && n->in.size() == 1 && k < kMaxDepth; ++k) n = &node(n->in[0]);
    return *n;
  }
  const Tensor* constant(const std::string& name) const {
    const Node& n = through_identity(name);
    if (n.op != "Const") return nullptr;
    auto it = _weights.find(n.name);
    if (it == _weights.end()) throw fault(n, "constant without a tensor in the weights manifest");
    return &it->second;
  }
  bool scalar(const std::string& name, float* v) const {
    const Tensor* t = _nodes.count(name) ? constant(name) : nullptr;
    if (!t || t->size() != 1) return false;
    *v = t->values[0];
    return true;
  }
  bool scalar_near(const std::string& name, double want) const {
    float v;
    return scalar(name, &v) && std::fabs(v - want) < 1e-3 * std::max(1.0, std::fabs(want));
  }
  const json* attr(const Node& n, const char* key) const {
    return n.attr && n.attr->contains(key) ? &n.attr->at(key) : nullptr;
  }
  std::vector<int> attr_ints(const Node& n, const char* key) const {
    std::vector<int> out;
    const json* a = attr(n, key);
    if (!a || !a->contains("list") || !a->at("list").contains("i")) return out;
    for (const json& v : a->at("list").at("i")) out.push_back(wholeInt(v));
    return out;
  }
  std::string attr_str(const Node& n, const char* key) const {
    const json* a = attr(n, key);
    return a && a->contains("s") ? base64(a->at("s").get<std::string>()) : "";
  }
  std::vector<std::string> attr_strs(const Node& n, const char* key) const {
    std::vector<std::string> out;
    const json* a = attr(n, key);
    if (a && a->contains("list") && a->at("list").contains("s"))
      for (const json& v : a->at("list").at("s")) out.push_back(base64(v.get<std::string>()));
    return out;
  }
  bool attr_bool(const Node& n, const char* key) const {
    const json* a = attr(n, key);
    return a && a->contains("b") && a->at("b").get<bool>();
  }
  // True when every consumer of `name` is one of `inside`.
  bool consumed_only_by(const std::string& name, const std::set<std::string>& inside) const {
    auto it = _consumers.find(name);
    if (it == _consumers.end()) return true;
    for (const std::string& c : it->second)
      if (!inside.count(c)) return false;
    return true;
  }
  bool is_op(const std::string& name, const char* op) const { return _nodes.count(name) && node(name).op == op; }

  // relu6(x + 3) at `name`: sets x and adds the two nodes to `inside`.
  bool relu6_plus3(const std::string& name, std::string* x, std::set<std::string>* inside) const {
    if (!is_op(name, "Relu6") || node(name).in.size() != 1) return false;
    const Node& add = node(node(name).in[0]);
    if ((add.op != "Add" && add.op != "AddV2") || add.in.size() != 2) return false;
    for (int k = 0; k < 2; ++k)
      if (scalar_near(add.in[k], 3) && !constant(add.in[1 - k])) {
        *x = add.in[1 - k];
        inside->insert(name);
        inside->insert(add.name);
        return true;
      }
    return false;
  }
  // A Mul of `name`'s two inputs by a scalar near `factor`: the other input.
  bool times(const Node& n, double factor, std::string* other) const {
    if (n.op != "Mul" || n.in.size() != 2) return false;
    for (int k = 0; k < 2; ++k)
      if (scalar_near(n.in[k], factor) && !constant(n.in[1 - k])) {
        *other = n.in[1 - k];
        return true;
      }
    return false;
  }
  // relu6(x + 3) / 6 written as a Mul by 1/6.
  bool hard_sigmoid(const Node& n, std::string* x, std::set<std::string>* inside) const {
    std::string r;
    if (!times(n, 1.0 / 6, &r) || !relu6_plus3(r, x, inside)) return false;
    inside->insert(n.name);
    return true;
  }
  // x * relu6(x + 3) / 6 in the three orders graphs write it.
  bool hard_swish(const Node& n, std::string* x, std::set<std::string>* inside) const {
    if (n.op != "Mul" || n.in.size() != 2) return false;
    for (int k = 0; k < 2; ++k) {
      const std::string& a = n.in[k];
      const std::string& b = n.in[1 - k];
      std::set<std::string> in;
      std::string x1, x2;
      // (x / 6) * relu6(x + 3)
      if (_nodes.count(a) && times(node(a), 1.0 / 6, &x1) && relu6_plus3(b, &x2, &in) && x1 == x2) {
        in.insert(a);
        in.insert(n.name);
        inside->insert(in.begin(), in.end());
        *x = x1;
        return true;
      }
      // x * hard_sigmoid(x)
      in.clear();
      if (_nodes.count(b) && hard_sigmoid(node(b), &x1, &in) && x1 == a) {
        in.insert(n.name);
        inside->insert(in.begin(), in.end());
        *x = a;
        return true;
      }
      // (x * relu6(x + 3)) / 6
      in.clear();
      std::string prod;
      if (times(n, 1.0 / 6, &prod) && is_op(prod, "Mul")) {
        const Node& p = node(prod);
        for (int j = 0; j < 2; ++j)
          if (p.in.size() == 2 && relu6_plus3(p.in[j], &x1, &in) && x1 == p.in[1 - j]) {
            in.insert(p.name);
            in.insert(n.name);
            inside->insert(in.begin(), in.end());
            *x = x1;
            return true;
          }
      }
    }
    return false;
  }

  // ---- emission, through the shared mapper ----
  static std::string where(const Node& n) { return "node '" + n.name + "' (" + n.op + ")"; }
  static MapValue map_value(const Value& v) {
    MapValue m;
    m.layer = v.layer;
    m.w = v.w, m.h = v.h, m.c = v.c;
    return m;
  }
  static Value layer_value(const MapValue& m) {
    Value v;
    v.layer = m.layer;
    v.w = m.w, v.h = m.h, v.c = m.c;
    return v;
  }
  Value layer_value(int layer, int w, int h, int c) const {
    Value v;
    v.layer = layer;
    v.w = w, v.h = h, v.c = c;
    return v;
  }
  // Makes v the previous layer's output, with a one-source route when it is not.
  void last(const Value& v, const Node& n) {
    if (v.k) throw fault(n, "a constant where a feature map is expected");
    if (v.padded) throw fault(n, "an explicit Pad is followed only by a convolution here");
    _map.last(map_value(v), where(n));
  }
  Value feature(const std::string& name, const Node& user, int depth) {
    const Value v = get(name, depth + 1);
    if (v.k) throw fault(user, "input '" + name + "' is a constant where a feature map is expected");
    return v;
  }

  // Applies activation `act` to x: folded into the convolution that computes x when nothing
  // else reads its output, a layer of its own otherwise.
  Value activate(const std::string& x, const char* act, const Node& n, const std::set<std::string>& inside, int depth) {
    Value v = feature(x, n, depth);
    last(v, n);
    return layer_value(_map.activation(map_value(v), act, consumed_only_by(x, inside), where(n)));
  }

  // The convolution computing x, when a constant can be folded into it: x is the previous
  // layer, a linear convolution, read by nothing but n.
  bool foldable(const Value& x, const std::string& xname, const Node& n, GraphMapper::Linear* l) {
    if (x.k || x.padded) return false;
    return _map.linearProducer(map_value(x), consumed_only_by(xname, {n.name}), l);
  }

  Value get(const std::string& name, int depth) {
    auto memo = _values.find(name);
    if (memo != _values.end()) return memo->second;
    const Node& n = node(name);
    if (depth > kMaxDepth) throw fault(n, "the graph is nested too deeply");
    const Value v = convert(n, depth);
    _values[name] = v;
    return v;
  }

  Value convert(const Node& n, int depth) {
    const std::string& op = n.op;
    std::set<std::string> inside;
    std::string x;
    if (hard_swish(n, &x, &inside)) return activate(x, "hswish", n, inside, depth);
    inside.clear();
    if (hard_sigmoid(n, &x, &inside)) return activate(x, "hsigmoid", n, inside, depth);

    if (op == "Const") {
      Value v;
      v.k = constant(n.name);
      return v;
    }
    if (op == "Placeholder") return input(n);
    if (op == "Identity") {
      if (n.in.size() != 1) throw fault(n, "expected one input");
      return get(n.in[0], depth + 1);
    }
    if (op == "Conv2D" || op == "_FusedConv2D" || op == "DepthwiseConv2dNative" || op == "FusedDepthwiseConv2dNative")
      return convolution(n, depth);
    static const std::map<std::string, const char*> kActivations = {
        {"Relu", "relu"}, {"Relu6", "relu6"}, {"Sigmoid", "logistic"}, {"Tanh", "tanh"}, {"Elu", "elu"}};
    auto a = kActivations.find(op);
    if (a != kActivations.end()) {
      if (n.in.size() != 1) throw fault(n, "expected one input");
      return activate(n.in[0], a->second, n, {n.name}, depth);
    }
    if (op == "Add" || op == "AddV2") return add(n, depth);
    if (op == "Mul") return mul(n, depth);
    if (op == "ConcatV2") return concat(n, depth);
    if (op == "Mean") return mean(n, depth);
    if (op == "ResizeBilinear") return resize(n, depth);
    if (op == "MaxPool") return maxpool(n, depth);
    if (op == "Pad") return pad(n, depth);
    throw fault(n, "the engine has no layer for this operation");
  }

  Value input(const Node& n) {
    const json* s = attr(n, "shape");
    std::vector<int> dims;
    if (s && s->contains("shape") && s->at("shape").contains("dim"))
      for (const json& d : s->at("shape").at("dim")) {
        const json& v = d.contains("size") ? d.at("size") : json("-1");
        dims.push_back(wholeInt(v));
      }
    if (dims.size() != 4 || dims[3] != 3) throw fault(n, "the input must be a batch of RGB images (N, H, W, 3)");
    _in_h = dims[1];
    _in_w = dims[2];
    if (_opt.input_size > 0) _in_h = _in_w = _opt.input_size;
    if (_in_h < 1 || _in_w < 1 || _in_h > 8192 || _in_w > 8192)
      throw fault(n, "the input size is not fixed; give it with --input-size");
    if (_input_read) throw fault(n, "a second input");
    _input_read = true;
    _map.setInput(_in_w, _in_h, 3);
    return layer_value(-1, _in_w, _in_h, 3);
  }

  // Border of one axis: (before, after) for TF's padding rule; the output size.
  static void same_pads(int in, int k, int s, int* before, int* after, int* out) {
    *out = (in + s - 1) / s;
    const int total = std::max((*out - 1) * s + k - in, 0);
    *before = total / 2;
    *after = total - *before;
  }

  Value convolution(const Node& n, int depth) {
    const bool depthwise = n.op.find("Depthwise") != std::string::npos;
    const bool fused = n.op[0] == '_' || n.op.compare(0, 5, "Fused") == 0;
    if (n.in.size() < 2) throw fault(n, "expected an input and a filter");
    Value x = feature(n.in[0], n, depth);
    const Tensor* f = constant(n.in[1]);
    if (!f || f->shape.size() != 4) throw fault(n, "the filter is not a constant of four dimensions");
    const int k = f->shape[0], ci = f->shape[2], co = depthwise ? f->shape[2] * f->shape[3] : f->shape[3];
    if (f->shape[1] != k) throw fault(n, "filter of " + std::to_string(k) + " x " + std::to_string(f->shape[1]) +
                                             ": the engine's kernels are square");
    if (depthwise && f->shape[3] != 1) throw fault(n, "depth multiplier " + std::to_string(f->shape[3]) + " (only 1)");
    if (ci != x.c) throw fault(n, "filter for " + std::to_string(ci) + " channels on " + std::to_string(x.c));
    if (k < 1 || co < 1) throw fault(n, "empty filter");
    const std::string format = attr_str(n, "data_format");
    if (!format.empty() && format != "NHWC") throw fault(n, "data format " + format + " (only NHWC)");
    const std::vector<int> st = attr_ints(n, "strides"), dil = attr_ints(n, "dilations");
    if (st.size() != 4 || st[1] != st[2] || st[1] < 1 || st[0] != 1 || st[3] != 1)
      throw fault(n, "strides must be (1, s, s, 1)");
    for (int d : dil)
      if (d != 1) throw fault(n, "dilated convolution");
    const int s = st[1];

    // Borders: the padding rule, plus an explicit Pad in front.
    const std::string padding = attr_str(n, "padding");
    int pt = 0, pb = 0, pl = 0, pr = 0, oh = 0, ow = 0;
    if (padding == "SAME") {
      same_pads(x.h, k, s, &pt, &pb, &oh);
      same_pads(x.w, k, s, &pl, &pr, &ow);
    } else if (padding == "EXPLICIT") {
      const std::vector<int> e = attr_ints(n, "explicit_paddings");
      if (e.size() != 8) throw fault(n, "explicit_paddings must hold 8 values");
      pt = e[2], pb = e[3], pl = e[4], pr = e[5];
    } else if (padding != "VALID") {
      throw fault(n, "padding '" + padding + "'");
    }
    if (x.padded) {
      pt += x.pad[0], pb += x.pad[1], pl += x.pad[2], pr += x.pad[3];
      x.padded = false;
    }
    if (padding != "SAME") {
      oh = (x.h + pt + pb - k) / s + 1;
      ow = (x.w + pl + pr - k) / s + 1;
      if (x.h + pt + pb < k || x.w + pl + pr < k) throw fault(n, "the filter is larger than the padded input");
    }
    if (_opt.input_scale <= 0 || !std::isfinite(_opt.input_scale)) throw fault(n, "input scale must be positive");
    const float gain = x.layer < 0 ? _opt.input_scale : 1.f;

    // Filters from HWIO (depthwise: HW x channels) to OIHW.
    ConvLayer conv;
    conv.out = co;
    conv.k = k;
    conv.stride = s;
    conv.groups = depthwise ? ci : 1;
    conv.pad_top = pt, conv.pad_bottom = pb, conv.pad_left = pl, conv.pad_right = pr;
    const int per_group = depthwise ? 1 : ci;
    conv.filters.assign((size_t)co * per_group * k * k, 0.f);
    for (int fo = 0; fo < co; ++fo)
      for (int c = 0; c < per_group; ++c)
        for (int ky = 0; ky < k; ++ky)
          for (int kx = 0; kx < k; ++kx) {
            const size_t src = depthwise ? ((size_t)ky * k + kx) * ci + fo : (((size_t)ky * k + kx) * ci + c) * co + fo;
            conv.filters[(((size_t)fo * per_group + c) * k + ky) * k + kx] = f->values[src] * gain;
          }
    // Fused operations: a bias, then at most one activation.
    const char* act = nullptr;
    if (fused) {
      const std::vector<std::string> ops = attr_strs(n, "fused_ops");
      size_t i = 0;
      if (i < ops.size() && ops[i] == "BiasAdd") {
        const Tensor* b = n.in.size() > 2 ? constant(n.in[2]) : nullptr;
        if (!b || b->size() != (size_t)co) throw fault(n, "the bias is not a constant of " + std::to_string(co));
        conv.bias = b->values;
        ++i;
      }
      if (i < ops.size() && (ops[i] == "Relu" || ops[i] == "Relu6")) {
        act = ops[i] == "Relu" ? "relu" : "relu6";
        ++i;
      }
      if (i != ops.size()) throw fault(n, "fused operation " + ops[i] + " is not supported");
    }
    last(x, n);
    MapValue m = _map.convolution(map_value(x), std::move(conv), where(n));
    if (act) m = _map.activation(m, act, true, where(n));
    if (m.w != ow || m.h != oh) throw fault(n, "the engine's output size differs from the graph's");
    return layer_value(m);
  }

  Value add(const Node& n, int depth) {
    if (n.in.size() != 2) throw fault(n, "expected two inputs");
    Value a = get(n.in[0], depth + 1), b = get(n.in[1], depth + 1);
    if (a.k && b.k) throw fault(n, "a sum of two constants");
    if (a.k || b.k) {
      const Value& x = a.k ? b : a;
      const Tensor* t = a.k ? a.k : b.k;
      const std::string& xname = a.k ? n.in[1] : n.in[0];
      GraphMapper::Linear l;
      if (!foldable(x, xname, n, &l) || (t->size() != 1 && t->size() != (size_t)l.filters))
        throw fault(n, "a constant is added only right after a linear convolution that nothing else reads");
      for (int f = 0; f < l.filters; ++f) (*l.bias)[f] += t->values[t->size() == 1 ? 0 : f];
      return x;
    }
    if (a.padded || b.padded) throw fault(n, "an explicit Pad is followed only by a convolution here");
    return layer_value(_map.shortcut(map_value(a), map_value(b), where(n)));
  }

  Value mul(const Node& n, int depth) {
    if (n.in.size() != 2) throw fault(n, "expected two inputs");
    Value a = get(n.in[0], depth + 1), b = get(n.in[1], depth + 1);
    if (a.k && b.k) throw fault(n, "a product of two constants");
    if (a.k || b.k) {
      const Value& x = a.k ? b : a;
      const Tensor* t = a.k ? a.k : b.k;
      GraphMapper::Linear l;
      if (!foldable(x, a.k ? n.in[1] : n.in[0], n, &l) || (t->size() != 1 && t->size() != (size_t)l.filters))
        throw fault(n, "a product with a constant only right after a linear convolution that nothing else reads");
      const size_t per = l.weights->size() / l.filters;
      for (int f = 0; f < l.filters; ++f) {
        const float m = t->values[t->size() == 1 ? 0 : f];
        (*l.bias)[f] *= m;
        for (size_t i = 0; i < per; ++i) (*l.weights)[f * per + i] *= m;
      }
      return x;
    }
    // Channel attention: a map times one factor per channel.
    const bool a_factors = a.w == 1 && a.h == 1, b_factors = b.w == 1 && b.h == 1;
    if (a.c != b.c || a_factors == b_factors)
      throw fault(n, "only a map times one factor per channel (squeeze and excitation) is supported");
    const Value& factors = a_factors ? a : b;
    const Value& features = a_factors ? b : a;
    last(factors, n);
    if (features.padded) throw fault(n, "an explicit Pad is followed only by a convolution here");
    return layer_value(_map.attention(map_value(features), map_value(factors), where(n)));
  }

  Value concat(const Node& n, int depth) {
    if (n.in.size() < 2) throw fault(n, "expected maps and an axis");
    float axis;
    if (!scalar(n.in.back(), &axis) || (axis != 3 && axis != -1)) throw fault(n, "only the channel axis is supported");
    std::vector<MapValue> parts;
    for (size_t i = 0; i + 1 < n.in.size(); ++i) {
      const Value v = feature(n.in[i], n, depth);
      if (v.padded || v.layer < 0) throw fault(n, "input '" + n.in[i] + "' is not a layer's output");
      parts.push_back(map_value(v));
    }
    return layer_value(_map.route(parts, where(n)));
  }

  // The mean of each plane, as a per-channel convolution over the whole plane: its products
  // are summed in float, where a long sum in half would lose the small terms.
  Value mean(const Node& n, int depth) {
    if (n.in.size() != 2) throw fault(n, "expected a map and the axes");
    const Value x = feature(n.in[0], n, depth);
    const Tensor* axes = constant(n.in[1]);
    std::vector<float> ax = axes ? axes->values : std::vector<float>{};
    std::sort(ax.begin(), ax.end());
    if (ax != std::vector<float>{1, 2} || !attr_bool(n, "keep_dims"))
      throw fault(n, "only the mean over height and width with keep_dims is supported");
    if (x.w != x.h) throw fault(n, "the mean of a plane that is not square");
    last(x, n);
    return layer_value(_map.globalAvgpool(map_value(x), where(n)));
  }

  Value resize(const Node& n, int depth) {
    if (n.in.size() != 2) throw fault(n, "expected a map and a size");
    const Value x = feature(n.in[0], n, depth);
    const Tensor* size = constant(n.in[1]);
    if (!size || size->size() != 2) throw fault(n, "the size is not a constant (height, width)");
    const float fh = size->values[0], fw = size->values[1];
    // Tested as floats: converting one out of int range would be undefined.
    if (!(fh >= 1 && fw >= 1 && fh <= 16384 && fw <= 16384)) throw fault(n, "output size out of range");
    const int oh = (int)fh, ow = (int)fw;
    const bool align = attr_bool(n, "align_corners"), half = attr_bool(n, "half_pixel_centers");
    if (align && half) throw fault(n, "align_corners and half_pixel_centers together");
    last(x, n);
    return layer_value(_map.resize(map_value(x), ow, oh, align ? "align_corners" : half ? "half_pixel" : "", where(n)));
  }

  Value maxpool(const Node& n, int depth) {
    if (n.in.size() != 1) throw fault(n, "expected one input");
    const Value x = feature(n.in[0], n, depth);
    if (x.padded) throw fault(n, "an explicit Pad before a max pool (its zeros would take part)");
    const std::vector<int> ks = attr_ints(n, "ksize"), st = attr_ints(n, "strides");
    if (ks.size() != 4 || st.size() != 4 || ks[1] != ks[2] || st[1] != st[2] || ks[1] < 1 || st[1] < 1)
      throw fault(n, "window and strides must be square");
    const int k = ks[1], s = st[1];
    int pt = 0, pb = 0, oh, ow;
    if (attr_str(n, "padding") == "SAME") {
      same_pads(x.h, k, s, &pt, &pb, &oh);
      int a, b;
      same_pads(x.w, k, s, &a, &b, &ow);
      if (a != pt) throw fault(n, "different borders across and down");
    } else {
      if (x.h < k || x.w < k) throw fault(n, "the window is larger than the input");
      oh = (x.h - k) / s + 1;
      ow = (x.w - k) / s + 1;
    }
    // The engine's windows start at i s - pad and it makes (in + 2 pad) / s of them; cells
    // outside the input never win, as with TF's padding.
    if ((x.h + 2 * pt) / s != oh || (x.w + 2 * pt) / s != ow)
      throw fault(n, "this window, stride and padding give a different output size in the engine");
    last(x, n);
    return layer_value(_map.maxpool(map_value(x), k, s, pt, false, where(n)));
  }

  Value pad(const Node& n, int depth) {
    if (n.in.size() != 2) throw fault(n, "expected a map and the paddings");
    Value x = feature(n.in[0], n, depth);
    const Tensor* p = constant(n.in[1]);
    if (!p || p->size() != 8) throw fault(n, "the paddings are not a constant of 4 x 2");
    const std::vector<float>& v = p->values;
    if (v[0] != 0 || v[1] != 0 || v[6] != 0 || v[7] != 0) throw fault(n, "only height and width can be padded");
    for (int i = 2; i < 6; ++i)
      if (!(v[i] >= 0 && v[i] <= 64)) throw fault(n, "padding out of range 0..64");
    if (x.padded) throw fault(n, "two explicit Pads in a row");
    x.padded = true;
    x.pad[0] = (int)v[2], x.pad[1] = (int)v[3], x.pad[2] = (int)v[4], x.pad[3] = (int)v[5];
    return x;
  }

  // The graph ends in a heat map (logistic), a box map, peak picking by a max pool and a
  // top-k; the engine's centernet head does all of that after the two maps.
  void centernet_head(const Node& topk) {
    const Node* pool = find_op("MaxPool");
    if (!pool || pool->in.size() != 1) throw fault(topk, "a top-k without the max pool that picks the peaks");
    const Node& sig = through_identity(pool->in[0]);
    if (sig.op != "Sigmoid" || sig.in.size() != 1) throw fault(*pool, "the peaks are not picked from a logistic map");
    const std::vector<int> ks = attr_ints(*pool, "ksize"), st = attr_ints(*pool, "strides");
    if (ks.size() != 4 || ks[1] != ks[2] || st.size() != 4 || st[1] != 1 || st[2] != 1)
      throw fault(*pool, "the peak window must be square with stride 1");
    const Node* gather = find_op("GatherV2");
    if (!gather || gather->in.empty()) throw fault(topk, "a top-k without the gather of the box map");
    const Node* box = &node(gather->in[0]);
    for (int k = 0; (box->op == "Reshape" || box->op == "Identity") && !box->in.empty() && k < kMaxDepth; ++k)
      box = &node(box->in[0]);
    float scale = 1;
    std::string box_map = box->name;
    if (box->op == "Mul" && box->in.size() == 2) {
      for (int k = 0; k < 2; ++k)
        if (scalar(box->in[k], &scale)) box_map = box->in[1 - k];
    }
    float kk = 0;
    if (topk.in.size() != 2 || !scalar(topk.in[1], &kk) || !(kk >= 1 && kk <= 10000))
      throw fault(topk, "k is not a constant in 1..10000");
    if (!(scale > 0)) throw fault(*box, "the box distances are scaled by a factor that is not positive");

    const Value cls = feature(sig.in[0], sig, 0);
    last(cls, sig);
    const int cls_layer = _map.lastIndex();
    const Value wh = feature(box_map, *box, 0);
    if (wh.c != 4) throw fault(*box, "the box map has " + std::to_string(wh.c) + " channels, not 4");
    if (wh.w != cls.w || wh.h != cls.h) throw fault(*box, "the box map and the heat map differ in size");
    if (wh.layer < 0 || wh.padded) throw fault(*box, "the box map is not a layer's output");
    if (_in_w % cls.w || _in_h % cls.h || _in_w / cls.w != _in_h / cls.h)
      throw fault(sig, "the heat map is not the input divided by a whole stride");
    _map.raw("[route]\nlayers=" + std::to_string(cls_layer) + "," + std::to_string(wh.layer) + "\n",
             {cls.w, cls.h, cls.c + 4}, "heat map and box map together");
    std::ostringstream t;
    t << "[centernet]\nclasses=" << cls.c << "\nstride=" << _in_w / cls.w << "\nscale=" << scale
      << "\npeak=" << ks[1] << "\ntopk=" << (int)kk << "\n";
    _map.raw(t.str(), {cls.w, cls.h, cls.c + 4}, "node '" + topk.name + "' (" + topk.op + ") and the decoding around it");
  }
};

}  // namespace

ConvertedModel tfjsToEngine(const std::string& text, const ShardReader& read, const std::string& source,
                            const TfjsOptions& options) {
  json doc;
  try {
    doc = json::parse(text);
  } catch (const json::exception& e) {
    throw ConvertError(source + ": not JSON (" + e.what() + ")");
  }
  try {
    if (!doc.is_object() || !doc.contains("modelTopology") || !doc.contains("weightsManifest"))
      throw ConvertError(source + ": not a TF.js graph model (no modelTopology or weightsManifest)");
    Importer imp(doc, read_weights(doc.at("weightsManifest"), read, source), source, options);
    return imp.run();
  } catch (const json::exception& e) {
    throw ConvertError(source + ": malformed graph model (" + e.what() + ")");
  } catch (const std::invalid_argument&) {
    throw ConvertError(source + ": malformed graph model (a number that is not one)");
  } catch (const std::out_of_range&) {
    throw ConvertError(source + ": malformed graph model (a number out of range)");
  }
}

ConvertedModel tfjsToEngine(const std::string& model_json, const TfjsOptions& options) {
  std::ifstream f(model_json, std::ios::binary);
  if (!f) throw ConvertError(model_json + ": can't open");
  const std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  const fs::path dir = fs::path(model_json).parent_path();
  auto read = [&](const std::string& path) {
    std::ifstream s(dir / path, std::ios::binary);
    if (!s) throw ConvertError(model_json + ": weight file " + (dir / path).string() + " can't be opened");
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(s)), std::istreambuf_iterator<char>());
  };
  return tfjsToEngine(text, read, model_json, options);
}

}  // namespace orvacli
