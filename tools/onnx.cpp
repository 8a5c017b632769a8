#include "onnx.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "graph_mapper.h"

namespace fs = std::filesystem;

namespace orvacli {

namespace {

using onnx::Node;
using onnx::Tensor;
using Dims = std::vector<int64_t>;

// Before opset 7 (the first PyTorch exports are opset 6; single-operator models may name
// opset 1) the subset read here differs only by the arithmetic's broadcast attributes,
// which are honoured; the older forms of Pad, Reshape and Upsample hold their parameters in
// attributes this reader does not take, and are refused.
constexpr int64_t kMinOpset = 1, kMaxOpset = 17;

// A graph value: a constant known while converting, or a feature map with its ONNX shape
// (batch first; -1 where the file leaves the batch open).
struct Val {
  bool is_const = false;
  Tensor k;
  MapValue m;
  Dims dims;
  int pad[4] = {0, 0, 0, 0};  // zeros of a Pad still to add around m (top, left, bottom, right)
  bool padded = false;
};

int64_t product(const Dims& d, size_t from = 0) {
  int64_t p = 1;
  for (size_t i = from; i < d.size(); ++i) p *= d[i];
  return p;
}

std::string dims_text(const Dims& d) {
  std::string s = "(";
  for (size_t i = 0; i < d.size(); ++i) s += (i ? ", " : "") + std::to_string(d[i]);
  return s + ")";
}

class Importer {
 public:
  Importer(const onnx::Model& model, std::string src) : _model(model), _g(model.graph), _src(std::move(src)) {}

  ConvertedModel run() {
    if (_model.opset < kMinOpset || _model.opset > kMaxOpset)
      throw ConvertError(_src + ": opset " + std::to_string(_model.opset) + "; the importer reads opsets " +
                         std::to_string(kMinOpset) + " to " + std::to_string(kMaxOpset));
    for (const Tensor& t : _g.initializers) {
      Val v;
      v.is_const = true;
      v.k = t;
      v.dims = t.dims;
      _vals[t.name] = std::move(v);
    }
    read_input();
    order_nodes();
    for (const Node& n : _g.nodes)
      for (const std::string& i : n.in)
        if (!i.empty()) ++_readers[i];
    for (const onnx::ValueInfo& o : _g.outputs) ++_readers[o.name];
    find_swish();

    for (size_t idx : _order) {
      if (_skip.count(idx)) continue;
      convert(_g.nodes[idx], idx);
    }

    if (_g.outputs.size() != 1)
      throw ConvertError(_src + ": the graph has " + std::to_string(_g.outputs.size()) +
                         " outputs; the engine's networks have one");
    const std::string& out = _g.outputs[0].name;
    auto it = _vals.find(out);
    if (it == _vals.end()) throw ConvertError(_src + ": the output '" + out + "' is computed by no node");
    if (it->second.is_const) throw ConvertError(_src + ": the output '" + out + "' is a constant");
    if (it->second.padded) throw ConvertError(_src + ": the output '" + out + "' is a Pad's (only a convolution may follow one)");
    MapValue y = it->second.m;
    if (_mapper->size() == 0)  // the graph only passes its input on (Identity, Dropout, Flatten)
      y = _mapper->activation(y, "linear", false, "output '" + out + "'");
    _mapper->last(y, "output '" + out + "'");
    return _mapper->finish("Converted by orva convert --onnx from " + fs::path(_src).filename().string());
  }

 private:
  const onnx::Model& _model;
  const onnx::Graph& _g;
  std::string _src;
  std::unique_ptr<GraphMapper> _mapper;
  std::map<std::string, Val> _vals;
  std::map<std::string, int> _readers;
  std::vector<size_t> _order;
  std::set<size_t> _skip;                    // nodes folded into a later one
  std::map<size_t, std::string> _swish;      // Mul node -> x of x * sigmoid(x)
  int64_t _batch = -1;

  // ---- graph structure ----
  void read_input() {
    std::vector<const onnx::ValueInfo*> inputs;
    for (const onnx::ValueInfo& i : _g.inputs)
      if (!_vals.count(i.name)) inputs.push_back(&i);
    if (inputs.size() != 1)
      throw ConvertError(_src + ": the graph has " + std::to_string(inputs.size()) +
                         " inputs besides its initializers; the engine's networks have one");
    const onnx::ValueInfo& in = *inputs[0];
    if (in.elem_type != 0 && in.elem_type != onnx::kFloat)
      throw ConvertError(_src + ": input '" + in.name + "' has element type " + std::to_string(in.elem_type) +
                         ", not float");
    const Dims& d = in.dims;
    if (d.size() < 2 || d.size() > 4)
      throw ConvertError(_src + ": input '" + in.name + "' of shape " + dims_text(d) +
                         "; the engine takes (N, C), (N, C, W) or (N, C, H, W)");
    for (size_t i = 1; i < d.size(); ++i)
      if (d[i] < 1 || d[i] > 8192)
        throw ConvertError(_src + ": input '" + in.name + "' of shape " + dims_text(d) + ": dim " + std::to_string(i) +
                           " is not fixed in 1..8192");
    const int c = (int)d[1], h = d.size() == 4 ? (int)d[2] : 1, w = d.size() >= 3 ? (int)d[d.size() - 1] : 1;
    _batch = d[0] > 0 ? d[0] : -1;
    _mapper.reset(new GraphMapper(_src));
    _mapper->setInput(w, h, c);
    Val v;
    v.m.layer = -1;
    v.m.w = w, v.m.h = h, v.m.c = c;
    v.dims = d;
    v.dims[0] = _batch;
    _vals[in.name] = v;
  }

