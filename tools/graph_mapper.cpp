#include "graph_mapper.h"

#include <sstream>

namespace orvacli {

namespace {

constexpr int64_t kMaxMapValues = int64_t(1) << 28;
constexpr int kMaxLayers = 4096;

std::string shape_text(int w, int h, int c) {
  return std::to_string(w) + " x " + std::to_string(h) + " x " + std::to_string(c);
}

}  // namespace

MapValue GraphMapper::emit(Emitted e, const std::string& where) {
  // The engine's own bounds, checked here so a hostile file can't ask for more memory first.
  if ((int64_t)e.shape.w * e.shape.h * e.shape.c > kMaxMapValues || e.shape.w < 1 || e.shape.h < 1 || e.shape.c < 1)
    throw fault(where, "an output of " + shape_text(e.shape.w, e.shape.h, e.shape.c) + " (empty, or more than " +
                           std::to_string(kMaxMapValues) + " values)");
  if (size() >= kMaxLayers) throw fault(where, "more than " + std::to_string(kMaxLayers) + " layers");
  e.origin = where;
  _copy_of = -1;
  MapValue v;
  v.w = e.shape.w;
  v.h = e.shape.h;
  v.c = e.shape.c;
  _layers.push_back(std::move(e));
  v.layer = lastIndex();
  return v;
}

int GraphMapper::raw(const std::string& text, const LayerShape& shape, const std::string& where) {
  Emitted e;
  e.text = text;
  e.shape = shape;
  return emit(std::move(e), where).layer;
}

void GraphMapper::last(const MapValue& v, const std::string& where) {
  if (v.layer == lastIndex() || (v.layer == _copy_of && v.layer >= 0)) return;
  if (v.layer < 0) throw fault(where, "the network input is read by more than one layer");
  Emitted e;
  e.text = "[route]\nlayers=" + std::to_string(v.layer) + "\n";
  e.shape = {v.w, v.h, v.c};
  emit(std::move(e), where + " reading an earlier layer");
  _copy_of = v.layer;
}

MapValue GraphMapper::convolution(const MapValue& x, ConvLayer s, const std::string& where) {
  if (s.out < 1 || s.k < 1 || s.stride < 1 || s.dilation < 1 || s.groups < 1) throw fault(where, "empty filter or stride");
  if (x.c % s.groups || s.out % s.groups)
    throw fault(where, std::to_string(s.groups) + " groups do not divide " + std::to_string(x.c) + " input and " +
                           std::to_string(s.out) + " output channels");
  const int per_group = x.c / s.groups;
  if (s.filters.size() != (size_t)s.out * per_group * s.k * s.k)
    throw fault(where, "the filter holds " + std::to_string(s.filters.size()) + " values, not " +
                           std::to_string((size_t)s.out * per_group * s.k * s.k));
  if (!s.bias.empty() && s.bias.size() != (size_t)s.out)
    throw fault(where, "the bias holds " + std::to_string(s.bias.size()) + " values for " + std::to_string(s.out) +
                           " filters");
  const int pt = s.pad_top, pb = s.pad_bottom, pl = s.pad_left, pr = s.pad_right;
  if (pt < 0 || pb < 0 || pl < 0 || pr < 0 || pt > 1024 || pb > 1024) throw fault(where, "padding out of range 0..1024");
  if (pt != pl || pb != pr) throw fault(where, "different borders across and down");
  // The engine pads every side alike. One more row and column on one side is reached by a
  // kernel one larger with a zero first (or last) row and column, placed so each output
  // reads the same inputs.
  int K = s.k, off = 0, p = pt;
  if (pb == pt + 1 && s.dilation == 1) {
    K = s.k + 1, off = 1, p = pb;
  } else if (pt == pb + 1 && s.dilation == 1) {
    K = s.k + 1, off = 0, p = pt;
  } else if (pt != pb) {
    throw fault(where, "borders " + std::to_string(pt) + " and " + std::to_string(pb) + " differ" +
                           (s.dilation > 1 ? " in a dilated convolution" : " by more than one"));
  }
  const int extent = s.dilation * (s.k - 1) + 1;
  if (x.h + pt + pb < extent || x.w + pl + pr < extent) throw fault(where, "the filter is larger than the padded input");
  const int oh = (x.h + pt + pb - extent) / s.stride + 1, ow = (x.w + pl + pr - extent) / s.stride + 1;

  Emitted e;
  e.linear_op = true;
  e.act = "linear";
  e.filters = s.out;
  e.bias = s.bias.empty() ? std::vector<float>(s.out, 0.f) : std::move(s.bias);
  if (K == s.k) {
    e.weights = std::move(s.filters);
  } else {
    e.weights.assign((size_t)s.out * per_group * K * K, 0.f);
    for (size_t fc = 0; fc < (size_t)s.out * per_group; ++fc)
      for (int ky = 0; ky < s.k; ++ky)
        for (int kx = 0; kx < s.k; ++kx)
          e.weights[(fc * K + ky + off) * K + kx + off] = s.filters[(fc * s.k + ky) * s.k + kx];
  }
  last(x, where);
  std::ostringstream t;
  t << "[convolution]\nfilters=" << s.out << "\nsize=" << K << "\nstride=" << s.stride << "\npad=" << p << "\n";
  if (s.groups > 1) t << "groups=" << s.groups << "\n";
  if (s.dilation > 1) t << "dilation=" << s.dilation << "\n";
  e.text = t.str();
  e.shape = {ow, oh, s.out};
  return emit(std::move(e), where);
}

MapValue GraphMapper::activation(const MapValue& x, const std::string& act, bool may_fold, const std::string& where) {
  last(x, where);
  if (may_fold && x.layer >= 0) {
    Emitted& prev = _layers.back();
    if (prev.linear_op && prev.act == "linear") {
      prev.act = act;
      return x;
    }
  }
  Emitted e;
  e.text = "[activation]\nactivation=" + act + "\n";
  e.shape = {x.w, x.h, x.c};
  return emit(std::move(e), where);
}

bool GraphMapper::linearProducer(const MapValue& x, bool only_reader, Linear* out) {
  if (!only_reader || x.layer < 0 || x.layer != lastIndex()) return false;
  Emitted& e = _layers.back();
  if (!e.linear_op || e.act != "linear") return false;
  *out = {e.filters, &e.weights, &e.bias};
  return true;
}

MapValue GraphMapper::affine(const MapValue& x, const std::vector<float>& scale, const std::vector<float>& shift,
                             bool may_fold, const std::string& where) {
  if (scale.size() != (size_t)x.c || shift.size() != (size_t)x.c)
    throw fault(where, "per-channel factors for " + std::to_string(scale.size()) + " channels on a map of " +
                           std::to_string(x.c));
  Linear l;
  if (linearProducer(x, may_fold, &l) && l.filters == x.c) {
    const size_t per = l.weights->size() / l.filters;
    for (int f = 0; f < l.filters; ++f) {
      (*l.bias)[f] = (*l.bias)[f] * scale[f] + shift[f];
      for (size_t i = 0; i < per; ++i) (*l.weights)[f * per + i] *= scale[f];
    }
    return x;
  }
  ConvLayer s;
  s.out = x.c;
  s.groups = x.c;
  s.filters = scale;
  s.bias = shift;
  return convolution(x, std::move(s), where);
}

MapValue GraphMapper::shortcut(const MapValue& a, const MapValue& b, const std::string& where) {
  if (a.w != b.w || a.h != b.h || a.c != b.c)
    throw fault(where, "a sum of maps of different shapes (" + shape_text(a.w, a.h, a.c) + " and " +
                           shape_text(b.w, b.h, b.c) + ")");
  const MapValue* from = &b;
  if (b.layer == lastIndex() && b.layer >= 0) {
    from = &a;
  } else {
    last(a, where);
  }
  if (from->layer < 0) throw fault(where, "the network input can't be added to");
  Emitted e;
  e.text = "[shortcut]\nfrom=" + std::to_string(from->layer) + "\n";
  e.shape = {a.w, a.h, a.c};
  return emit(std::move(e), where);
}

MapValue GraphMapper::attention(const MapValue& features, const MapValue& factors, const std::string& where) {
  if (factors.w != 1 || factors.h != 1 || factors.c != features.c)
    throw fault(where, "only a map times one factor per channel (squeeze and excitation) is supported");
  last(factors, where);
  if (features.layer < 0) throw fault(where, "the network input can't be scaled");
  Emitted e;
  e.text = "[attention]\nfrom=" + std::to_string(features.layer) + "\n";
  e.shape = {features.w, features.h, features.c};
  return emit(std::move(e), where);
}

MapValue GraphMapper::route(const std::vector<MapValue>& parts, const std::string& where) {
  if (parts.empty()) throw fault(where, "nothing to concatenate");
  std::string layers;
  int c = 0;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (parts[i].layer < 0) throw fault(where, "the network input can't be concatenated");
    if (parts[i].w != parts[0].w || parts[i].h != parts[0].h) throw fault(where, "maps of different sizes");
    c += parts[i].c;
    layers += (i ? "," : "") + std::to_string(parts[i].layer);
  }
  Emitted e;
  e.text = "[route]\nlayers=" + layers + "\n";
  e.shape = {parts[0].w, parts[0].h, c};
  return emit(std::move(e), where);
}

