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
#include "graph_reference.h"
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

// ---- float64 evaluation of a graph model, batch 1 ----

using graph_ref::T;

// A graph model evaluated node by node; the file's NHWC maps are held channels first.
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
        uint16_t h;
        int32_t k;
        float f;
        if (f16) memcpy(&h, &bin[pos + 2 * i], 2), t.v.push_back(half2float_cpu(h));
        else if (i32) memcpy(&k, &bin[pos + 4 * i], 4), t.v.push_back(k);
        else memcpy(&f, &bin[pos + 4 * i], 4), t.v.push_back(f);
      }
      pos += n * (f16 ? 2 : 4);
      t.c = (int)n;
      _const[wt["name"]] = t;
      _shape[wt["name"]] = shape;
    }
    for (const json& n : doc["modelTopology"]["node"]) _nodes[n["name"]] = n;
  }
  // An image of bytes, RGB order, as the network's input planes see it.
  void input(const cv::Mat& rgb) {
    _input = T{3, rgb.rows, rgb.cols, std::vector<double>((size_t)3 * rgb.rows * rgb.cols)};
    for (int c = 0; c < 3; ++c)
      for (int y = 0; y < rgb.rows; ++y)
        for (int x = 0; x < rgb.cols; ++x) _input.at(c, y, x) = rgb.at<cv::Vec3b>(y, x)[2 - c];
  }
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

  // Filter [k, k, ci, co] (depthwise: [k, k, c, 1]) turned [co][ci][k][k]; TF's SAME or VALID.
  T conv(const json& n, const T& x, const std::string& fname, const std::vector<double>& bias, bool dw) {
    const std::vector<double>& f = _const.at(fname).v;
    const std::vector<int>& fs = _shape.at(fname);
    const int k = fs[0], ci = dw ? 1 : x.c, co = dw ? x.c : fs[3];
    const int s = std::stoi(n["attr"]["strides"]["list"]["i"][1].get<std::string>());
    std::vector<double> w((size_t)co * ci * k * k);
    for (int o = 0; o < co; ++o)
      for (int c = 0; c < ci; ++c)
        for (int t = 0; t < k * k; ++t) w[((size_t)o * ci + c) * k * k + t] = f[((size_t)t * ci + c) * co + o];
    int p[4] = {0, 0, 0, 0};
    if (n["attr"]["padding"]["s"] == b64("SAME")) {
      const int ph = std::max(((x.h + s - 1) / s - 1) * s + k - x.h, 0), pw = std::max(((x.w + s - 1) / s - 1) * s + k - x.w, 0);
      p[0] = ph / 2, p[1] = pw / 2, p[2] = ph - ph / 2, p[3] = pw - pw / 2;
    }
    return graph_ref::conv(x, w, bias, co, k, s, p, 1, dw ? x.c : 1);
  }

  T eval(const json& n) {
    using graph_ref::map;
    const std::string op = n["op"];
    std::vector<std::string> in;
    for (const json& i : n.value("input", json::array())) in.push_back(i);
    auto arg = [&](int k) -> const T& { return _const.count(in[k]) ? _const.at(in[k]) : (*this)(in[k]); };
    auto relu = [](double v) { return std::max(v, 0.0); };
    auto relu6 = [](double v) { return std::min(std::max(v, 0.0), 6.0); };
    if (op == "Placeholder") return _input;
    if (op == "Const") return _const.at(n["name"]);
    if (op == "Identity") return arg(0);
    if (op == "Conv2D" || op == "_FusedConv2D" || op == "DepthwiseConv2dNative" || op == "FusedDepthwiseConv2dNative") {
      const bool fused = op[0] == '_' || op[0] == 'F';
      T y = conv(n, arg(0), in[1], fused ? _const.at(in[2]).v : std::vector<double>(), op.find("Depthwise") != std::string::npos);
      const json ops = fused ? n["attr"]["fused_ops"]["list"]["s"] : json::array();
      if (ops.size() > 1 && ops[1] == b64("Relu")) y = map(y, relu);
      if (ops.size() > 1 && ops[1] == b64("Relu6")) y = map(y, relu6);
      return y;
    }
    if (op == "Relu") return map(arg(0), relu);
    if (op == "Relu6") return map(arg(0), relu6);
    if (op == "Sigmoid") return map(arg(0), graph_ref::sigmoid);
    if (op == "Add" || op == "AddV2") return graph_ref::broadcast(arg(0), arg(1), false);
    if (op == "Mul") return graph_ref::broadcast(arg(0), arg(1), true);
    if (op == "Mean") return graph_ref::channel_mean(arg(0));
    if (op == "ConcatV2") return graph_ref::concat({arg(0), arg(1)});
    if (op == "ResizeBilinear") {
      const std::vector<double>& size = _const.at(in[1]).v;
      auto flag = [&](const char* k) { return n["attr"].contains(k) && n["attr"][k]["b"].get<bool>(); };
      return graph_ref::resize_bilinear(arg(0), (int)size[0], (int)size[1], flag("align_corners"), flag("half_pixel_centers"));
    }
    ADD_FAILURE() << "the float64 evaluation has no " << op;
    return T{};
  }
};

// Relative L2 distance of the engine's planar output from channel `first` on against a map.
double rel_l2(const float* planar, int first, const T& ref, double factor = 1) {
  double num = 0, den = 0;
  for (size_t i = 0; i < ref.v.size(); ++i) {
    const double got = planar[first * ref.plane() + i] * factor;
    num += (got - ref.v[i]) * (got - ref.v[i]);
    den += ref.v[i] * ref.v[i];
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
  GraphEval eval(doc, g.bin);
  eval.input(img);
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
  std::ifstream f(dir + "centernet.json");
  const json doc = json::parse(f);
  std::ifstream b(dir + "centernet.bin", std::ios::binary);
  const std::vector<unsigned char> bin((std::istreambuf_iterator<char>(b)), std::istreambuf_iterator<char>());
  GraphEval eval(doc, bin);
  eval.input(img);

  ORVA::Network net(ORVA::TEST, 1, -1);
  net.load(path.c_str());
  const float* out = net.predict(&img, 1);
  EXPECT_LT(rel_l2(out, 0, eval("tower_0/keypoints")), 1e-2);
  EXPECT_LT(rel_l2(out, 80, eval("tower_0/wh"), 16), 1e-2);
}

}  // namespace