  // Nodes in an order where every input is made before it is read: files are meant to list
  // them so, but a cycle or a dangling input must be found before anything is built.
  void order_nodes() {
    std::map<std::string, size_t> producer;
    for (size_t i = 0; i < _g.nodes.size(); ++i)
      for (const std::string& o : _g.nodes[i].out) {
        if (o.empty()) continue;
        if (_vals.count(o) || !producer.emplace(o, i).second)
          throw fault(_g.nodes[i], "its output '" + o + "' is also made elsewhere");
      }
    std::vector<int> waiting(_g.nodes.size(), 0);
    std::vector<std::vector<size_t>> users(_g.nodes.size());
    for (size_t i = 0; i < _g.nodes.size(); ++i)
      for (const std::string& in : _g.nodes[i].in) {
        if (in.empty() || _vals.count(in)) continue;
        auto p = producer.find(in);
        if (p == producer.end())
          throw fault(_g.nodes[i], "input '" + in + "' is made by no node, initializer or graph input");
        ++waiting[i];
        users[p->second].push_back(i);
      }
    std::vector<size_t> ready;
    for (size_t i = _g.nodes.size(); i-- > 0;)
      if (!waiting[i]) ready.push_back(i);
    while (!ready.empty()) {
      const size_t i = ready.back();
      ready.pop_back();
      _order.push_back(i);
      for (auto u = users[i].rbegin(); u != users[i].rend(); ++u)
        if (--waiting[*u] == 0) ready.push_back(*u);
    }
    if (_order.size() != _g.nodes.size())
      for (size_t i = 0; i < _g.nodes.size(); ++i)
        if (waiting[i]) throw fault(_g.nodes[i], "the graph has a cycle through this node");
  }

  // x * sigmoid(x), where nothing else reads the sigmoid, is one swish activation.
  void find_swish() {
    std::map<std::string, size_t> producer;
    for (size_t i = 0; i < _g.nodes.size(); ++i)
      if (!_g.nodes[i].out.empty()) producer[_g.nodes[i].out[0]] = i;
    for (size_t i = 0; i < _g.nodes.size(); ++i) {
      const Node& n = _g.nodes[i];
      if (n.op != "Mul" || n.in.size() != 2) continue;
      for (int k = 0; k < 2; ++k) {
        auto p = producer.find(n.in[k]);
        if (p == producer.end()) continue;
        const Node& s = _g.nodes[p->second];
        if (s.op == "Sigmoid" && s.in.size() == 1 && s.in[0] == n.in[1 - k] && _readers[n.in[k]] == 1) {
          _skip.insert(p->second);
          _swish[i] = n.in[1 - k];
          break;
        }
      }
    }
  }

  // ---- look-ups ----
  static std::string where(const Node& n) {
    return "node '" + (n.name.empty() && !n.out.empty() ? n.out[0] : n.name) + "' (" + n.op + ")";
  }
  ConvertError fault(const Node& n, const std::string& problem) const {
    return ConvertError(_src + ": " + where(n) + ": " + problem);
  }
  bool has_in(const Node& n, size_t i) const { return i < n.in.size() && !n.in[i].empty(); }
  const Val& in(const Node& n, size_t i) const {
    if (!has_in(n, i)) throw fault(n, "input " + std::to_string(i) + " is missing");
    auto it = _vals.find(n.in[i]);
    if (it == _vals.end()) throw fault(n, "input '" + n.in[i] + "' is not computed (an output the importer skips)");
    return it->second;
  }
  const Tensor* konst(const Node& n, size_t i) const {
    if (!has_in(n, i)) return nullptr;
    const Val& v = in(n, i);
    return v.is_const ? &v.k : nullptr;
  }
  const Tensor& need_const(const Node& n, size_t i, const char* what) const {
    const Tensor* t = konst(n, i);
    if (!t) throw fault(n, std::string("the ") + what + " is not a constant");
    return *t;
  }
  const Val& map_in(const Node& n, size_t i, bool padded_ok = false) const {
    const Val& v = in(n, i);
    if (v.is_const) throw fault(n, "input '" + n.in[i] + "' is a constant where a feature map is expected");
    if (v.padded && !padded_ok) throw fault(n, "input '" + n.in[i] + "' comes from a Pad, which only a convolution may follow");
    return v;
  }
  // A map laid out as the engine holds it: (N, C, H, W) with the layer's own shape.
  const Val& spatial(const Node& n, size_t i, bool padded_ok = false) const {
    const Val& v = map_in(n, i, padded_ok);
    if (v.dims.size() == 3) throw fault(n, "a 1-D operation (the engine's layers are 2-D)");
    if (v.dims.size() != 4 || v.dims[1] != v.m.c || v.dims[2] != v.m.h || v.dims[3] != v.m.w)
      throw fault(n, "expects a map (N, C, H, W); this one is " + dims_text(v.dims));
    return v;
  }
  bool only_reader(const Node& n, size_t i) const {
    auto it = _readers.find(n.in[i]);
    return it != _readers.end() && it->second == 1;
  }
  const onnx::Attribute* attr(const Node& n, const char* key) const { return n.attr(key); }
  int64_t attr_i(const Node& n, const char* key, int64_t def) const {
    const onnx::Attribute* a = n.attr(key);
    return a ? a->i : def;
  }
  float attr_f(const Node& n, const char* key, float def) const {
    const onnx::Attribute* a = n.attr(key);
    return a ? a->f : def;
  }
  std::string attr_s(const Node& n, const char* key, const char* def) const {
    const onnx::Attribute* a = n.attr(key);
    return a ? a->s : def;
  }
  std::vector<int64_t> attr_ints(const Node& n, const char* key) const {
    const onnx::Attribute* a = n.attr(key);
    return a ? a->ints : std::vector<int64_t>{};
  }
  // A whole number held in a float tensor (shapes, axes, indexes, pads).
  int64_t whole(const Node& n, float v, const char* what) const {
    if (!(v >= -2147483648.f && v <= 2147483647.f) || v != std::floor(v))
      throw fault(n, std::string(what) + " " + std::to_string(v) + " is not a whole number in range");
    return (int64_t)v;
  }
  int small_int(const Node& n, int64_t v, const char* what, int64_t lo = 0, int64_t hi = 8192) const {
    if (v < lo || v > hi)
      throw fault(n, std::string(what) + " " + std::to_string(v) + " out of range " + std::to_string(lo) + ".." +
                         std::to_string(hi));
    return (int)v;
  }
  void set_output(const Node& n, size_t i, Val v) {
    if (i >= n.out.size() || n.out[i].empty()) return;
    _vals[n.out[i]] = std::move(v);
  }
  void set(const Node& n, Val v) {
    if (n.out.empty() || n.out[0].empty()) throw fault(n, "no output");
    _vals[n.out[0]] = std::move(v);
  }
  void set_map(const Node& n, const MapValue& m, Dims dims) {
    Val v;
    v.m = m;
    v.dims = std::move(dims);
    set(n, std::move(v));
  }
  void set_const(const Node& n, Tensor t) {
    Val v;
    v.is_const = true;
    v.dims = t.dims;
    v.k = std::move(t);
    set(n, std::move(v));
  }
  // Nothing reads outputs past the first (a dropout mask, pool indexes, batch statistics).
  void only_first_output(const Node& n) const {
    for (size_t i = 1; i < n.out.size(); ++i)
      if (!n.out[i].empty() && _readers.count(n.out[i]))
        throw fault(n, "output " + std::to_string(i) + " ('" + n.out[i] + "') is read; the engine computes only the first");
  }
  int axis(const Node& n, int64_t a, size_t rank) const {
    const int64_t r = (int64_t)rank;
    if (a < -r || a >= r) throw fault(n, "axis " + std::to_string(a) + " out of range for rank " + std::to_string(r));
    return (int)(a < 0 ? a + r : a);
  }

