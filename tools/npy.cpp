#include "npy.h"

#include <cstring>
#include <fstream>
#include <stdexcept>

namespace orvacli {

namespace {

constexpr int64_t kMaxElements = int64_t(1) << 31;

[[noreturn]] void bad(const std::string& source, const std::string& problem) {
  throw std::runtime_error(source + ": " + problem);
}

// The text after 'key': in the header dictionary, up to the next top-level comma or brace.
std::string value_of(const std::string& header, const std::string& key, const std::string& source) {
  const size_t k = header.find("'" + key + "'");
  if (k == std::string::npos) bad(source, "the header has no '" + key + "'");
  size_t p = header.find(':', k);
  if (p == std::string::npos) bad(source, "the header's '" + key + "' has no value");
  ++p;
  while (p < header.size() && header[p] == ' ') ++p;
  size_t e = p;
  int depth = 0;
  while (e < header.size() && (depth > 0 || (header[e] != ',' && header[e] != '}'))) {
    if (header[e] == '(') ++depth;
    if (header[e] == ')') --depth;
    ++e;
  }
  return header.substr(p, e - p);
}

}  // namespace

NpyArray parseNpy(const std::string& bytes, const std::string& source) {
  if (bytes.size() < 10 || bytes.compare(0, 6, "\x93NUMPY") != 0) bad(source, "not a .npy file");
  const int major = (unsigned char)bytes[6];
  size_t header_len, start;
  if (major == 1) {
    header_len = (unsigned char)bytes[8] | (size_t)(unsigned char)bytes[9] << 8;
    start = 10;
  } else if (major == 2 || major == 3) {
    if (bytes.size() < 12) bad(source, "the file ends inside its header");
    header_len = 0;
    for (int i = 0; i < 4; ++i) header_len |= (size_t)(unsigned char)bytes[8 + i] << (8 * i);
    start = 12;
  } else {
    bad(source, ".npy format version " + std::to_string(major));
  }
  if (header_len > bytes.size() - start) bad(source, "the file ends inside its header");
  const std::string header = bytes.substr(start, header_len);
  const std::string descr = value_of(header, "descr", source);
  if (descr != "'<f4'") bad(source, "data type " + descr + ", not float32 little-endian ('<f4')");
  if (value_of(header, "fortran_order", source) != "False") bad(source, "Fortran order (only C order)");
  const std::string shape = value_of(header, "shape", source);
  if (shape.size() < 2 || shape.front() != '(' || shape.back() != ')') bad(source, "shape " + shape + " is not a tuple");
  NpyArray a;
  int64_t count = 1;
  size_t p = 1;
  while (p < shape.size() - 1) {
    while (p < shape.size() - 1 && (shape[p] == ' ' || shape[p] == ',')) ++p;
    if (p >= shape.size() - 1) break;
    size_t e = p;
    int64_t d = 0;
    while (e < shape.size() - 1 && shape[e] >= '0' && shape[e] <= '9') {
      d = d * 10 + (shape[e] - '0');
      if (d > kMaxElements) bad(source, "shape " + shape + " too large");
      ++e;
    }
    if (e == p) bad(source, "shape " + shape + " is not a tuple of whole numbers");
    a.shape.push_back(d);
    count *= d;
    if (count > kMaxElements || a.shape.size() > 16) bad(source, "shape " + shape + " too large");
    p = e;
  }
  const size_t data = start + header_len;
  if (bytes.size() - data != (size_t)count * 4)
    bad(source, std::to_string(bytes.size() - data) + " data bytes for shape " + shape + " (" + std::to_string(count * 4) +
                    " expected)");
  a.values.resize((size_t)count);
  if (count) std::memcpy(a.values.data(), bytes.data() + data, (size_t)count * 4);
  return a;
}

NpyArray readNpy(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw std::runtime_error(path + ": can't open");
  const std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  return parseNpy(bytes, path);
}

std::string npyBytes(const NpyArray& a) {
  std::string shape = "(";
  for (int64_t d : a.shape) shape += std::to_string(d) + ", ";
  if (a.shape.size() > 1) shape.resize(shape.size() - 2);
  else if (a.shape.size() == 1) shape.resize(shape.size() - 1);
  shape += ")";
  std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': " + shape + ", }";
  // The data starts on a 64-byte boundary; the header ends in a newline.
  while ((10 + header.size() + 1) % 64) header += ' ';
  header += '\n';
  std::string out = "\x93NUMPY";
  out += (char)1;
  out += (char)0;
  out += (char)(header.size() & 0xFF);
  out += (char)(header.size() >> 8);
  out += header;
  const size_t at = out.size();
  out.resize(at + a.values.size() * 4);
  if (!a.values.empty()) std::memcpy(&out[at], a.values.data(), a.values.size() * 4);
  return out;
}

}  // namespace orvacli