MapValue GraphMapper::channelSlice(const MapValue& x, int parts, int part, const std::string& where) {
  if (x.layer < 0) throw fault(where, "the network input can't be split");
  if (parts < 1 || parts > 1024 || x.c % parts || part < 0 || part >= parts)
    throw fault(where, std::to_string(x.c) + " channels in " + std::to_string(parts) + " equal parts");
  Emitted e;
  e.text = "[route]\nlayers=" + std::to_string(x.layer) + "\ngroups=" + std::to_string(parts) + "\ngroup_id=" +
           std::to_string(part) + "\n";
  e.shape = {x.w, x.h, x.c / parts};
  return emit(std::move(e), where);
}

MapValue GraphMapper::maxpool(const MapValue& x, int k, int stride, int pad, bool centred, const std::string& where) {
  if (k < 1 || stride < 1 || pad < 0 || k > 1024 || stride > 1024) throw fault(where, "window or stride out of range");
  if (centred && pad >= k) throw fault(where, "a border as wide as the window");
  const int ow = centred ? (x.w + 2 * pad - k) / stride + 1 : (x.w + 2 * pad) / stride;
  const int oh = centred ? (x.h + 2 * pad - k) / stride + 1 : (x.h + 2 * pad) / stride;
  if (x.w + 2 * pad < k || x.h + 2 * pad < k) throw fault(where, "the window is larger than the padded input");
  last(x, where);
  Emitted e;
  e.text = "[maxpool]\nsize=" + std::to_string(k) + "\nstride=" + std::to_string(stride) + "\npad=" +
           std::to_string(pad) + "\n" + (centred ? "centred=1\n" : "");
  e.shape = {ow, oh, x.c};
  return emit(std::move(e), where);
}

