#include "onnx_proto.h"

#include <cmath>
#include <cstring>

#include "model_build.h"

namespace orvacli {
namespace onnx {

namespace {

// Bounds that keep a hostile file from asking for unbounded memory.
constexpr int64_t kMaxElements = int64_t(1) << 28;
constexpr size_t kMaxDims = 8;
constexpr size_t kMaxItems = 1 << 20;  // nodes, attributes, initializers, list entries

enum Wire { kVarint = 0, kFixed64 = 1, kBytes = 2, kFixed32 = 5 };

// A view of one message's bytes.
class Reader {
 public:
  Reader(const char* p, size_t n, const std::string& src, const char* what) : _p(p), _end(p + n), _src(src), _what(what) {}

  bool more() const { return _p < _end; }
  // The next field's number and wire type.
  void key(int* field, int* wire) {
    const uint64_t k = varint();
    *field = (int)(k >> 3);
    *wire = (int)(k & 7);
    if (*field == 0 || k >> 32) fail("a field number of 0 or out of range");
  }
  uint64_t varint() {
    uint64_t v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (_p >= _end) fail("the message ends inside a number");
      const uint8_t b = (uint8_t)*_p++;
      v |= (uint64_t)(b & 0x7F) << shift;
      if (!(b & 0x80)) return v;
    }
    fail("a number longer than ten bytes");
    return 0;
  }
  uint32_t fixed32() {
    uint32_t v;
    need(4);
    std::memcpy(&v, _p, 4);
    _p += 4;
    return v;
  }
  uint64_t fixed64() {
    uint64_t v;
    need(8);
    std::memcpy(&v, _p, 8);
    _p += 8;
    return v;
  }
  // A length-delimited field's bytes.
  Reader sub(const char* what) {
    const uint64_t n = varint();
    if (n > (uint64_t)(_end - _p)) fail(std::string(what) + " runs past the end of its message (truncated file?)");
    Reader r(_p, (size_t)n, _src, what);
    _p += n;
    return r;
  }
  std::string bytes(const char* what) {
    Reader r = sub(what);
    return std::string(r._p, r._end);
  }
  void skip(int wire) {
    switch (wire) {
      case kVarint: varint(); break;
      case kFixed64: need(8); _p += 8; break;
      case kFixed32: need(4); _p += 4; break;
      case kBytes: sub("a field"); break;
      default: fail("wire type " + std::to_string(wire) + " (groups or garbage)");
    }
  }
  // Repeated scalars arrive packed (one length-delimited run) or one per field.
  template <typename F>
  void repeated(int wire, int scalar_wire, F&& take) {
    if (wire == kBytes) {
      Reader r = sub("a packed list");
      while (r.more()) take(r);
    } else if (wire == scalar_wire) {
      take(*this);
    } else {
      fail("a list field with wire type " + std::to_string(wire));
    }
  }
  void expect(int wire, int want, const char* field) {
    if (wire != want) fail(std::string(field) + " has wire type " + std::to_string(wire));
  }
  [[noreturn]] void fail(const std::string& problem) const {
    throw ConvertError(_src + ": malformed " + _what + ": " + problem);
  }
  size_t left() const { return (size_t)(_end - _p); }
  const std::string& source() const { return _src; }

