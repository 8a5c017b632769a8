// The TF.js graph-model importer: a small graph with every mapped operation against a float64
// evaluation of the graph itself (written here from the operations' definitions, sharing
// nothing with the importer), its refusals, and the fetched CenterNet model on a video frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>

#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "backend_fixture.h"
#include "harness.h"
#include "model_build.h"
#include "network_test_util.h"
#include "orva/orva.h"
#include "tfjs.h"

namespace {

using nlohmann::json;
using orva_test::temp_path;
using orvacli::ConvertError;

// String attributes are stored in base64; the writer's encoding is the only one.
std::string b64(const std::string& s) {
  static const char* k = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < s.size(); i += 3) {
    unsigned v = (unsigned char)s[i] << 16 | (i + 1 < s.size() ? (unsigned char)s[i + 1] << 8 : 0) |
                 (i + 2 < s.size() ? (unsigned char)s[i + 2] : 0);
    out += k[v >> 18 & 63];
    out += k[v >> 12 & 63];
    out += i + 1 < s.size() ? k[v >> 6 & 63] : '=';
    out += i + 2 < s.size() ? k[v & 63] : '=';
  }
  return out;
}

// ---- float64 evaluation of a graph model, batch 1, NHWC ----

struct T {
  int h = 1, w = 1, c = 1;
  std::vector<double> v;  // scalars and vectors: h = w = 1, c = size
  double at(int y, int x, int ch) const { return v[((size_t)y * w + x) * c + ch]; }
};

class GraphEval {
 public:
  GraphEval(const json& doc, const std::vector<unsigned char>& bin) {
    size_t pos = 0;
    for (const json& wt : doc["weightsManifest"][0]["weights"]) {
      T t;
      std::vector<int> shape = wt["shape"].get<std::vector<int>>();
      size_t n = 1;
      for (int d : shape) n *= d;
      const bool f16 = wt.contains("quantization"), i32 = wt["dtype"] == "int32";
      for (size_t i = 0; i < n; ++i) {
        if (f16) {
          uint16_t h;
          memcpy(&h, &bin[pos + 2 * i], 2);
          t.v.push_back(half2float_cpu(h));
        } else if (i32) {
          int32_t k;
          memcpy(&k, &bin[pos + 4 * i], 4);
          t.v.push_back(k);
        } else {
          float f;
          memcpy(&f, &bin[pos + 4 * i], 4);
          t.v.push_back(f);
        }
      }
      pos += n * (f16 ? 2 : 4);
      t.c = (int)n;
      _const[wt["name"]] = t;
      _shape[wt["name"]] = shape;
    }
    for (const json& n : doc["modelTopology"]["node"]) _nodes[n["name"]] = n;
  }
  void input(const T& x) { _input = x; }
  const T& operator()(const std::string& name) {
    auto it = _memo.find(name);
    if (it != _memo.end()) return it->second;
    return _memo[name] = eval(_nodes.at(name));
  }

 private:
  std::map<std::string, json> _nodes;
  std::map<std::string, T> _const, _memo;
  std::map<std::string, std::vector<int>> _shape;
  T _input;

  static int attr_i(const json& n, const char* k, int idx) { return std::stoi(n["attr"][k]["list"]["i"][idx].get<std::string>()); }

  // x (h, w, ci) with filter [k, k, ci, co] (depthwise: [k, k, c, 1]), TF's SAME or VALID.
  T conv(const json& n, const T& x, const std::string& fname, bool dw) {
    const T& f = _const.at(fname);
    const std::vector<int>& fs = _shape.at(fname);
    const int k = fs[0], co = dw ? x.c : fs[3], s = attr_i(n, "strides", 1);
    const bool same = n["attr"]["padding"]["s"] == b64("SAME");
    const int oh = same ? (x.h + s - 1) / s : (x.h - k) / s + 1, ow = same ? (x.w + s - 1) / s : (x.w - k) / s + 1;
    const int pt = same ? std::max((oh - 1) * s + k - x.h, 0) / 2 : 0, pl = same ? std::max((ow - 1) * s + k - x.w, 0) / 2 : 0;
    T y{oh, ow, co, std::vector<double>((size_t)oh * ow * co, 0.0)};
    for (int i = 0; i < oh; ++i)
      for (int j = 0; j < ow; ++j)
        for (int o = 0; o < co; ++o) {
          double sum = 0;
          for (int ky = 0; ky < k; ++ky)
            for (int kx = 0; kx < k; ++kx) {
              const int yy = i * s - pt + ky, xx = j * s - pl + kx;
              if (yy < 0 || xx < 0 || yy >= x.h || xx >= x.w) continue;
              if (dw)
                sum += x.at(yy, xx, o) * f.v[((size_t)ky * k + kx) * x.c + o];
              else
                for (int c = 0; c < x.c; ++c) sum += x.at(yy, xx, c) * f.v[(((size_t)ky * k + kx) * x.c + c) * co + o];
            }
          y.v[((size_t)i * ow + j) * co + o] = sum;
        }
    return y;
  }
  static T map(T x, const std::function<double(double)>& f) {
    for (double& v : x.v) v = f(v);
    return x;
  }
  // a op b with b a scalar, a per-channel vector or factor map (1, 1, c), or a's shape.
  static T broadcast(const T& a, const T& b, bool product) {
    const T& big = a.v.size() >= b.v.size() ? a : b;
    const T& small = a.v.size() >= b.v.size() ? b : a;
    T y = big;
    for (size_t i = 0; i < y.v.size(); ++i) {
      const double s = small.v.size() == 1 ? small.v[0] : small.v.size() == big.v.size() ? small.v[i] : small.v[i % big.c];
      y.v[i] = product ? big.v[i] * s : big.v[i] + s;
    }
    return y;
  }

