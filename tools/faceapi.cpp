#include "faceapi.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;
using nlohmann::json;

namespace orvacli {

const float kFaceMean[3] = {117.001f, 114.697f, 97.404f};
const float kFaceAnchors[10] = {1.603231f, 2.094468f, 6.041143f, 7.080126f, 2.882459f,
                                3.518061f, 4.266906f, 5.178857f, 9.041765f, 10.66308f};

namespace {

class FaceBuilder {
 public:
  FaceBuilder(const std::vector<NamedTensor>& tensors, const std::string& source) : _source(source) {
    for (const NamedTensor& t : tensors) _by_name[t.name] = &t;
  }

  const NamedTensor& get(const std::string& name, std::vector<int> shape) {
    auto it = _by_name.find(name);
    if (it == _by_name.end()) throw ConvertError(_source + ": no tensor '" + name + "'");
    if (it->second->shape != shape) {
      std::string want, have;
      for (int d : shape) want += (want.empty() ? "" : ",") + std::to_string(d);
      for (int d : it->second->shape) have += (have.empty() ? "" : ",") + std::to_string(d);
      throw ConvertError(_source + ": tensor '" + name + "' has shape [" + have + "], expected [" + want + "]");
    }
    return *it->second;
  }
  // Channels of a tensor's dimension, checked for presence only.
  int dim(const std::string& name, size_t axis) {
    auto it = _by_name.find(name);
    if (it == _by_name.end()) throw ConvertError(_source + ": no tensor '" + name + "'");
    if (axis >= it->second->shape.size())
      throw ConvertError(_source + ": tensor '" + name + "' has too few dimensions");
    return it->second->shape[axis];
  }

  void section(const std::string& text, const std::string& origin, LayerShape s) {
    _cfg << text << "\n";
    _m.origin.push_back(origin);
    _m.shapes.push_back(s);
  }
  std::vector<float>& weights() { return _m.weights; }
  ConvertedModel finish(const std::string& header) {
    _m.cfg = header + _cfg.str();
    return std::move(_m);
  }

 private:
  std::string _source;
  std::map<std::string, const NamedTensor*> _by_name;
  std::ostringstream _cfg;
  ConvertedModel _m;
};

// TensorFlow's filters are [kh, kw, in, out]; the engine's are [out][in][kh][kw].
void append_filters(std::vector<float>& w, const NamedTensor& t) {
  const int kh = t.shape[0], kw = t.shape[1], ci = t.shape[2], co = t.shape[3];
  for (int f = 0; f < co; ++f)
    for (int c = 0; c < ci; ++c)
      for (int y = 0; y < kh; ++y)
        for (int x = 0; x < kw; ++x) w.push_back(t.values[(((size_t)y * kw + x) * ci + c) * co + f]);
}

// 2 x 2 max pooling that pads on the right and bottom when the size is odd.
int pooled(int size, int stride) { return (size + stride - 1) / stride; }

}  // namespace

ConvertedModel tinyFaceDetector(const std::vector<NamedTensor>& tensors, int S, const std::string& source) {
  // The first convolution takes no border, so S - 2 pixels reach the first pool. The engine's
  // pools pad symmetrically while the original pads right and bottom; only sizes that stay
  // even down to the last 2 x 2 / 2 pool keep the two identical.
  if (S < 34 || (S - 2) % 32 != 0)
    throw ConvertError("input size " + std::to_string(S) +
                       ": the detector is reproduced exactly for sizes of 32 n + 2 pixels (418, 322, 610 ...)");
  FaceBuilder b(tensors, source);
  const int c0 = b.dim("conv0/filters", 3);
  const NamedTensor& f0 = b.get("conv0/filters", {3, 3, 3, c0});
  const NamedTensor& b0 = b.get("conv0/bias", {c0});
  std::vector<float>& w = b.weights();

  // The mean is subtracted before the first convolution; without a border every output
  // sees only real pixels, so moving it into the bias is exact. The engine's input planes
  // are red, green, blue in 0..1, as the original's after its scaling by 1/255.
  for (int f = 0; f < c0; ++f) {
    double bias = b0.values[f];
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 3; ++x)
        for (int c = 0; c < 3; ++c) bias -= f0.values[((y * 3 + x) * 3 + c) * c0 + f] * (kFaceMean[c] / 255.0);
    w.push_back((float)bias);
  }
  append_filters(w, f0);
  int s = S - 2, c = c0;
  char text[256];
  snprintf(text, sizeof text, "[convolution]\nfilters=%d\nsize=3\nstride=1\npad=0\nactivation=leaky\n", c0);
  b.section(text, "conv0", {s, s, c});
  s = pooled(s, 2);
  b.section("[maxpool]\nsize=2\nstride=2\n", "pool after conv0", {s, s, c});

