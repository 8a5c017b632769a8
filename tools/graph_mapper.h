// The half of a graph importer that the graph formats share: it lays the engine's layers out
// one after another, keeps their shapes, description text and weight records, and turns
// operations already understood by a reader (a convolution with OIHW filters, a sum of two
// maps, a concatenation, a pool, ...) into layers. The readers (TF.js, ONNX) decide what a
// node means; this decides how the engine says it.
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "model_build.h"

namespace orvacli {

// A feature map: the output of engine layer `layer` (-1: the network input), w x h x c.
struct MapValue {
  int layer = -1;
  int w = 0, h = 0, c = 0;
};

// A convolution as graph formats give it. Filters are OIHW: [out][in / groups][k][k].
struct ConvLayer {
  int out = 0, k = 1, stride = 1, dilation = 1, groups = 1;
  int pad_top = 0, pad_bottom = 0, pad_left = 0, pad_right = 0;
  std::vector<float> filters;
  std::vector<float> bias;  // empty: zeros
};

class GraphMapper {
 public:
  // `source` names the file in faults. Every `where` below names the node ("node 'n' (Op)"):
  // faults read "source: where: problem" and the layer keeps it as its origin.
  explicit GraphMapper(std::string source) : _src(std::move(source)) {}
  // The network input, w x h x c: layer -1.
  void setInput(int w, int h, int c) { _in_w = w, _in_h = h, _in_c = c; }

  int lastIndex() const { return (int)_layers.size() - 1; }
  int size() const { return (int)_layers.size(); }

  // Makes v the previous layer's output, with a one-source route when it is not.
  void last(const MapValue& v, const std::string& where);

  // The layers. Each takes its input(s), checks what the engine can express and throws
  // ConvertError otherwise.
  MapValue convolution(const MapValue& x, ConvLayer conv, const std::string& where);
  // Applies an activation: folded into the convolution computing x when `may_fold` (nothing
  // else reads x) and that convolution is still linear, a layer of its own otherwise.
  MapValue activation(const MapValue& x, const std::string& act, bool may_fold, const std::string& where);
  // A linear convolution or fconn that computes x and whose filters and bias may still change
  // (x is the previous layer and nothing else reads it): its output channels, filters and
  // bias. Null otherwise.
  struct Linear {
    int filters;
    std::vector<float>* weights;
    std::vector<float>* bias;
  };
  bool linearProducer(const MapValue& x, bool only_reader, Linear* out);
  // out = x * scale[c] + shift[c]: folded into the linear layer computing x when possible,
  // a 1 x 1 per-channel convolution otherwise.
  MapValue affine(const MapValue& x, const std::vector<float>& scale, const std::vector<float>& shift, bool may_fold,
                  const std::string& where);
  MapValue shortcut(const MapValue& a, const MapValue& b, const std::string& where);
  MapValue attention(const MapValue& features, const MapValue& factors, const std::string& where);
  MapValue route(const std::vector<MapValue>& parts, const std::string& where);
  // Slice `part` of `parts` equal runs of x's channels.
  MapValue channelSlice(const MapValue& x, int parts, int part, const std::string& where);
  // Windowed pools with the engine's windows; `centred` picks out = (in + 2 pad - k) / s + 1.
  MapValue maxpool(const MapValue& x, int k, int stride, int pad, bool centred, const std::string& where);
  MapValue avgpool(const MapValue& x, int k, int stride, int pad, const std::string& where);
  MapValue globalAvgpool(const MapValue& x, const std::string& where);
  MapValue globalMaxpool(const MapValue& x, const std::string& where);
  MapValue upsample(const MapValue& x, int stride, const std::string& where);
  // Bilinear; rule "" (d n / m), "align_corners" or "half_pixel".
  MapValue resize(const MapValue& x, int ow, int oh, const std::string& rule, const std::string& where);
  MapValue depthToSpace(const MapValue& x, int block, const std::string& where);
  // weights: [outputs][inputs] over x viewed as one vector.
  MapValue fconn(const MapValue& x, int outputs, std::vector<float> weights, std::vector<float> bias,
                 const std::string& where);
  MapValue softmax(const MapValue& x, int groups, const std::string& where);
  MapValue dynact(const MapValue& x, const std::vector<float>& slopes, const std::string& where);
  // A layer given by its section text and shape (for heads a reader builds itself).
  int raw(const std::string& text, const LayerShape& shape, const std::string& where);

  // The description (network section with the input, then the layers) and weights.
  ConvertedModel finish(const std::string& header_comment);

 private:
  struct Emitted {
    std::string text;  // section header and keys, without the activation line
    std::string act;   // activation of a convolution or fconn ("" for other layers)
    bool linear_op = false;
    int filters = 0;
    std::vector<float> bias, weights;
    LayerShape shape;
    std::string origin;
  };
  MapValue emit(Emitted e, const std::string& where);
  ConvertError fault(const std::string& where, const std::string& problem) const {
    return ConvertError(_src + ": " + where + ": " + problem);
  }

  std::string _src;
  int _in_w = 0, _in_h = 0, _in_c = 0;
  int _copy_of = -1;  // the layer the last layer copies (a one-source route), -1 if none
  std::vector<Emitted> _layers;
};

}  // namespace orvacli