  T eval(const json& n) {
    const std::string op = n["op"];
    std::vector<std::string> in;
    for (const json& i : n.value("input", json::array())) in.push_back(i);
    auto arg = [&](int k) -> const T& { return _const.count(in[k]) ? _const.at(in[k]) : (*this)(in[k]); };
    if (op == "Placeholder") return _input;
    if (op == "Const") return _const.at(n["name"]);
    if (op == "Identity") return arg(0);
    if (op == "Conv2D" || op == "_FusedConv2D" || op == "DepthwiseConv2dNative" || op == "FusedDepthwiseConv2dNative") {
      T y = conv(n, arg(0), in[1], op.find("Depthwise") != std::string::npos);
      if (op[0] == '_' || op[0] == 'F') {
        const json ops = n["attr"]["fused_ops"]["list"]["s"];
        y = broadcast(y, _const.at(in[2]), false);
        if (ops.size() > 1 && ops[1] == b64("Relu")) y = map(y, [](double v) { return std::max(v, 0.0); });
        if (ops.size() > 1 && ops[1] == b64("Relu6")) y = map(y, [](double v) { return std::min(std::max(v, 0.0), 6.0); });
      }
      return y;
    }
    if (op == "Relu") return map(arg(0), [](double v) { return std::max(v, 0.0); });
    if (op == "Relu6") return map(arg(0), [](double v) { return std::min(std::max(v, 0.0), 6.0); });
    if (op == "Sigmoid") return map(arg(0), [](double v) { return 1 / (1 + std::exp(-v)); });
    if (op == "Add" || op == "AddV2") return broadcast(arg(0), arg(1), false);
    if (op == "Mul") return broadcast(arg(0), arg(1), true);
    if (op == "Mean") {
      const T& x = arg(0);
      T y{1, 1, x.c, std::vector<double>(x.c, 0.0)};
      for (size_t i = 0; i < x.v.size(); ++i) y.v[i % x.c] += x.v[i] / ((double)x.h * x.w);
      return y;
    }
    if (op == "ConcatV2") {
      const T &a = arg(0), &b = arg(1);
      T y{a.h, a.w, a.c + b.c, {}};
      for (int p = 0; p < a.h * a.w; ++p) {
        y.v.insert(y.v.end(), a.v.begin() + (size_t)p * a.c, a.v.begin() + (size_t)(p + 1) * a.c);
        y.v.insert(y.v.end(), b.v.begin() + (size_t)p * b.c, b.v.begin() + (size_t)(p + 1) * b.c);
      }
      return y;
    }
    if (op == "ResizeBilinear") {
      const T& x = arg(0);
      const T& size = _const.at(in[1]);
      const int oh = (int)size.v[0], ow = (int)size.v[1];
      const bool align = n["attr"].contains("align_corners") && n["attr"]["align_corners"]["b"].get<bool>();
      const bool half = n["attr"].contains("half_pixel_centers") && n["attr"]["half_pixel_centers"]["b"].get<bool>();
      auto src = [&](int d, int in_n, int out_n) {
        if (align) return out_n > 1 ? d * (in_n - 1.0) / (out_n - 1) : 0.0;
        return half ? (d + 0.5) * in_n / out_n - 0.5 : (double)d * in_n / out_n;
      };
      T y{oh, ow, x.c, std::vector<double>((size_t)oh * ow * x.c)};
      auto px = [&](int yy, int xx, int c) {
        return x.at(std::min(std::max(yy, 0), x.h - 1), std::min(std::max(xx, 0), x.w - 1), c);
      };
      for (int i = 0; i < oh; ++i)
        for (int j = 0; j < ow; ++j) {
          const double sy = src(i, x.h, oh), sx = src(j, x.w, ow), fy = std::floor(sy), fx = std::floor(sx);
          for (int c = 0; c < x.c; ++c) {
            const double top = px((int)fy, (int)fx, c) * (1 - (sx - fx)) + px((int)fy, (int)fx + 1, c) * (sx - fx);
            const double bot = px((int)fy + 1, (int)fx, c) * (1 - (sx - fx)) + px((int)fy + 1, (int)fx + 1, c) * (sx - fx);
            y.v[((size_t)i * ow + j) * x.c + c] = top * (1 - (sy - fy)) + bot * (sy - fy);
          }
        }
      return y;
    }
    ADD_FAILURE() << "the float64 evaluation has no " << op;
    return T{};
  }
};