MapValue GraphMapper::avgpool(const MapValue& x, int k, int stride, int pad, const std::string& where) {
  if (k < 1 || stride < 1 || pad < 0 || k > 1024 || stride > 1024) throw fault(where, "window or stride out of range");
  if (x.w + 2 * pad < k || x.h + 2 * pad < k) throw fault(where, "the window is larger than the padded input");
  last(x, where);
  Emitted e;
  e.text = "[avgpool]\nsize=" + std::to_string(k) + "\nstride=" + std::to_string(stride) + "\npad=" +
           std::to_string(pad) + "\n";
  e.shape = {(x.w + 2 * pad) / stride, (x.h + 2 * pad) / stride, x.c};
  return emit(std::move(e), where);
}

// A square plane's mean as a per-channel convolution over the whole plane: its products are
// summed in float, where a long sum in half would lose the small terms. Other planes (and
// maps too large for a filter of their own size) go to the global avgpool.
MapValue GraphMapper::globalAvgpool(const MapValue& x, const std::string& where) {
  if (x.w != x.h || (int64_t)x.w * x.h * x.c > (1 << 22)) {
    last(x, where);
    Emitted e;
    e.text = "[avgpool]\nsize=0\n";
    e.shape = {1, 1, x.c};
    return emit(std::move(e), where);
  }
  ConvLayer s;
  s.out = x.c;
  s.groups = x.c;
  s.k = s.stride = x.w;
  s.filters.assign((size_t)x.c * x.w * x.h, 1.f / ((float)x.w * x.h));
  return convolution(x, std::move(s), where);
}

MapValue GraphMapper::globalMaxpool(const MapValue& x, const std::string& where) {
  if (x.w != x.h) throw fault(where, "the maximum of a plane that is not square");
  return maxpool(x, x.w, x.w, 0, false, where);
}

MapValue GraphMapper::upsample(const MapValue& x, int stride, const std::string& where) {
  if (stride < 1 || stride > 64) throw fault(where, "factor " + std::to_string(stride) + " out of range 1..64");
  last(x, where);
  Emitted e;
  e.text = "[upsample]\nstride=" + std::to_string(stride) + "\n";
  e.shape = {x.w * stride, x.h * stride, x.c};
  return emit(std::move(e), where);
}