  // One value per channel of a map of shape `dims` when t broadcasts along the channel axis
  // only (or is a single value).
  bool per_channel(const Node& n, const Tensor& t, const Dims& dims, int c, std::vector<float>* out) const {
    if (t.size() == 1) {
      out->assign(c, t.values[0]);
      return true;
    }
    if (t.dims.size() > dims.size() || dims.size() < 2) return false;
    size_t shift = dims.size() - t.dims.size();
    if (_model.opset < 7) {
      // Before opset 7 the second input lines up from `axis`; PRelu's slope is per channel.
      if (n.op == "PRelu" && t.dims.size() == 1) shift = 1;
      if (n.op != "PRelu" && !attr_i(n, "broadcast", 0)) {
        if (t.dims.size() != dims.size()) return false;
        shift = 0;
      }
      if (const onnx::Attribute* a = attr(n, "axis")) shift = (size_t)axis(n, a->i, dims.size());
      if (shift + t.dims.size() > dims.size()) return false;
    }
    for (size_t j = 0; j < t.dims.size(); ++j) {
      const size_t a = j + shift;
      if (t.dims[j] != 1 && !(a == 1 && t.dims[j] == c)) return false;
    }
    if (t.size() != (size_t)c) return false;
    *out = t.values;
    return true;
  }

  // Borders (top, left, bottom, right) of a window op from auto_pad or pads.
  void borders(const Node& n, const Val& x, int k, int s, int d, int p[4]) const {
    const std::string ap = attr_s(n, "auto_pad", "NOTSET");
    const int in[2] = {x.m.h, x.m.w};
    if (ap == "NOTSET" || ap.empty()) {
      const std::vector<int64_t> pads = attr_ints(n, "pads");
      if (!pads.empty() && pads.size() != 4) throw fault(n, "pads hold " + std::to_string(pads.size()) + " values, not 4");
      for (int i = 0; i < 4; ++i) p[i] = pads.empty() ? 0 : small_int(n, pads[i], "pad", 0, 1024);
    } else if (ap == "VALID") {
      p[0] = p[1] = p[2] = p[3] = 0;
    } else if (ap == "SAME_UPPER" || ap == "SAME_LOWER") {
      for (int a = 0; a < 2; ++a) {
        const int out = (in[a] + s - 1) / s;
        const int total = std::max((out - 1) * s + d * (k - 1) + 1 - in[a], 0);
        const int small = total / 2, large = total - small;
        p[a] = ap == "SAME_UPPER" ? small : large;
        p[a + 2] = ap == "SAME_UPPER" ? large : small;
      }
    } else {
      throw fault(n, "auto_pad '" + ap + "'");
    }
  }
  // Square window and stride of a 2-D window op.
  void window(const Node& n, const char* kernel_key, int* k, int* s, int* d) const {
    const std::vector<int64_t> ks = attr_ints(n, kernel_key), st = attr_ints(n, "strides"), dl = attr_ints(n, "dilations");
    if (ks.size() != 2) throw fault(n, std::string(kernel_key) + " must hold two values (a 2-D window)");
    if (ks[0] != ks[1]) throw fault(n, "window of " + std::to_string(ks[0]) + " x " + std::to_string(ks[1]) +
                                           ": the engine's windows are square");
    if (!st.empty() && (st.size() != 2 || st[0] != st[1])) throw fault(n, "strides differ across and down");
    if (!dl.empty() && (dl.size() != 2 || dl[0] != dl[1])) throw fault(n, "dilations differ across and down");
    *k = small_int(n, ks[0], "window", 1, 1024);
    *s = st.empty() ? 1 : small_int(n, st[0], "stride", 1, 1024);
    *d = dl.empty() ? 1 : small_int(n, dl[0], "dilation", 1, 1024);
  }