// Relative L2 distance of the engine's planar output (channels first, from channel `first`)
// against the graph's NHWC map.
double rel_l2(const float* planar, int first, const T& ref, double factor = 1) {
  double num = 0, den = 0;
  for (int c = 0; c < ref.c; ++c)
    for (int p = 0; p < ref.h * ref.w; ++p) {
      const double want = ref.v[(size_t)p * ref.c + c];
      const double got = planar[(size_t)(first + c) * ref.h * ref.w + p] * factor;
      num += (got - want) * (got - want);
      den += want * want;
    }
  return std::sqrt(num / std::max(den, 1e-30));
}

// ---- a small graph with every mapped operation ----

struct GraphBuilder {
  json nodes = json::array(), weights = json::array();
  std::vector<unsigned char> bin;
  std::mt19937 rng{7};

  static json ints(std::vector<int> v) {
    json l = json::array();
    for (int x : v) l.push_back(std::to_string(x));
    return {{"list", {{"i", l}}}};
  }
  // A constant of random float16 values in [lo, hi] (or given float32 / int32 values).
  std::string constant(const std::string& name, std::vector<int> shape, double lo, double hi) {
    size_t n = 1;
    for (int d : shape) n *= d;
    std::uniform_real_distribution<double> u(lo, hi);
    for (size_t i = 0; i < n; ++i) {
      const uint16_t h = float2half_cpu((float)u(rng));
      bin.push_back(h & 0xFF);
      bin.push_back(h >> 8);
    }
    weights.push_back({{"name", name}, {"shape", shape}, {"dtype", "float32"}, {"quantization", {{"dtype", "float16"}}}});
    nodes.push_back({{"name", name}, {"op", "Const"}});
    return name;
  }
  std::string values(const std::string& name, std::vector<int> shape, std::vector<float> v, bool integer = false) {
    for (float x : v) {
      unsigned char b[4];
      if (integer) {
        const int32_t k = (int32_t)x;
        memcpy(b, &k, 4);
      } else {
        memcpy(b, &x, 4);
      }
      bin.insert(bin.end(), b, b + 4);
    }
    weights.push_back({{"name", name}, {"shape", shape}, {"dtype", integer ? "int32" : "float32"}});
    nodes.push_back({{"name", name}, {"op", "Const"}});
    return name;
  }
  std::string node(const std::string& name, const std::string& op, std::vector<std::string> in, json attr = json::object()) {
    nodes.push_back({{"name", name}, {"op", op}, {"input", in}, {"attr", attr}});
    return name;
  }
  std::string conv(const std::string& name, const std::string& x, int k, int ci, int co, int s, bool dw,
                   const char* act, const char* padding = "SAME") {
    const std::string f = constant(name + "/w", {k, k, ci, dw ? 1 : co}, -0.5, 0.5);
    const std::string b = constant(name + "/b", {dw ? ci : co}, -0.2, 0.2);
    json ops = json::array({b64("BiasAdd")});
    if (act) ops.push_back(b64(act));
    return node(name, dw ? "FusedDepthwiseConv2dNative" : "_FusedConv2D", {x, f, b},
                {{"strides", ints({1, s, s, 1})}, {"padding", {{"s", b64(padding)}}}, {"fused_ops", {{"list", {{"s", ops}}}}},
                 {"num_args", {{"i", "1"}}}});
  }
  std::string hswish(const std::string& name, const std::string& x) {
    const std::string sixth = values(name + "/sixth", {}, {1.f / 6});
    const std::string three = values(name + "/three", {}, {3.f});
    const std::string m = node(name + "/mul", "Mul", {sixth, x});
    const std::string a = node(name + "/add", "Add", {x, three});
    const std::string r = node(name + "/relu6", "Relu6", {a});
    return node(name, "Mul", {m, r});
  }
  json doc(const std::string& input, int size) const {
    json d;
    d["format"] = "graph-model";
    json topo;
    topo["node"] = nodes;
    json dims = json::array();
    for (int v : {1, size, size, 3}) dims.push_back({{"size", std::to_string(v)}});
    json shape;
    shape["shape"]["dim"] = dims;
    json placeholder = {{"name", input}, {"op", "Placeholder"}};
    placeholder["attr"]["shape"] = shape;
    topo["node"].insert(topo["node"].begin(), placeholder);
    d["modelTopology"] = topo;
    d["weightsManifest"] = json::array({{{"paths", {"g.bin"}}, {"weights", weights}}});
    return d;
  }
};