  for (int k = 1; k <= 5; ++k) {
    const std::string p = "conv" + std::to_string(k);
    const NamedTensor& dw = b.get(p + "/depthwise_filter", {3, 3, c, 1});
    const int co = b.dim(p + "/pointwise_filter", 3);
    const NamedTensor& pw = b.get(p + "/pointwise_filter", {1, 1, c, co});
    const NamedTensor& pb = b.get(p + "/bias", {co});
    // Depthwise: one group per channel, no bias (nothing applies a bias without activation).
    w.insert(w.end(), c, 0.f);
    for (int f = 0; f < c; ++f)
      for (int i = 0; i < 9; ++i) w.push_back(dw.values[(size_t)i * c + f]);
    snprintf(text, sizeof text, "[convolution]\nfilters=%d\nsize=3\nstride=1\npad=1\ngroups=%d\n", c, c);
    b.section(text, p + " depthwise", {s, s, c});
    w.insert(w.end(), pb.values.begin(), pb.values.end());
    append_filters(w, pw);
    snprintf(text, sizeof text, "[convolution]\nfilters=%d\nsize=1\nstride=1\nactivation=leaky\n", co);
    c = co;
    b.section(text, p + " pointwise", {s, s, c});
    const int stride = k < 5 ? 2 : 1;
    s = pooled(s, stride);
    snprintf(text, sizeof text, "[maxpool]\nsize=2\nstride=%d\npad=0\n", stride);
    b.section(text, "pool after " + p, {s, s, c});
  }

  // Head: per anchor x, y, w, h, objectness and one class score. The original has no class
  // score; a filter with zero weights and bias 1 makes the score exactly 1, so the detect
  // network's class score x objectness is the objectness alone.
  const int anchors = 5, entries = 5;
  const NamedTensor& f8 = b.get("conv8/filters", {1, 1, c, anchors * entries});
  const NamedTensor& b8 = b.get("conv8/bias", {anchors * entries});
  for (int a = 0; a < anchors; ++a) {
    for (int e = 0; e < entries; ++e) w.push_back(b8.values[a * entries + e]);
    w.push_back(1.f);
  }
  for (int a = 0; a < anchors; ++a) {
    for (int e = 0; e < entries; ++e)
      for (int i = 0; i < c; ++i) w.push_back(f8.values[(size_t)i * anchors * entries + a * entries + e]);
    w.insert(w.end(), c, 0.f);
  }
  // "linear" rather than no activation: only an activation step applies the bias.
  snprintf(text, sizeof text, "[convolution]\nfilters=%d\nsize=1\nstride=1\nactivation=linear\n",
           anchors * (entries + 1));
  b.section(text, "conv8", {s, s, anchors * (entries + 1)});
  std::string anchor_list;
  for (int i = 0; i < 2 * anchors; ++i) {
    snprintf(text, sizeof text, "%s%g", i ? ", " : "", kFaceAnchors[i]);
    anchor_list += text;
  }
  b.section("[region]\nclasses=1\ncoords=4\nnum=5\nsoftmax=0\nanchors=" + anchor_list + "\n", "head",
            {s, s, anchors * (entries + 1)});

  snprintf(text, sizeof text,
           "# Tiny face detector (face-api), converted by orva convert. Input RGB; the mean colour\n"
           "# (%g, %g, %g) is folded into the first convolution's bias.\n"
           "[network]\nwidth=%d\nheight=%d\nchannels=3\n\n",
           kFaceMean[0], kFaceMean[1], kFaceMean[2], S, S);
  ConvertedModel m = b.finish(text);
  m.names = {"face"};
  return m;
}

}  // namespace orvacli