  // ---- operators ----
  void convert(const Node& n, size_t idx) {
    if (!n.domain.empty() && n.domain != "ai.onnx") throw fault(n, "operator domain '" + n.domain + "'");
    const std::string& op = n.op;
    if (_swish.count(idx)) {
      const Node& m = n;
      const size_t xi = m.in[0] == _swish[idx] ? 0 : 1;
      const Val& x = map_in(m, xi);
      return set_map(n, _mapper->activation(x.m, "swish", _readers[m.in[xi]] == 2, where(n)), x.dims);
    }
    static const std::map<std::string, const char*> kActivations = {
        {"Relu", "relu"}, {"Sigmoid", "logistic"}, {"Tanh", "tanh"}, {"HardSwish", "hswish"}, {"Mish", "mish"}};
    auto a = kActivations.find(op);
    if (a != kActivations.end()) return activation(n, a->second);
    if (op == "Constant") return constant(n);
    if (op == "Identity" || op == "Dropout") {
      only_first_output(n);
      if (op == "Dropout" && has_in(n, 2)) {
        const Tensor* t = konst(n, 2);
        if (!t || t->size() != 1 || t->values[0] != 0) throw fault(n, "training_mode is not a constant false");
      }
      return set(n, in(n, 0));
    }
    if (op == "Conv") return conv(n);
    if (op == "BatchNormalization") return batchnorm(n);
    if (op == "LeakyRelu") {
      const float alpha = attr_f(n, "alpha", 0.01f);
      // The engine's leaky slope is 0.1 in half precision (0.0999755859375): exporters of
      // engine networks write that value.
      if (std::fabs(alpha - 0.1f) < 5e-5f) return activation(n, "leaky");
      const Val& x = map_in(n, 0);
      return set_map(n, _mapper->dynact(x.m, std::vector<float>(x.m.c, alpha), where(n)), x.dims);
    }
    if (op == "PRelu") {
      const Val& x = map_in(n, 0);
      std::vector<float> slopes;
      if (!per_channel(n, need_const(n, 1, "slope"), x.dims, x.m.c, &slopes))
        throw fault(n, "the slope of shape " + dims_text(need_const(n, 1, "slope").dims) +
                           " is not one value per channel of " + dims_text(x.dims));
      return set_map(n, _mapper->dynact(x.m, slopes, where(n)), x.dims);
    }
    if (op == "Elu") {
      if (std::fabs(attr_f(n, "alpha", 1.f) - 1.f) > 1e-6f) throw fault(n, "alpha other than 1");
      return activation(n, "elu");
    }
    if (op == "HardSigmoid") {
      const float al = attr_f(n, "alpha", 0.2f), be = attr_f(n, "beta", 0.5f);
      if (std::fabs(al - 1.f / 6) > 1e-5f || std::fabs(be - 0.5f) > 1e-6f)
        throw fault(n, "alpha " + std::to_string(al) + " and beta " + std::to_string(be) +
                           " (the engine's hard sigmoid is alpha 1/6, beta 1/2)");
      return activation(n, "hsigmoid");
    }
    if (op == "Clip") return clip(n);
    if (op == "MaxPool" || op == "AveragePool") return pool(n);
    if (op == "GlobalAveragePool" || op == "GlobalMaxPool") {
      const Val& x = spatial(n, 0);
      const MapValue m = op == "GlobalMaxPool" ? _mapper->globalMaxpool(x.m, where(n)) : _mapper->globalAvgpool(x.m, where(n));
      return set_map(n, m, {x.dims[0], x.m.c, 1, 1});
    }
    if (op == "Gemm" || op == "MatMul") return gemm(n);
    if (op == "Softmax") return softmax(n);
    if (op == "Concat") return concat(n);
    if (op == "Add" || op == "Sub" || op == "Mul" || op == "Div") return arithmetic(n);
    if (op == "Resize" || op == "Upsample") return resize(n);
    if (op == "DepthToSpace") {
      const Val& x = spatial(n, 0);
      if (attr_s(n, "mode", "DCR") != "DCR") throw fault(n, "mode " + attr_s(n, "mode", "") + " (only DCR)");
      const int b = small_int(n, attr_i(n, "blocksize", 0), "blocksize", 1, 64);
      const MapValue m = _mapper->depthToSpace(x.m, b, where(n));
      return set_map(n, m, {x.dims[0], m.c, m.h, m.w});
    }
    if (op == "Flatten") return flatten(n);
    if (op == "Reshape") return reshape(n);
    if (op == "Squeeze" || op == "Unsqueeze") return squeeze(n);
    if (op == "Shape") {
      const Val& x = in(n, 0);
      Tensor t;
      t.dims = {(int64_t)x.dims.size()};
      for (int64_t d : x.dims) t.values.push_back(d < 0 ? 0.f : (float)d);  // an open batch: 0, "keep" for Reshape
      return set_const(n, std::move(t));
    }
    if (op == "Pad") return pad(n);
    if (op == "Split") return split(n);
    if (op == "Gather") return gather(n);
    if (op == "Cast") return set_const(n, need_const(n, 0, "input"));
    throw fault(n, "the engine has no layer for this operation");
  }

  void constant(const Node& n) {
    Tensor t;
    if (const onnx::Attribute* a = attr(n, "value")) {
      if (a->t.empty()) throw fault(n, "value is not a tensor");
      t = a->t[0];
    } else if ((a = attr(n, "value_float"))) {
      t.values = {a->f};
    } else if ((a = attr(n, "value_int"))) {
      t.values = {(float)a->i};
    } else if ((a = attr(n, "value_floats"))) {
      t.values = a->floats;
      t.dims = {(int64_t)t.values.size()};
    } else if ((a = attr(n, "value_ints"))) {
      for (int64_t v : a->ints) t.values.push_back((float)v);
      t.dims = {(int64_t)t.values.size()};
    } else {
      throw fault(n, "a constant of a kind the importer does not read");
    }
    set_const(n, std::move(t));
  }

  void activation(const Node& n, const char* act) {
    if (n.in.size() != 1 && n.op != "Clip") throw fault(n, "expected one input");
    const Val& x = map_in(n, 0);
    set_map(n, _mapper->activation(x.m, act, only_reader(n, 0), where(n)), x.dims);
  }

  void clip(const Node& n) {
    float lo = -FLT_MAX, hi = FLT_MAX;
    if (_model.opset < 11) {
      lo = attr_f(n, "min", lo);
      hi = attr_f(n, "max", hi);
    } else {
      for (size_t i = 1; i < 3; ++i)
        if (has_in(n, i)) {
          const Tensor& t = need_const(n, i, i == 1 ? "minimum" : "maximum");
          if (t.size() != 1) throw fault(n, "a bound that is not one value");
          (i == 1 ? lo : hi) = t.values[0];
        }
    }
    if (lo == 0 && hi == 6) return activation(n, "relu6");
    if (lo == -1 && hi == 1) return activation(n, "hardtan");
    if (lo == 0 && hi >= FLT_MAX) return activation(n, "relu");
    auto bound = [](float v) { return std::fabs(v) >= FLT_MAX ? std::string("none") : std::to_string(v); };
    throw fault(n, "bounds " + bound(lo) + " .. " + bound(hi) + " (the engine clips to 0..6, -1..1 or 0..)");
  }

