// A network produced by a converter: the engine's description text and its weight records,
// plus what the converter knows about the shapes, so the result can be checked once the
// engine has built it.
#pragma once
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvacli {

// A converter's fault: `what()` names the file and the problem.
struct ConvertError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct LayerShape {
  int w = 0, h = 0, c = 0;
};

struct ConvertedModel {
  std::string cfg;                  // engine description text
  std::vector<float> weights;       // every layer's weight record, in layer order
  uint64_t seen = 0;                // training samples seen, carried into the file
  std::vector<std::string> names;   // class names, empty when unknown
  std::vector<std::string> origin;  // per engine layer: where it came from, for messages
  std::vector<LayerShape> shapes;   // per engine layer: the output the source format gives
};

// The weights-only file: int32 0, 2, 0, uint64 seen, then the records as 32-bit floats.
std::vector<unsigned char> weightsOnlyFile(const ConvertedModel& m);

// Builds the network on the host from the description and weights, checks every layer's
// output shape against m.shapes, and writes the model file to `path`; class names go to
// namesPath(path) when there are any. Throws ConvertError.
void writeModel(const ConvertedModel& m, const std::string& path);

// "dir/face.orva" -> "dir/face.names": the class names that travel beside a model file.
std::string namesPath(const std::string& model_path);
// One name per line; blank lines and surrounding blanks dropped. Empty when the file is absent.
std::vector<std::string> readNames(const std::string& path);

}  // namespace orvacli