 private:
  void need(size_t n) {
    if ((size_t)(_end - _p) < n) fail("the message ends inside a fixed-size value");
  }
  const char* _p;
  const char* _end;
  const std::string& _src;
  const char* _what;
};

template <typename T>
void push(std::vector<T>& v, T x, const Reader& r) {
  if (v.size() >= kMaxItems) r.fail("more than " + std::to_string(kMaxItems) + " entries in a list");
  v.push_back(x);
}

float bits_to_float(uint32_t u) {
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}

float half_to_float(uint16_t h) {
  const int sign = h >> 15, exp = (h >> 10) & 31, mant = h & 1023;
  float v;
  if (exp == 0) v = std::ldexp((float)mant, -24);
  else if (exp == 31) v = mant ? NAN : INFINITY;
  else v = std::ldexp((float)(mant | 1024), exp - 25);
  return sign ? -v : v;
}

size_t element_bytes(int type) {
  switch (type) {
    case kFloat: case kInt32: case kUint32: return 4;
    case kUint8: case kInt8: case kBool: return 1;
    case kUint16: case kInt16: case kFloat16: return 2;
    case kInt64: case kDouble: case kUint64: return 8;
    default: return 0;
  }
}

float raw_value(const char* p, int type) {
  switch (type) {
    case kFloat: { uint32_t u; std::memcpy(&u, p, 4); return bits_to_float(u); }
    case kUint8: case kBool: return (float)(uint8_t)*p;
    case kInt8: return (float)(int8_t)*p;
    case kUint16: { uint16_t u; std::memcpy(&u, p, 2); return (float)u; }
    case kInt16: { int16_t u; std::memcpy(&u, p, 2); return (float)u; }
    case kFloat16: { uint16_t u; std::memcpy(&u, p, 2); return half_to_float(u); }
    case kInt32: { int32_t u; std::memcpy(&u, p, 4); return (float)u; }
    case kUint32: { uint32_t u; std::memcpy(&u, p, 4); return (float)u; }
    case kInt64: { int64_t u; std::memcpy(&u, p, 8); return (float)u; }
    case kUint64: { uint64_t u; std::memcpy(&u, p, 8); return (float)u; }
    case kDouble: { double u; std::memcpy(&u, p, 8); return (float)u; }
  }
  return 0;
}

Tensor read_tensor(Reader r, const ExternalReader* external) {
  Tensor t;
  std::string raw;
  bool has_raw = false, external_data = false;
  std::string location;
  int64_t ext_offset = 0, ext_length = -1;
  std::vector<float> typed;  // float_data, int32_data, int64_data, double_data, uint64_data
  while (r.more()) {
    int f, w;
    r.key(&f, &w);
    switch (f) {
      case 1:
        r.repeated(w, kVarint, [&](Reader& s) { push(t.dims, (int64_t)s.varint(), r); });
        if (t.dims.size() > kMaxDims) r.fail("more than " + std::to_string(kMaxDims) + " dims");
        break;
      case 2: r.expect(w, kVarint, "data_type"); t.data_type = (int)r.varint(); break;
      case 4: r.repeated(w, kFixed32, [&](Reader& s) { push(typed, bits_to_float(s.fixed32()), r); }); break;
      case 5:  // int32_data also carries the small integer types and float16 bits
        r.repeated(w, kVarint, [&](Reader& s) {
          const int32_t v = (int32_t)s.varint();
          push(typed, t.data_type == kFloat16 ? half_to_float((uint16_t)v) : (float)v, r);
        });
        break;
      case 7: r.repeated(w, kVarint, [&](Reader& s) { push(typed, (float)(int64_t)s.varint(), r); }); break;
      case 8: r.expect(w, kBytes, "name"); t.name = r.bytes("name"); break;
      case 9: r.expect(w, kBytes, "raw_data"); raw = r.bytes("raw_data"); has_raw = true; break;
      case 10:
        r.repeated(w, kFixed64, [&](Reader& s) {
          const uint64_t u = s.fixed64();
          double d;
          std::memcpy(&d, &u, 8);
          push(typed, (float)d, r);
        });
        break;
      case 11: r.repeated(w, kVarint, [&](Reader& s) { push(typed, (float)s.varint(), r); }); break;
      case 13: {  // external_data: key/value entries
        r.expect(w, kBytes, "external_data");
        Reader e = r.sub("external_data");
        std::string k, v;
        while (e.more()) {
          int ef, ew;
          e.key(&ef, &ew);
          if (ef == 1 && ew == kBytes) k = e.bytes("key");
          else if (ef == 2 && ew == kBytes) v = e.bytes("value");
          else e.skip(ew);
        }
        try {
          if (k == "location") location = v;
          else if (k == "offset") ext_offset = std::stoll(v);
          else if (k == "length") ext_length = std::stoll(v);
        } catch (const std::exception&) {
          r.fail("external_data " + k + " '" + v + "' is not a number");
        }
        break;
      }
      case 14: r.expect(w, kVarint, "data_location"); external_data = r.varint() == 1; break;
      default: r.skip(w);
    }
  }
  const std::string what = "tensor '" + t.name + "'";
  int64_t count = 1;
  for (int64_t d : t.dims) {
    if (d < 0 || d > kMaxElements) r.fail(what + ": dim " + std::to_string(d) + " out of range");
    count *= d;
    if (count > kMaxElements) r.fail(what + ": more than " + std::to_string(kMaxElements) + " elements");
  }
  const size_t esize = element_bytes(t.data_type);
  if (!esize) r.fail(what + ": data type " + std::to_string(t.data_type) + " is not a number type the importer reads");
  if (external_data) {
    if (location.empty()) r.fail(what + ": external data without a location");
    if (!external || !*external) r.fail(what + ": external data where none can be read");
    std::string file = (*external)(location);
    if (ext_offset < 0 || (uint64_t)ext_offset > file.size())
      r.fail(what + ": external offset " + std::to_string(ext_offset) + " past the end of " + location);
    file.erase(0, (size_t)ext_offset);
    if (ext_length >= 0) {
      if ((uint64_t)ext_length > file.size())
        r.fail(what + ": external length " + std::to_string(ext_length) + " past the end of " + location);
      file.resize((size_t)ext_length);
    }
    raw = std::move(file);
    has_raw = true;
  }
  if (has_raw) {
    if (raw.size() != (size_t)count * esize)
      r.fail(what + ": " + std::to_string(raw.size()) + " data bytes for " + std::to_string(count) + " elements of " +
             std::to_string(esize) + " bytes");
    t.values.resize((size_t)count);
    for (size_t i = 0; i < (size_t)count; ++i) t.values[i] = raw_value(raw.data() + i * esize, t.data_type);
  } else {
    if (typed.size() != (size_t)count)
      r.fail(what + ": " + std::to_string(typed.size()) + " values for dims holding " + std::to_string(count));
    t.values = std::move(typed);
  }
  return t;
}

Attribute read_attribute(Reader r) {
  Attribute a;
  while (r.more()) {
    int f, w;
    r.key(&f, &w);
    switch (f) {
      case 1: r.expect(w, kBytes, "attribute name"); a.name = r.bytes("attribute name"); break;
      case 2: r.expect(w, kFixed32, "f"); a.f = bits_to_float(r.fixed32()); break;
      case 3: r.expect(w, kVarint, "i"); a.i = (int64_t)r.varint(); break;
      case 4: r.expect(w, kBytes, "s"); a.s = r.bytes("s"); break;
      case 5:
        r.expect(w, kBytes, "t");
        a.t.clear();
        a.t.push_back(read_tensor(r.sub("attribute tensor"), nullptr));
        break;
      case 7: r.repeated(w, kFixed32, [&](Reader& s) { push(a.floats, bits_to_float(s.fixed32()), r); }); break;
      case 8: r.repeated(w, kVarint, [&](Reader& s) { push(a.ints, (int64_t)s.varint(), r); }); break;
      case 20: r.expect(w, kVarint, "type"); a.type = (int)r.varint(); break;
      default: r.skip(w);  // graphs, string lists, sparse tensors, type protos: not read
    }
  }
  return a;
}

Node read_node(Reader r) {
  Node n;
  while (r.more()) {
    int f, w;
    r.key(&f, &w);
    switch (f) {
      case 1: r.expect(w, kBytes, "input"); push(n.in, r.bytes("input"), r); break;
      case 2: r.expect(w, kBytes, "output"); push(n.out, r.bytes("output"), r); break;
      case 3: r.expect(w, kBytes, "node name"); n.name = r.bytes("node name"); break;
      case 4: r.expect(w, kBytes, "op_type"); n.op = r.bytes("op_type"); break;
      case 5: r.expect(w, kBytes, "attribute"); push(n.attrs, read_attribute(r.sub("attribute")), r); break;
      case 7: r.expect(w, kBytes, "domain"); n.domain = r.bytes("domain"); break;
      default: r.skip(w);
    }
  }
  return n;
}

// TypeProto.Tensor's elem_type and shape.
void read_tensor_type(Reader r, ValueInfo* v) {
  while (r.more()) {
    int f, w;
    r.key(&f, &w);
    if (f == 1 && w == kVarint) {
      v->elem_type = (int)r.varint();
    } else if (f == 2 && w == kBytes) {
      v->has_shape = true;
      Reader shape = r.sub("shape");
      while (shape.more()) {
        int sf, sw;
        shape.key(&sf, &sw);
        if (sf != 1 || sw != kBytes) {
          shape.skip(sw);
          continue;
        }
        Reader dim = shape.sub("dim");
        int64_t value = -1;
        while (dim.more()) {
          int df, dw;
          dim.key(&df, &dw);
          if (df == 1 && dw == kVarint) value = (int64_t)dim.varint();
          else dim.skip(dw);
        }
        push(v->dims, value, shape);
        if (v->dims.size() > kMaxDims) shape.fail("more than " + std::to_string(kMaxDims) + " dims");
      }
    } else {
      r.skip(w);
    }
  }
}

ValueInfo read_value_info(Reader r) {
  ValueInfo v;
  while (r.more()) {
    int f, w;
    r.key(&f, &w);
    if (f == 1 && w == kBytes) {
      v.name = r.bytes("value name");
    } else if (f == 2 && w == kBytes) {
      Reader type = r.sub("type");
      while (type.more()) {
        int tf, tw;
        type.key(&tf, &tw);
        if (tf == 1 && tw == kBytes) read_tensor_type(type.sub("tensor type"), &v);
        else type.skip(tw);
      }
    } else {
      r.skip(w);
    }
  }
  return v;
}

Graph read_graph(Reader r, const ExternalReader& external) {
  Graph g;
  while (r.more()) {
    int f, w;
    r.key(&f, &w);
    switch (f) {
      case 1: r.expect(w, kBytes, "node"); push(g.nodes, read_node(r.sub("node")), r); break;
      case 2: r.expect(w, kBytes, "graph name"); g.name = r.bytes("graph name"); break;
      case 5: r.expect(w, kBytes, "initializer"); push(g.initializers, read_tensor(r.sub("initializer"), &external), r); break;
      case 11: r.expect(w, kBytes, "input"); push(g.inputs, read_value_info(r.sub("input")), r); break;
      case 12: r.expect(w, kBytes, "output"); push(g.outputs, read_value_info(r.sub("output")), r); break;
      case 15: r.fail("sparse initializers are not supported");
      default: r.skip(w);
    }
  }
  return g;
}

}  // namespace

Model parseModel(const std::string& bytes, const std::string& source, const ExternalReader& external) {
  Reader r(bytes.data(), bytes.size(), source, "model");
  Model m;
  bool has_graph = false, has_opset = false;
  while (r.more()) {
    int f, w;
    r.key(&f, &w);
    if (f == 1 && w == kVarint) {
      m.ir_version = (int64_t)r.varint();
    } else if (f == 7 && w == kBytes) {
      m.graph = read_graph(r.sub("graph"), external);
      has_graph = true;
    } else if (f == 8 && w == kBytes) {
      Reader o = r.sub("opset_import");
      std::string domain;
      int64_t version = 0;
      while (o.more()) {
        int of, ow;
        o.key(&of, &ow);
        if (of == 1 && ow == kBytes) domain = o.bytes("domain");
        else if (of == 2 && ow == kVarint) version = (int64_t)o.varint();
        else o.skip(ow);
      }
      if (domain.empty() || domain == "ai.onnx") {
        m.opset = version;
        has_opset = true;
      }
    } else {
      r.skip(w);
    }
  }
  if (!has_graph) throw ConvertError(source + ": not an ONNX model (no graph)");
  if (!has_opset) m.opset = 1;  // models of the first IR versions name no opset
  return m;
}

Tensor parseTensor(const std::string& bytes, const std::string& source) {
  return read_tensor(Reader(bytes.data(), bytes.size(), source, "tensor"), nullptr);
}

}  // namespace onnx
}  // namespace orvacli