// Input 16 x 16: a stride-2 convolution with hard-swish (borders 0 and 1), a depthwise 5 x 5
// stride-2 one (borders 1 and 2), squeeze and excitation with hard-sigmoid, a residual sum,
// a bilinear enlargement, a concatenation with an earlier map and a logistic output.
GraphBuilder small_graph() {
  GraphBuilder g;
  const std::string c0 = g.conv("c0", "in", 3, 3, 8, 2, false, nullptr);
  const std::string h0 = g.hswish("h0", c0);
  const std::string d1 = g.conv("d1", h0, 5, 8, 8, 2, true, "Relu");
  const std::string axes = g.values("se/axes", {2}, {1, 2}, true);
  const std::string mean = g.node("se/mean", "Mean", {d1, axes}, {{"keep_dims", {{"b", true}}}});
  const std::string s1 = g.conv("se/c1", mean, 1, 8, 4, 1, false, "Relu");
  const std::string s2 = g.conv("se/c2", s1, 1, 4, 8, 1, false, nullptr);
  const std::string three = g.values("se/three", {}, {3.f}), sixth = g.values("se/sixth", {}, {1.f / 6});
  const std::string hs = g.node("se/hsig", "Mul", {g.node("se/relu6", "Relu6", {g.node("se/add", "Add", {s2, three})}), sixth});
  const std::string se = g.node("se/mul", "Mul", {hs, d1});
  const std::string p = g.conv("p", se, 1, 8, 8, 1, false, nullptr);
  const std::string sum = g.node("sum", "AddV2", {p, d1});
  const std::string size = g.values("up/size", {2}, {8, 8}, true);
  const std::string up = g.node("up", "ResizeBilinear", {sum, size}, {{"align_corners", {{"b", false}}}, {"half_pixel_centers", {{"b", false}}}});
  const std::string axis = g.values("cat/axis", {}, {3}, true);
  const std::string cat = g.node("cat", "ConcatV2", {h0, up, axis});
  const std::string out = g.conv("out", cat, 3, 16, 5, 1, false, nullptr);
  g.node("y", "Sigmoid", {out});
  return g;
}

orvacli::ConvertedModel convert(const GraphBuilder& g, const std::string& text) {
  return orvacli::tfjsToEngine(text, [&](const std::string&) { return g.bin; }, "g.json");
}

TEST(TfjsImport, SmallGraphMatchesItsFloat64Evaluation) {
  const GraphBuilder g = small_graph();
  const json doc = g.doc("in", 16);
  orvacli::TfjsOptions o;
  const orvacli::ConvertedModel m = convert(g, doc.dump());
  const std::string path = temp_path("small.orva");
  orvacli::writeModel(m, path);  // also checks every layer's shape against the graph's

  cv::Mat img(16, 16, CV_8UC3);
  cv::randu(img, 0, 256);
  T x{16, 16, 3, {}};
  for (int y = 0; y < 16; ++y)
    for (int xx = 0; xx < 16; ++xx)
      for (int c = 0; c < 3; ++c) x.v.push_back(img.at<cv::Vec3b>(y, xx)[2 - c]);  // RGB bytes
  GraphEval eval(doc, g.bin);
  eval.input(x);
  const T& ref = eval("y");
  for (int gpu : orva_test::test_backends()) {
    ORVA::Network net(ORVA::TEST, 1, gpu);
    net.load(path.c_str());
    const float* out = net.predict(&img, 1);
    EXPECT_LT(rel_l2(out, 0, ref), 1e-2) << "backend " << gpu;
  }
}