  void conv(const Node& n) {
    const Val& x = spatial(n, 0, true);
    const Tensor& w = need_const(n, 1, "filter");
    if (w.dims.size() != 4) throw fault(n, "the filter has " + std::to_string(w.dims.size()) + " dims, not 4");
    if (w.dims[2] != w.dims[3]) throw fault(n, "filter of " + std::to_string(w.dims[2]) + " x " +
                                                   std::to_string(w.dims[3]) + ": the engine's kernels are square");
    ConvLayer s;
    s.groups = small_int(n, attr_i(n, "group", 1), "group", 1, 65536);
    s.out = small_int(n, w.dims[0], "filters", 1, 65536);
    if (w.dims[1] * s.groups != x.m.c)
      throw fault(n, "filter for " + std::to_string(w.dims[1] * s.groups) + " channels on " + std::to_string(x.m.c));
    const std::vector<int64_t> ks = attr_ints(n, "kernel_shape");
    if (!ks.empty() && (ks.size() != 2 || ks[0] != w.dims[2] || ks[1] != w.dims[3]))
      throw fault(n, "kernel_shape disagrees with the filter");
    Node shaped = n;  // window() reads kernel_shape; the filter fixes it
    int k, st, d;
    if (ks.empty()) {
      onnx::Attribute a;
      a.name = "kernel_shape";
      a.ints = {w.dims[2], w.dims[3]};
      shaped.attrs.push_back(a);
    }
    window(shaped, "kernel_shape", &k, &st, &d);
    int p[4];
    const std::string ap = attr_s(n, "auto_pad", "NOTSET");
    if (x.padded && ap != "NOTSET" && ap != "VALID" && !ap.empty()) throw fault(n, "auto_pad " + ap + " after a Pad");
    borders(n, x, k, st, d, p);
    s.k = k, s.stride = st, s.dilation = d;
    s.pad_top = p[0] + x.pad[0], s.pad_left = p[1] + x.pad[1], s.pad_bottom = p[2] + x.pad[2], s.pad_right = p[3] + x.pad[3];
    s.filters = w.values;
    if (has_in(n, 2)) {
      const Tensor& b = need_const(n, 2, "bias");
      if (b.size() != (size_t)s.out) throw fault(n, "the bias is not one value per filter");
      s.bias = b.values;
    }
    const MapValue m = _mapper->convolution(x.m, std::move(s), where(n));
    set_map(n, m, {x.dims[0], m.c, m.h, m.w});
  }

  // y = scale (x - mean) / sqrt(var + epsilon) + bias, folded into the convolution before it
  // (or a per-channel 1 x 1 convolution when there is none to fold into).
  void batchnorm(const Node& n) {
    only_first_output(n);
    if (attr_i(n, "training_mode", 0) != 0) throw fault(n, "training mode");
    if (attr_i(n, "spatial", 1) != 1) throw fault(n, "spatial 0 (statistics per position)");
    const Val& x = map_in(n, 0);
    const char* names[4] = {"scale", "bias", "mean", "variance"};
    const Tensor* t[4];
    for (int i = 0; i < 4; ++i) {
      t[i] = &need_const(n, i + 1, names[i]);
      if (t[i]->size() != (size_t)x.m.c || x.dims.size() < 2 || x.dims[1] != x.m.c)
        throw fault(n, std::string("the ") + names[i] + " does not hold one value per channel of " + dims_text(x.dims));
    }
    const float eps = attr_f(n, "epsilon", 1e-5f);
    std::vector<float> scale(x.m.c), shift(x.m.c);
    for (int c = 0; c < x.m.c; ++c) {
      const double a = t[0]->values[c] / std::sqrt((double)t[3]->values[c] + eps);
      scale[c] = (float)a;
      shift[c] = (float)(t[1]->values[c] - t[2]->values[c] * a);
    }
    set_map(n, _mapper->affine(x.m, scale, shift, only_reader(n, 0), where(n)), x.dims);
  }

  void pool(const Node& n) {
    only_first_output(n);
    const Val& x = spatial(n, 0);
    int k, s, d;
    window(n, "kernel_shape", &k, &s, &d);
    if (d != 1) throw fault(n, "dilated window");
    if (attr_i(n, "storage_order", 0) != 0) throw fault(n, "storage_order 1");
    int p[4];
    borders(n, x, k, s, d, p);
    const bool ceil_mode = attr_i(n, "ceil_mode", 0) != 0;
    int out[2];
    const int in[2] = {x.m.h, x.m.w};
    for (int a = 0; a < 2; ++a) {
      const int span = in[a] + p[a] + p[a + 2] - k;
      if (span < 0) throw fault(n, "the window is larger than the padded input");
      out[a] = (ceil_mode ? (span + s - 1) / s : span / s) + 1;
      // A last window starting in the bottom border is dropped.
      if (ceil_mode && (out[a] - 1) * s >= in[a] + p[a]) --out[a];
    }
    const std::string ap = attr_s(n, "auto_pad", "NOTSET");
    if (ap == "SAME_UPPER" || ap == "SAME_LOWER") out[0] = (in[0] + s - 1) / s, out[1] = (in[1] + s - 1) / s;
    if (p[0] != p[1] || p[2] != p[3]) throw fault(n, "different borders across and down");
    const int pad = p[0];
    MapValue m;
    if (n.op == "MaxPool") {
      // Windows start pad before each output as in ONNX; cells past the input never win, so
      // only the count of windows must agree.
      if (p[2] < pad) throw fault(n, "a bottom border smaller than the top");
      const bool centred = pad < k && (in[0] + 2 * pad - k) / s + 1 == out[0] && (in[1] + 2 * pad - k) / s + 1 == out[1];
      const bool plain = (in[0] + 2 * pad) / s == out[0] && (in[1] + 2 * pad) / s == out[1];
      if (!centred && !plain) throw fault(n, "this window, stride and padding give a different output size in the engine");
      m = _mapper->maxpool(x.m, k, s, pad, centred, where(n));
    } else {
      // The engine divides every window by its full size: exact where no window reaches
      // past the input, or where ONNX counts the padding too.
      if (p[2] != pad) throw fault(n, "borders differ before and after");
      if (pad > 0 && attr_i(n, "count_include_pad", 0) == 0)
        throw fault(n, "padding with count_include_pad 0 (the engine divides border windows by the whole window)");
      if ((in[0] + 2 * pad) / s != out[0] || (in[1] + 2 * pad) / s != out[1] || out[0] != (in[0] + 2 * pad - k) / s + 1 ||
          out[1] != (in[1] + 2 * pad - k) / s + 1)
        throw fault(n, "this window, stride and padding give a different output size in the engine");
      m = _mapper->avgpool(x.m, k, s, pad, where(n));
    }
    set_map(n, m, {x.dims[0], m.c, m.h, m.w});
  }

