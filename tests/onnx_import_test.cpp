// ONNX import: small graphs written here in the protobuf wire format, converted, built and
// run on the host, against float64 evaluations of the same graphs; the faults a user's file
// can hold; `orva run` on the converted model.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "graph_reference.h"
#include "layer_test_util.h"
#include "model_build.h"
#include "npy.h"
#include "onnx.h"
#include "program_test_util.h"

namespace {

using namespace orva_test;
using orvacli::ConvertError;

// ---- the wire format, written ----
struct Pb {
  std::string b;
  void put(uint64_t v) {
    for (; v >= 0x80; v >>= 7) b += (char)(v | 0x80);
    b += (char)v;
  }
  Pb& i(int field, int64_t v) {
    put((uint64_t)field << 3);
    put((uint64_t)v);
    return *this;
  }
  Pb& s(int field, const std::string& v) {
    put((uint64_t)field << 3 | 2);
    put(v.size());
    b += v;
    return *this;
  }
  Pb& f(int field, float v) {
    put((uint64_t)field << 3 | 5);
    b.append((const char*)&v, 4);
    return *this;
  }
};

using Floats = std::vector<double>;
using Ints = std::vector<int64_t>;

std::string tensor(const std::string& name, const Ints& dims, const Floats& v) {
  Pb t;
  for (int64_t d : dims) t.i(1, d);
  t.i(2, 1).s(8, name);
  std::string raw;
  for (double x : v) {
    const float f = (float)x;
    raw.append((const char*)&f, 4);
  }
  return t.s(9, raw).b;
}
// The filter "w" of 4 x 3 x 3 x 3 in an external-data file "absent.bin".
std::string external_filter() {
  return Pb().i(1, 4).i(1, 3).i(1, 3).i(1, 3).i(2, 1).s(8, "w")
      .s(13, Pb().s(1, "location").s(2, "absent.bin").b).i(14, 1).b;
}
std::string attr(const std::string& name, int64_t v) { return Pb().s(1, name).i(3, v).i(20, 2).b; }
std::string attr(const std::string& name, float v) { return Pb().s(1, name).f(2, v).i(20, 1).b; }
std::string attr(const std::string& name, const Ints& v) {
  Pb a;
  a.s(1, name);
  for (int64_t x : v) a.i(8, x);
  return a.i(20, 7).b;
}
std::string attr(const std::string& name, const std::string& v) { return Pb().s(1, name).s(4, v).i(20, 3).b; }
std::string node(const std::string& op, const std::vector<std::string>& in, const std::string& out,
                 const std::vector<std::string>& attrs = {}) {
  Pb n;
  for (const std::string& i : in) n.s(1, i);
  n.s(2, out).s(3, out).s(4, op);
  for (const std::string& a : attrs) n.s(5, a);
  return n.b;
}
std::string value_info(const std::string& name, const Ints& dims) {
  Pb shape;
  for (int64_t d : dims) shape.s(1, Pb().i(1, d).b);
  return Pb().s(1, name).s(2, Pb().s(1, Pb().i(1, 1).s(2, shape.b).b).b).b;
}
struct Graph {
  std::vector<std::string> nodes, inits;
  Ints in_dims;
  std::vector<std::string> more_inputs;
  std::string out = "y";
  int opset = 13;
  std::string bytes() const {
    Pb g;
    for (const std::string& n : nodes) g.s(1, n);
    g.s(2, "g");
    for (const std::string& t : inits) g.s(5, t);
    g.s(11, value_info("x", in_dims));
    for (const std::string& i : more_inputs) g.s(11, value_info(i, in_dims));
    g.s(12, value_info(out, {}));
    return Pb().i(1, 7).s(8, Pb().s(1, "").i(2, opset).b).s(7, g.b).b;
  }
};

using graph_ref::T;
using graph_ref::map;
using graph_ref::sigmoid;

Floats randoms(size_t n, double lo = -1, double hi = 1) {
  const std::vector<float> f = random_floats(n, (float)lo, (float)hi);
  return Floats(f.begin(), f.end());
}

// Converts, builds on the host and runs one sample.
std::vector<float> run_engine(const Graph& graph, const T& x, ORVA::Network& net) {
  const orvacli::ConvertedModel m = orvacli::onnxToEngine(graph.bytes(), "m.onnx", nullptr);
  const std::string path = temp_path("onnx_import.orva");
  orvacli::writeModel(m, path);
  net.load(path.c_str());
  std::vector<float> in(x.v.begin(), x.v.end());
  const float* y = net.predict(in.data(), 1);
  return std::vector<float>(y, y + net.getOutputs());
}

void expect_near(const std::vector<float>& got, const Floats& want) {
  ASSERT_EQ(got.size(), want.size());
  double scale = 0;
  for (double v : want) scale = std::max(scale, std::fabs(v));
  for (size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(got[i], want[i], 1e-2 * (std::fabs(want[i]) + scale)) << i;
}

// A classifier: an asymmetrically padded strided convolution with batch normalisation
// folded in, a ReLU, a max pool, a grouped dilated convolution, a leaky ReLU of slope 0.2
// (a per-channel slope layer), a global mean, a fully connected layer from a transposed
// matrix with alpha and beta, a softmax.
TEST(OnnxImport, ClassifierMatchesItsGraph) {
  const Floats w1 = randoms(8 * 3 * 9), b1 = randoms(8), sc = randoms(8, 0.5, 1.5),
               bb = randoms(8), mean = randoms(8), var = randoms(8, 0.2, 2),
               w2 = randoms(8 * 4 * 9), w3 = randoms(5 * 8, -4, 4), b3 = randoms(5);
  Graph g;
  g.in_dims = {1, 3, 17, 17};
  g.nodes = {node("Conv", {"x", "w1", "b1"}, "c1", {attr("pads", Ints{0, 0, 1, 1}), attr("strides", Ints{2, 2})}),
             node("BatchNormalization", {"c1", "sc", "bb", "mean", "var"}, "bn", {attr("epsilon", 1e-3f)}),
             node("Relu", {"bn"}, "r"),
             node("MaxPool", {"r"}, "mp", {attr("kernel_shape", Ints{2, 2}), attr("strides", Ints{2, 2})}),
             node("Conv", {"mp", "w2"}, "c2", {attr("group", (int64_t)2), attr("pads", Ints{2, 2, 2, 2}),
                                               attr("dilations", Ints{2, 2}), attr("kernel_shape", Ints{3, 3})}),
             node("LeakyRelu", {"c2"}, "lr", {attr("alpha", 0.2f)}),
             node("GlobalAveragePool", {"lr"}, "gap"),
             node("Flatten", {"gap"}, "fl"),
             node("Gemm", {"fl", "w3", "b3"}, "fc", {attr("transB", (int64_t)1), attr("alpha", 0.5f), attr("beta", 2.f)}),
             node("Softmax", {"fc"}, "y")};
  g.inits = {tensor("w1", {8, 3, 3, 3}, w1), tensor("b1", {8}, b1),     tensor("sc", {8}, sc),
             tensor("bb", {8}, bb),          tensor("mean", {8}, mean), tensor("var", {8}, var),
             tensor("w2", {8, 4, 3, 3}, w2), tensor("w3", {5, 8}, w3),  tensor("b3", {5}, b3)};
  T x{3, 17, 17, randoms(3 * 17 * 17)};

  const int p1[4] = {0, 0, 1, 1}, p2[4] = {2, 2, 2, 2};
  T y = graph_ref::conv(x, w1, b1, 8, 3, 2, p1);
  for (size_t i = 0; i < y.v.size(); ++i) {
    const size_t c = i / y.plane();
    y.v[i] = std::max(0.0, sc[c] * (y.v[i] - mean[c]) / std::sqrt(var[c] + 1e-3) + bb[c]);
  }
  T pooled{8, y.h / 2, y.w / 2, {}};
  pooled.v.resize((size_t)8 * pooled.h * pooled.w);
  for (int c = 0; c < 8; ++c)
    for (int yy = 0; yy < pooled.h; ++yy)
      for (int xx = 0; xx < pooled.w; ++xx)
        pooled.at(c, yy, xx) = std::max(std::max(y.at(c, 2 * yy, 2 * xx), y.at(c, 2 * yy, 2 * xx + 1)),
                                        std::max(y.at(c, 2 * yy + 1, 2 * xx), y.at(c, 2 * yy + 1, 2 * xx + 1)));
  T z = map(graph_ref::conv(pooled, w2, {}, 8, 3, 1, p2, 2, 2), [](double v) { return v > 0 ? v : 0.2 * v; });
  const Floats gap = graph_ref::channel_mean(z).v;
  Floats fc(5), want(5);
  double total = 0;
  for (int o = 0; o < 5; ++o) {
    fc[o] = 2 * b3[o];
    for (int i = 0; i < 8; ++i) fc[o] += 0.5 * w3[o * 8 + i] * gap[i];
  }
  const double top = *std::max_element(fc.begin(), fc.end());
  for (int o = 0; o < 5; ++o) total += want[o] = std::exp(fc[o] - top);
  for (double& v : want) v /= total;

  ORVA::Network net(ORVA::TEST, 1, -1);
  expect_near(run_engine(g, x, net), want);
  // The grouped convolution's output after its slope layer (the fourth layer): the global
  // mean that follows would hide a map shifted by one pixel.
  ASSERT_EQ(net.getLayerCount(), 7);
  expect_near(to_floats(layer_output(net, 3, 1)), z.v);
}

// The branches of a feature pyramid: zeros padded before a convolution, a split of the
// channels, a sum of two maps, channel attention from a sigmoid of
// the global mean, a concatenation, nearest enlargement, x * sigmoid(x), depth to space and
// a bilinear resize with half-pixel centres.
TEST(OnnxImport, BranchesMatchTheirGraph) {
  const Floats wa = randoms(8 * 2 * 9), wb = randoms(8 * 8);
  Graph g;
  g.in_dims = {1, 2, 6, 6};
  g.opset = 11;
  Pb split;  // two outputs, halves of the channels
  split.s(1, "a").s(2, "a0").s(2, "a1").s(3, "split").s(4, "Split").s(5, attr("axis", (int64_t)1));
  const std::string split_node = split.b;
  g.nodes = {node("Pad", {"x", "pads"}, "xp"),
             node("Conv", {"xp", "wa"}, "a"),
             split_node,
             node("Conv", {"a", "wb"}, "b"),
             node("Add", {"a", "b"}, "s"),
             node("GlobalAveragePool", {"s"}, "m"),
             node("Sigmoid", {"m"}, "f"),
             node("Mul", {"s", "f"}, "att"),
             node("Concat", {"att", "a1", "a0"}, "cat", {attr("axis", (int64_t)1)}),
             node("Resize", {"cat", "", "up_scales"}, "up", {attr("mode", std::string("nearest"))}),
             node("Sigmoid", {"up"}, "sg"),
             node("Mul", {"up", "sg"}, "sw"),
             node("DepthToSpace", {"sw"}, "d2s", {attr("blocksize", (int64_t)2)}),
             node("Resize", {"d2s", "", "", "sizes"}, "y", {attr("mode", std::string("linear"))})};
  g.inits = {tensor("pads", {8}, {0, 0, 1, 1, 0, 0, 1, 1}), tensor("wa", {8, 2, 3, 3}, wa), tensor("wb", {8, 8, 1, 1}, wb), tensor("up_scales", {4}, {1, 1, 2, 2}),
             tensor("sizes", {4}, {1, 4, 20, 30})};
  T x{2, 6, 6, randoms(2 * 6 * 6)};

  const int p1[4] = {1, 1, 1, 1}, p0[4] = {0, 0, 0, 0};
  const T a = graph_ref::conv(x, wa, {}, 8, 3, 1, p1), s = graph_ref::broadcast(a, graph_ref::conv(a, wb, {}, 8, 1, 1, p0), false);
  const T att = graph_ref::broadcast(s, map(graph_ref::channel_mean(s), sigmoid), true);
  const T cat = graph_ref::concat({att, a.channels(4, 8), a.channels(0, 4)});
  T up{16, 12, 12, Floats(16 * 144)};
  for (int c = 0; c < 16; ++c)
    for (int yy = 0; yy < 12; ++yy)
      for (int xx = 0; xx < 12; ++xx) up.at(c, yy, xx) = cat.get(c, yy / 2, xx / 2) * sigmoid(cat.get(c, yy / 2, xx / 2));
  T d{4, 24, 24, Floats(4 * 576)};
  for (int c = 0; c < 4; ++c)
    for (int yy = 0; yy < 24; ++yy)
      for (int xx = 0; xx < 24; ++xx) d.at(c, yy, xx) = up.at(((yy % 2) * 2 + xx % 2) * 4 + c, yy / 2, xx / 2);
  ORVA::Network net(ORVA::TEST, 1, -1);
  expect_near(run_engine(g, x, net), graph_ref::resize_bilinear(d, 20, 30, false, true).v);
}

// What a user's file can hold that the importer must refuse with a line naming the problem.
TEST(OnnxImport, RefusesFaultyModels) {
  const std::string w = tensor("w", {4, 3, 3, 3}, Floats(108, 0.5));
  Graph good;
  good.in_dims = {1, 3, 8, 8};
  good.nodes = {node("Conv", {"x", "w"}, "c"), node("Relu", {"c"}, "y")};
  good.inits = {w};
  ASSERT_NO_THROW(orvacli::onnxToEngine(good.bytes(), "m.onnx", nullptr));

  struct Case {
    const char* name;
    std::function<std::string()> bytes;
    const char* want;
  };
  auto with = [&](std::function<void(Graph&)> edit) {
    return [=] {
      Graph g = good;
      edit(g);
      return g.bytes();
    };
  };
  const std::string external_tensor = external_filter();
  const Case cases[] = {
      {"truncated", [&] { const std::string b = good.bytes(); return b.substr(0, b.size() - 7); }, "past the end"},
      {"garbage", [] { return std::string("\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff", 11); }, "malformed model"},
      {"empty", [] { return std::string(); }, "not an ONNX model"},
      {"cycle", with([](Graph& g) { g.nodes = {node("Relu", {"y"}, "c"), node("Relu", {"c"}, "y")}; }), "cycle"},
      {"dangling", with([](Graph& g) { g.nodes[1] = node("Relu", {"nowhere"}, "y"); }),
       "input 'nowhere' is made by no node"},
      {"size vs shape", with([](Graph& g) { g.inits = {tensor("w", {4, 3, 3, 3}, Floats(100, 0.5))}; }),
       "400 data bytes for 108 elements"},
      {"external data", with([&](Graph& g) { g.inits = {external_tensor}; }), "where none can be read"},
      {"unknown op", with([](Graph& g) { g.nodes[1] = node("Softplus", {"c"}, "y"); }),
       "m.onnx: node 'y' (Softplus): the engine has no layer for this operation"},
      {"attribute", with([](Graph& g) { g.nodes[1] = node("Elu", {"c"}, "y", {attr("alpha", 2.f)}); }),
       "node 'y' (Elu): alpha other than 1"},
      {"two inputs", with([](Graph& g) { g.more_inputs = {"x2"}; }), "2 inputs besides its initializers"},
      {"opset", with([](Graph& g) { g.opset = 18; }), "opset 18"},
      {"made twice", with([](Graph& g) { g.nodes.push_back(node("Relu", {"c"}, "y")); }), "also made elsewhere"},
      {"rectangular pool",
       with([](Graph& g) { g.nodes[1] = node("MaxPool", {"c"}, "y", {attr("kernel_shape", Ints{2, 3})}); }),
       "the engine's windows are square"},
  };
  for (const Case& c : cases) {
    try {
      orvacli::onnxToEngine(c.bytes(), "m.onnx", nullptr);
      ADD_FAILURE() << c.name << ": accepted";
    } catch (const ConvertError& e) {
      EXPECT_NE(std::string(e.what()).find(c.want), std::string::npos) << c.name << ": " << e.what();
    }
  }
}

// convert --onnx, then run on a batch of two from .npy, the output and one layer's output
// against the engine's own predict; faulty files get one line and status 1.
TEST(OnnxImport, ConvertAndRunThroughTheProgram) {
  Graph g;
  g.in_dims = {2, 3, 5, 5};
  g.nodes = {node("Conv", {"x", "w"}, "c", {attr("pads", Ints{1, 1, 1, 1})}), node("Sigmoid", {"c"}, "y")};
  g.inits = {tensor("w", {4, 3, 3, 3}, randoms(108))};
  const std::string onnx_path = temp_path("run_test.onnx"), model = temp_path("run_test.orva");
  write_file(onnx_path, g.bytes());
  ASSERT_EQ(run("convert --onnx " + onnx_path + " -o " + model).status, 0);

  orvacli::NpyArray in;
  in.shape = {2, 3, 5, 5};
  for (double v : randoms(150)) in.values.push_back((float)v);
  write_file(temp_path("in.npy"), orvacli::npyBytes(in));
  ORVA::Network net(ORVA::TEST, 2, -1);
  net.load(model.c_str());
  const float* want = net.predict(in.values.data(), 2);
  for (const char* layer : {"", " --layer 0"}) {
    const ProgramRun r = run("run -m " + model + " --gpu -1 --input " + temp_path("in.npy") + " -o " +
                                 temp_path("out.npy") + layer);
    ASSERT_EQ(r.status, 0) << r.err;
    const orvacli::NpyArray out = orvacli::readNpy(temp_path("out.npy"));
    EXPECT_EQ(out.shape, (std::vector<int64_t>{2, 4, 5, 5}));
    ASSERT_EQ(out.values.size(), 200u);
    // Layer 0 holds the convolution with its logistic activation folded in: the same values.
    for (size_t i = 0; i < out.values.size(); ++i) EXPECT_FLOAT_EQ(out.values[i], want[i]) << layer << " " << i;
  }

  // Faults of the files only the program reads: a filter in an external file that is not
  // there, and .npy inputs of the wrong type, length or shape.
  Graph ext = g;
  ext.inits = {external_filter()};
  write_file(temp_path("ext.onnx"), ext.bytes());
  std::string f8 = orvacli::npyBytes(in);
  write_file(temp_path("f8.npy"), f8.replace(f8.find("<f4"), 3, "<f8"));
  write_file(temp_path("short.npy"), orvacli::npyBytes(in).substr(0, 300));
  in.shape = {3, 50};
  write_file(temp_path("wrong.npy"), orvacli::npyBytes(in));
  const std::string bad = temp_path("bad.orva"), runs = "run -m " + model + " --gpu -1 --input " + temp_path("");
  const std::pair<std::string, const char*> faults[] = {
      {"convert --onnx " + temp_path("ext.onnx") + " -o " + bad, "absent.bin can't be opened"},
      {runs + "f8.npy", "not float32"},
      {runs + "short.npy", "data bytes for shape"},
      {runs + "wrong.npy", "50 values per sample"},
      {runs + "in.npy --layer 9", "has layers 0..0"},
  };
  for (const auto& f : faults) {
    const ProgramRun r = run(f.first);
    EXPECT_EQ(r.status, 1) << f.first;
    EXPECT_NE(r.err.find(f.second), std::string::npos) << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(bad));
}

}  // namespace