TEST(TfjsImport, FaultsNameTheNodeOrTensor) {
  const GraphBuilder g = small_graph();
  auto named = [](json& d, const char* name) -> json& {
    for (json& n : d["modelTopology"]["node"])
      if (n["name"] == name) return n;
    throw std::runtime_error(name);
  };
  struct Case {
    std::function<void(json&, std::vector<unsigned char>&)> edit;
    const char* want;
  };
  const Case cases[] = {
      {[&](json& d, std::vector<unsigned char>&) { named(d, "up")["op"] = "Softplus"; },
       "node 'up' (Softplus): the engine has no layer"},
      {[](json& d, std::vector<unsigned char>& b) { b.pop_back(); }, "end inside it"},
      {[](json& d, std::vector<unsigned char>& b) { b.push_back(0); }, "bytes more than their tensors"},
      {[](json& d, std::vector<unsigned char>&) { d["weightsManifest"][0]["weights"][0]["dtype"] = "string"; },
       "tensor 'c0/w': dtype string"},
      {[](json& d, std::vector<unsigned char>&) { d["weightsManifest"][0]["weights"][0]["shape"] = {2, 3, 3, 12}; },
       "kernels are square"},
      {[](json& d, std::vector<unsigned char>&) { d.erase("weightsManifest"); }, "not a TF.js graph model"},
      {[&](json& d, std::vector<unsigned char>&) { named(d, "cat")["input"][0] = "nowhere"; },
       "no node 'nowhere'"},
  };
  for (const Case& c : cases) {
    json doc = g.doc("in", 16);
    std::vector<unsigned char> bin = g.bin;
    c.edit(doc, bin);
    EXPECT_TRUE(orva_test::Contains(
        orva_test::thrown<ConvertError>([&] { orvacli::tfjsToEngine(doc.dump(), [&](const std::string&) { return bin; }, "g.json"); }),
        c.want));
  }
  EXPECT_THROW(orvacli::tfjsToEngine("{\"modelTopology\": [", [](const std::string&) { return std::vector<unsigned char>(); },
                                     "g.json"),
               ConvertError);
  EXPECT_THROW(orvacli::tfjsToEngine(temp_path("absent/model.json")), ConvertError);
  // The manifest names a weight file that is not beside it.
  const std::string lone = temp_path("lone.json");
  orva_test::write_file(lone, g.doc("in", 16).dump());
  EXPECT_TRUE(orva_test::Contains(orva_test::thrown<ConvertError>([&] { orvacli::tfjsToEngine(lone); }), "g.bin can't be opened"));
}

// The fetched model on frame 100 of the street video, stretched to 512 x 512: the heat maps
// and box maps against the float64 evaluation of the same graph.
TEST(TfjsImport, CenterNetMatchesItsGraphOnAVideoFrame) {
  const std::string dir = std::string(ORVA_MODELS_DIR) + "/human-models/";
  const std::string video = std::string(ORVA_MODELS_DIR) + "/vtest.avi";
  if (!std::filesystem::exists(dir + "centernet.json") || !std::filesystem::exists(video))
    GTEST_SKIP() << "the CenterNet model or the street video was not fetched (scripts/setup.sh)";
  const orvacli::ConvertedModel m = orvacli::tfjsToEngine(dir + "centernet.json");
  const std::string path = temp_path("centernet.orva");
  orvacli::writeModel(m, path);

  cv::VideoCapture cap(video);
  cv::Mat frame, img;
  for (int i = 0; i <= 100; ++i) cap >> frame;
  ASSERT_FALSE(frame.empty());
  cv::resize(frame, img, cv::Size(512, 512), 0, 0, cv::INTER_LINEAR);
  T x{512, 512, 3, {}};
  x.v.reserve(512 * 512 * 3);
  for (int y = 0; y < 512; ++y)
    for (int xx = 0; xx < 512; ++xx)
      for (int c = 0; c < 3; ++c) x.v.push_back(img.at<cv::Vec3b>(y, xx)[2 - c]);
  std::ifstream f(dir + "centernet.json");
  const json doc = json::parse(f);
  std::ifstream b(dir + "centernet.bin", std::ios::binary);
  const std::vector<unsigned char> bin((std::istreambuf_iterator<char>(b)), std::istreambuf_iterator<char>());
  GraphEval eval(doc, bin);
  eval.input(x);

  ORVA::Network net(ORVA::TEST, 1, -1);
  net.load(path.c_str());
  const float* out = net.predict(&img, 1);
  EXPECT_LT(rel_l2(out, 0, eval("tower_0/keypoints")), 1e-2);
  EXPECT_LT(rel_l2(out, 80, eval("tower_0/wh"), 16), 1e-2);
}

}  // namespace