  void gemm(const Node& n) {
    const Val& x = map_in(n, 0);
    if (x.dims.size() != 2) throw fault(n, "the first input is " + dims_text(x.dims) + ", not a batch of vectors (N, K)");
    const Tensor& b = need_const(n, 1, "second input");
    if (b.dims.size() != 2) throw fault(n, "the second input is " + dims_text(b.dims) + ", not a matrix");
    const bool gemm = n.op == "Gemm";
    if (gemm && attr_i(n, "transA", 0)) throw fault(n, "transA");
    const bool tb = gemm && attr_i(n, "transB", 0);
    const float alpha = gemm ? attr_f(n, "alpha", 1.f) : 1.f, beta = gemm ? attr_f(n, "beta", 1.f) : 1.f;
    const int64_t K = tb ? b.dims[1] : b.dims[0], M = tb ? b.dims[0] : b.dims[1];
    if (K != x.dims[1]) throw fault(n, "a matrix for " + std::to_string(K) + " inputs on " + std::to_string(x.dims[1]));
    const int outputs = small_int(n, M, "outputs", 1, 1 << 20);
    std::vector<float> w((size_t)M * K);
    for (int64_t o = 0; o < M; ++o)
      for (int64_t i = 0; i < K; ++i) w[o * K + i] = alpha * (tb ? b.values[o * K + i] : b.values[i * M + o]);
    std::vector<float> bias;
    if (gemm && has_in(n, 2)) {
      const Tensor& c = need_const(n, 2, "bias");
      if (c.size() == 1) {
        bias.assign(M, beta * c.values[0]);
      } else if (c.size() == (size_t)M && c.dims.back() == M) {
        for (float v : c.values) bias.push_back(beta * v);
      } else {
        throw fault(n, "a bias of shape " + dims_text(c.dims) + " (one value or one per output)");
      }
    }
    const MapValue m = _mapper->fconn(x.m, outputs, std::move(w), std::move(bias), where(n));
    set_map(n, m, {x.dims[0], M});
  }

  void softmax(const Node& n) {
    const Val& x = map_in(n, 0);
    const size_t rank = x.dims.size();
    const int a = axis(n, attr_i(n, "axis", _model.opset < 13 ? 1 : -1), rank);
    if (a == 0) throw fault(n, "a softmax across the batch");
    // Before opset 13 the axes from `axis` on form one group; since, only `axis`, which is
    // one contiguous group when every later dim is 1.
    if (_model.opset >= 13 && product(x.dims, a + 1) != 1)
      throw fault(n, "axis " + std::to_string(a) + " of " + dims_text(x.dims) + " is not the last (the engine's groups are contiguous)");
    int64_t groups = 1;
    for (int i = 1; i < a; ++i) groups *= x.dims[i];
    const MapValue m = _mapper->softmax(x.m, (int)groups, where(n));
    set_map(n, m, x.dims);
  }

  void concat(const Node& n) {
    const Val& first = in(n, 0);
    const size_t rank = first.dims.size();
    const int a = axis(n, attr_i(n, "axis", 1), rank);
    if (first.is_const) throw fault(n, "a concatenation of constants");
    if (a != 1) throw fault(n, "axis " + std::to_string(a) + " (only channels, axis 1)");
    std::vector<MapValue> parts;
    Dims dims = first.dims;
    dims[1] = 0;
    for (size_t i = 0; i < n.in.size(); ++i) {
      const Val& v = map_in(n, i);
      if (v.dims.size() != rank) throw fault(n, "inputs of different ranks");
      for (size_t j = 2; j < rank; ++j)
        if (v.dims[j] != first.dims[j]) throw fault(n, "maps of different sizes");
      if (product(v.dims, 2) != (int64_t)v.m.w * v.m.h || v.dims[1] != v.m.c)
        throw fault(n, "input '" + n.in[i] + "' is laid out otherwise than the engine's map");
      dims[1] += v.dims[1];
      parts.push_back(v.m);
    }
    set_map(n, _mapper->route(parts, where(n)), dims);
  }

  void arithmetic(const Node& n) {
    if (n.in.size() != 2) throw fault(n, "expected two inputs");
    const Val& a = in(n, 0);
    const Val& b = in(n, 1);
    const std::string& op = n.op;
    if (a.is_const && b.is_const) return fold_arithmetic(n, a.k, b.k);
    for (size_t i = 0; i < 2; ++i)
      if (!in(n, i).is_const) map_in(n, i);  // refuses a Pad's output
    if (!a.is_const && !b.is_const) {
      if (op == "Add") {
        if (a.dims != b.dims) throw fault(n, "a sum of maps of shapes " + dims_text(a.dims) + " and " + dims_text(b.dims));
        return set_map(n, _mapper->shortcut(a.m, b.m, where(n)), a.dims);
      }
      if (op == "Mul") {
        const bool af = a.m.w == 1 && a.m.h == 1 && a.dims.size() == 4, bf = b.m.w == 1 && b.m.h == 1 && b.dims.size() == 4;
        if (af != bf && a.dims.size() == b.dims.size()) {
          const Val& features = af ? b : a;
          return set_map(n, _mapper->attention(features.m, (af ? a : b).m, where(n)), features.dims);
        }
        throw fault(n, "a product of two maps (only a map times one factor per channel)");
      }
      throw fault(n, "the engine computes no " + op + " of two maps");
    }
    const bool x_first = !a.is_const;
    const Val& x = x_first ? a : b;
    const Tensor& k = x_first ? b.k : a.k;
    std::vector<float> v;
    if (!per_channel(n, k, x.dims, x.m.c, &v) || x.dims.size() < 2 || x.dims[1] != x.m.c)
      throw fault(n, "a constant of shape " + dims_text(k.dims) + " on a map of " + dims_text(x.dims) +
                         " (only one value, or one per channel)");
    std::vector<float> scale(x.m.c, 1.f), shift(x.m.c, 0.f);
    for (int c = 0; c < x.m.c; ++c) {
      if (op == "Add") shift[c] = v[c];
      else if (op == "Mul") scale[c] = v[c];
      else if (op == "Sub" && x_first) shift[c] = -v[c];
      else if (op == "Sub") scale[c] = -1, shift[c] = v[c];
      else if (op == "Div" && x_first) scale[c] = 1 / v[c];
      else throw fault(n, "a constant divided by a map");
    }
    set_map(n, _mapper->affine(x.m, scale, shift, only_reader(n, x_first ? 0 : 1), where(n)), x.dims);
  }

