// The part of the ONNX protobuf messages the importer reads (ModelProto, GraphProto,
// NodeProto, AttributeProto, TensorProto, ValueInfoProto), decoded straight from the wire
// format: varints, fixed 32/64-bit values and length-delimited fields. Unknown fields are
// skipped, as protobuf readers do.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orvacli {
namespace onnx {

// TensorProto.DataType values the reader converts to float.
enum DataType {
  kFloat = 1, kUint8 = 2, kInt8 = 3, kUint16 = 4, kInt16 = 5, kInt32 = 6, kInt64 = 7, kBool = 9,
  kFloat16 = 10, kDouble = 11, kUint32 = 12, kUint64 = 13
};

struct Tensor {
  std::string name;
  std::vector<int64_t> dims;
  int data_type = 0;
  std::vector<float> values;  // converted to float, row-major
  size_t size() const { return values.size(); }
};

struct Attribute {
  std::string name;
  int type = 0;  // AttributeProto.AttributeType: 1 float, 2 int, 3 string, 4 tensor, 5 graph, 6 floats, 7 ints, 8 strings
  float f = 0;
  int64_t i = 0;
  std::string s;
  std::vector<float> floats;
  std::vector<int64_t> ints;
  std::vector<Tensor> t;  // zero or one
};

struct Node {
  std::string name, op, domain;
  std::vector<std::string> in, out;
  std::vector<Attribute> attrs;
  const Attribute* attr(const char* key) const {
    for (const Attribute& a : attrs)
      if (a.name == key) return &a;
    return nullptr;
  }
};

// A graph input or output: its name, element type and dims (-1 where a dim is symbolic or absent).
struct ValueInfo {
  std::string name;
  int elem_type = 0;
  std::vector<int64_t> dims;
  bool has_shape = false;
};

struct Graph {
  std::string name;
  std::vector<Node> nodes;
  std::vector<Tensor> initializers;
  std::vector<ValueInfo> inputs, outputs;
};

struct Model {
  int64_t ir_version = 0;
  int64_t opset = 0;  // of the default ("" or "ai.onnx") domain
  Graph graph;
};

// Reads an external-data file (by its location as written in the tensor, relative to the model).
using ExternalReader = std::function<std::string(const std::string& location)>;

// Decodes a model. Throws ConvertError "SOURCE: problem" on a truncated or malformed message,
// a tensor whose data disagrees with its dims, a type the reader can't convert, or a missing
// external-data file.
Model parseModel(const std::string& bytes, const std::string& source, const ExternalReader& external);
// One serialised TensorProto (the test cases' input_N.pb / output_N.pb).
Tensor parseTensor(const std::string& bytes, const std::string& source);

}  // namespace onnx
}  // namespace orvacli