MapValue GraphMapper::resize(const MapValue& x, int ow, int oh, const std::string& rule, const std::string& where) {
  if (ow < 1 || oh < 1 || ow > 16384 || oh > 16384) throw fault(where, "output size out of range");
  last(x, where);
  std::ostringstream t;
  t << "[resize]\n";
  if (ow % x.w == 0 && oh % x.h == 0 && ow / x.w == oh / x.h)
    t << "stride=" << ow / x.w << "\n";
  else
    t << "width=" << ow << "\nheight=" << oh << "\n";
  if (rule == "align_corners") t << "align_corners=1\n";
  if (rule == "half_pixel") t << "half_pixel=1\n";
  Emitted e;
  e.text = t.str();
  e.shape = {ow, oh, x.c};
  return emit(std::move(e), where);
}

MapValue GraphMapper::depthToSpace(const MapValue& x, int block, const std::string& where) {
  if (block < 1 || block > 64 || x.c % (block * block))
    throw fault(where, "block " + std::to_string(block) + " does not divide " + std::to_string(x.c) + " channels");
  last(x, where);
  Emitted e;
  e.text = "[spresize]\nstride=" + std::to_string(block) + "\n";
  e.shape = {x.w * block, x.h * block, x.c / (block * block)};
  return emit(std::move(e), where);
}

MapValue GraphMapper::fconn(const MapValue& x, int outputs, std::vector<float> weights, std::vector<float> bias,
                            const std::string& where) {
  const size_t inputs = (size_t)x.w * x.h * x.c;
  if (outputs < 1 || weights.size() != inputs * outputs)
    throw fault(where, "a product of " + std::to_string(inputs) + " inputs and " + std::to_string(weights.size()) +
                           " weights for " + std::to_string(outputs) + " outputs");
  if (!bias.empty() && bias.size() != (size_t)outputs) throw fault(where, "the bias does not hold one value per output");
  last(x, where);
  Emitted e;
  e.linear_op = true;
  e.act = "linear";
  e.filters = outputs;
  e.weights = std::move(weights);
  e.bias = bias.empty() ? std::vector<float>(outputs, 0.f) : std::move(bias);
  e.text = "[fconn]\noutput=" + std::to_string(outputs) + "\n";
  e.shape = {1, 1, outputs};
  return emit(std::move(e), where);
}

MapValue GraphMapper::softmax(const MapValue& x, int groups, const std::string& where) {
  const int inputs = x.w * x.h * x.c;
  if (groups < 1 || inputs % groups) throw fault(where, std::to_string(groups) + " groups of " + std::to_string(inputs));
  last(x, where);
  Emitted e;
  // Groups are contiguous runs of the map's values; a description gives their sizes as a map.
  e.text = "[softmax]\n";
  if (groups > 1) {
    if (groups > 65536) throw fault(where, std::to_string(groups) + " softmax groups (at most 65536)");
    e.text += "groups=" + std::to_string(groups) + "\nmap=";
    for (int g = 0; g < groups; ++g) e.text += (g ? "," : "") + std::to_string(inputs / groups);
    e.text += "\n";
  }
  e.shape = {1, 1, inputs};
  return emit(std::move(e), where);
}

MapValue GraphMapper::dynact(const MapValue& x, const std::vector<float>& slopes, const std::string& where) {
  if (slopes.size() != (size_t)x.c)
    throw fault(where, std::to_string(slopes.size()) + " slopes for " + std::to_string(x.c) + " channels");
  last(x, where);
  Emitted e;
  e.text = "[dynact]\n";
  e.weights = slopes;
  e.shape = {x.w, x.h, x.c};
  return emit(std::move(e), where);
}

ConvertedModel GraphMapper::finish(const std::string& header_comment) {
  ConvertedModel m;
  std::ostringstream cfg;
  cfg << "# " << header_comment << "\n[network]\nwidth=" << _in_w << "\nheight=" << _in_h << "\nchannels=" << _in_c
      << "\n\n";
  for (const Emitted& e : _layers) {
    cfg << e.text;
    if (e.linear_op) cfg << "activation=" << e.act << "\n";
    cfg << "\n";
    m.weights.insert(m.weights.end(), e.bias.begin(), e.bias.end());
    m.weights.insert(m.weights.end(), e.weights.begin(), e.weights.end());
    m.origin.push_back(e.origin);
    m.shapes.push_back(e.shape);
  }
  m.cfg = cfg.str();
  return m;
}

}  // namespace orvacli