  void fold_arithmetic(const Node& n, const Tensor& a, const Tensor& b) {
    if (a.size() != b.size() && a.size() != 1 && b.size() != 1) throw fault(n, "constants of different sizes");
    Tensor t = a.size() >= b.size() ? a : b;
    for (size_t i = 0; i < t.size(); ++i) {
      const float x = a.values[a.size() == 1 ? 0 : i], y = b.values[b.size() == 1 ? 0 : i];
      t.values[i] = n.op == "Add" ? x + y : n.op == "Sub" ? x - y : n.op == "Mul" ? x * y : x / y;
    }
    set_const(n, std::move(t));
  }

  void resize(const Node& n) {
    const Val& x = spatial(n, 0);
    const bool upsample = n.op == "Upsample";
    std::string mode = attr_s(n, "mode", "nearest");
    std::string coord = upsample || _model.opset < 11 ? "asymmetric" : attr_s(n, "coordinate_transformation_mode", "half_pixel");
    const std::string nearest = upsample || _model.opset < 11 ? "floor" : attr_s(n, "nearest_mode", "round_prefer_floor");
    std::vector<float> scales;
    if (upsample && _model.opset < 9) {
      if (const onnx::Attribute* a = attr(n, "scales")) scales = a->floats;
    } else {
      const size_t si = upsample || _model.opset < 11 ? 1 : 2;
      if (const Tensor* t = konst(n, si)) scales = t->values;
      else if (has_in(n, si)) throw fault(n, "the scales are not a constant");
    }
    int oh, ow;
    if (!upsample && _model.opset >= 11 && has_in(n, 3) && scales.empty()) {
      const Tensor& sz = need_const(n, 3, "sizes");
      if (sz.size() != 4 || (sz.values[0] != x.dims[0] && x.dims[0] > 0) || sz.values[1] != x.m.c)
        throw fault(n, "sizes must keep the batch and the channels");
      oh = small_int(n, whole(n, sz.values[2], "height"), "height", 1, 16384);
      ow = small_int(n, whole(n, sz.values[3], "width"), "width", 1, 16384);
    } else {
      if (scales.size() != 4 || scales[0] != 1 || scales[1] != 1) throw fault(n, "scales must be (1, 1, height, width)");
      if (!(scales[2] > 0 && scales[3] > 0 && scales[2] <= 64 && scales[3] <= 64)) throw fault(n, "scales out of range");
      // ONNX maps coordinates by the scale itself (and by in x scale - 1 for align_corners);
      // the engine by the sizes: the same only when in x scale is whole.
      const double fh = (double)x.m.h * scales[2], fw = (double)x.m.w * scales[3];
      if (fh != std::floor(fh) || fw != std::floor(fw))
        throw fault(n, "scales " + std::to_string(scales[2]) + " x " + std::to_string(scales[3]) + " of " +
                           std::to_string(x.m.w) + " x " + std::to_string(x.m.h) +
                           " give no whole size (the engine resizes between sizes)");
      oh = (int)fh;
      ow = (int)fw;
    }
    if (attr_i(n, "antialias", 0)) throw fault(n, "antialias");
    MapValue m;
    if (mode == "nearest") {
      const bool whole = ow % x.m.w == 0 && oh % x.m.h == 0 && ow / x.m.w == oh / x.m.h;
      // Each output takes input d / f for these rules when f is a whole factor.
      const bool floor_rule = (coord == "asymmetric" && nearest == "floor") ||
                              ((coord == "half_pixel" || coord == "pytorch_half_pixel") &&
                               (nearest == "round_prefer_floor" || nearest == "round_prefer_ceil")) ||
                              (coord == "tf_half_pixel_for_nn" && nearest == "floor");
      if (!whole || !floor_rule)
        throw fault(n, "nearest resize to " + std::to_string(ow) + " x " + std::to_string(oh) + " with " + coord + " / " +
                           nearest + " (only one whole factor, as each output taking input d / factor)");
      const int f = ow / x.m.w;
      if (f == 1) return set(n, x);
      m = _mapper->upsample(x.m, f, where(n));
    } else if (mode == "linear" || mode == "bilinear") {
      std::string rule;
      if (coord == "half_pixel" || (coord == "pytorch_half_pixel" && ow > 1 && oh > 1)) rule = "half_pixel";
      else if (coord == "align_corners") rule = "align_corners";
      else if (coord != "asymmetric") throw fault(n, "coordinate_transformation_mode " + coord);
      m = _mapper->resize(x.m, ow, oh, rule, where(n));
    } else {
      throw fault(n, "mode " + mode + " (nearest or linear)");
    }
    set_map(n, m, {x.dims[0], m.c, m.h, m.w});
  }

  // A map seen with other dims: the same values, batch first.
  void view(const Node& n, const Val& x, Dims dims) {
    if (x.padded) throw fault(n, "a reshape of a Pad's output (only a convolution may follow a Pad)");
    if (dims.empty() || (x.dims[0] >= 0 && dims[0] >= 0 && dims[0] != x.dims[0]))
      throw fault(n, "a reshape that moves values across the batch");
    dims[0] = x.dims[0];
    if (product(dims, 1) != product(x.dims, 1)) throw fault(n, "a reshape to " + dims_text(dims) + " of " + dims_text(x.dims));
    Val v = x;
    v.dims = std::move(dims);
    set(n, std::move(v));
  }

  void flatten(const Node& n) {
    const Val& x = in(n, 0);
    const int a = axis(n, attr_i(n, "axis", 1), x.dims.size() + 1);
    if (x.is_const) {
      Tensor t = x.k;
      int64_t lead = 1;
      for (int i = 0; i < a; ++i) lead *= t.dims[i];
      t.dims = {lead, (int64_t)t.size() / std::max<int64_t>(lead, 1)};
      return set_const(n, std::move(t));
    }
    if (a != 1) throw fault(n, "axis " + std::to_string(a) + " (only 1: the batch stays apart)");
    view(n, x, {x.dims[0], product(x.dims, 1)});
  }

  void reshape(const Node& n) {
    const Val& x = in(n, 0);
    const Tensor& shape = need_const(n, 1, "shape");
    Dims dims;
    int minus = -1;
    int64_t known = 1;
    for (size_t i = 0; i < shape.size(); ++i) {
      int64_t d = whole(n, shape.values[i], "dim");
      if (d == 0 && i < x.dims.size() && !attr_i(n, "allowzero", 0)) d = x.dims[i];
      if (d == -1) {
        if (minus >= 0) throw fault(n, "two dims of -1");
        minus = (int)i;
      } else if (d < 0 && !(i == 0 && !x.is_const)) {
        throw fault(n, "dim " + std::to_string(d));
      } else if (i > 0 || x.is_const) {
        known *= d;
        if (known > (int64_t(1) << 40)) throw fault(n, "a shape of more than 2^40 values");
      }
      dims.push_back(d);
    }
    if (x.is_const) {
      if (minus >= 0) dims[minus] = known ? (int64_t)x.k.size() / known : 0;
      if (product(dims) != (int64_t)x.k.size()) throw fault(n, "a reshape to " + dims_text(dims) + " of " + dims_text(x.dims));
      Tensor t = x.k;
      t.dims = dims;
      return set_const(n, std::move(t));
    }
    if (dims.empty()) throw fault(n, "a reshape to a scalar");
    if (minus > 0) dims[minus] = known ? product(x.dims, 1) / known : 0;
    if (minus == 0) dims[0] = x.dims[0];
    view(n, x, dims);
  }

  void squeeze(const Node& n) {
    const Val& x = in(n, 0);
    std::vector<int64_t> axes = attr_ints(n, "axes");
    if (has_in(n, 1)) {
      axes.clear();
      for (float v : need_const(n, 1, "axes").values) axes.push_back(whole(n, v, "axis"));
    }
    Dims dims = x.dims;
    if (n.op == "Unsqueeze") {
      std::sort(axes.begin(), axes.end());
      for (int64_t a : axes) {
        const int p = axis(n, a, dims.size() + 1);
        dims.insert(dims.begin() + p, 1);
      }
    } else {
      std::set<int> drop;
      for (int64_t a : axes) drop.insert(axis(n, a, dims.size()));
      Dims kept;
      for (size_t i = 0; i < dims.size(); ++i)
        if (!(axes.empty() ? dims[i] == 1 : drop.count((int)i) > 0)) kept.push_back(dims[i]);
      dims = kept;
    }
    if (x.is_const) {
      Tensor t = x.k;
      t.dims = dims;
      return set_const(n, std::move(t));
    }
    if (dims.empty() || dims[0] != x.dims[0]) throw fault(n, "the batch axis would move");
    view(n, x, dims);
  }

  // Equal runs of channels, each a grouped route of the map.
  void split(const Node& n) {
    const Val& x = map_in(n, 0);
    if (x.dims.size() < 2 || axis(n, attr_i(n, "axis", 0), x.dims.size()) != 1 || x.dims[1] != x.m.c)
      throw fault(n, "only a split of the channels (axis 1)");
    const int parts = (int)n.out.size();
    std::vector<int64_t> sizes = attr_ints(n, "split");
    if (has_in(n, 1)) {
      sizes.clear();
      for (float v : need_const(n, 1, "split").values) sizes.push_back(whole(n, v, "part size"));
    }
    for (int64_t v : sizes)
      if (v < 0 || v > x.m.c || v * parts != x.m.c) throw fault(n, "parts of different sizes (the engine splits into equal runs)");
    if (parts < 1 || x.m.c % parts) throw fault(n, std::to_string(x.m.c) + " channels in " + std::to_string(parts) + " equal parts");
    for (int i = 0; i < parts; ++i) {
      if (n.out[i].empty() || !_readers.count(n.out[i])) continue;
      Val v;
      v.m = _mapper->channelSlice(x.m, parts, i, where(n));
      v.dims = x.dims;
      v.dims[1] = x.m.c / parts;
      set_output(n, i, std::move(v));
    }
  }

  // Zeros around the height and width, kept with the map for the convolution that follows
  // (the engine pads inside its convolutions only).
  void pad(const Node& n) {
    const Val& x = spatial(n, 0, true);
    if (attr_s(n, "mode", "constant") != "constant") throw fault(n, "mode " + attr_s(n, "mode", "") + " (only constant zeros)");
    std::vector<int64_t> pads;
    float value = 0;
    if (_model.opset < 11) {
      pads = attr_ints(n, "pads");
      value = attr_f(n, "value", 0.f);
    } else {
      for (float v : need_const(n, 1, "pads").values) pads.push_back(whole(n, v, "pad"));
      if (has_in(n, 2)) {
        const Tensor& t = need_const(n, 2, "constant value");
        if (t.size() != 1) throw fault(n, "a constant value that is not one value");
        value = t.values[0];
      }
      if (has_in(n, 3)) throw fault(n, "axes");
    }
    if (value != 0) throw fault(n, "padding with " + std::to_string(value) + " (only zeros)");
    if (pads.size() != 8 || pads[0] || pads[1] || pads[4] || pads[5])
      throw fault(n, "pads other than around the height and width");
    Val v = x;
    const int order[4] = {2, 3, 6, 7};  // top, left, bottom, right
    for (int i = 0; i < 4; ++i) v.pad[i] += small_int(n, pads[order[i]], "pad", 0, 1024);
    v.padded = true;
    set(n, std::move(v));
  }

  void gather(const Node& n) {
    const Tensor& data = need_const(n, 0, "data");
    const Tensor& idx = need_const(n, 1, "index");
    if (data.dims.size() != 1 || attr_i(n, "axis", 0) != 0) throw fault(n, "only a gather from a list of values");
    Tensor t;
    t.dims = idx.dims;
    for (float f : idx.values) {
      int64_t i = whole(n, f, "index");
      if (i < 0) i += (int64_t)data.size();
      if (i < 0 || i >= (int64_t)data.size()) throw fault(n, "index " + std::to_string(whole(n, f, "index")) + " out of range");
      t.values.push_back(data.values[i]);
    }
    set_const(n, std::move(t));
  }
};

}  // namespace

ConvertedModel onnxToEngine(const std::string& bytes, const std::string& source, const onnx::ExternalReader& external) {
  const onnx::Model model = onnx::parseModel(bytes, source, external);
  return Importer(model, source).run();
}

ConvertedModel onnxToEngine(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw ConvertError(path + ": can't open");
  const std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  const fs::path dir = fs::path(path).parent_path();
  auto external = [&](const std::string& location) {
    const fs::path p = dir / location;
    std::ifstream s(p, std::ios::binary);
    if (!s) throw ConvertError(path + ": external data file " + p.string() + " can't be opened");
    return std::string((std::istreambuf_iterator<char>(s)), std::istreambuf_iterator<char>());
  };
  return onnxToEngine(bytes, path, external);
}

}  // namespace orvacli
