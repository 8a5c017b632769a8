// Import of TensorFlow.js graph models (model.json with its weight files): the convolutional
// subset of the graph's operations mapped onto the engine's layers, and CenterNet-style
// decoding (peak picking and top-k) replaced by the engine's centernet head.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "model_build.h"
#include "weights_manifest.h"

namespace orvacli {

struct TfjsOptions {
  // The value of a full-intensity pixel in the graph's input (255 for a graph fed bytes as
  // floats, 1 for one fed 0..1); the engine's input planes are 0..1, so the first
  // convolution's weights are multiplied by it.
  float input_scale = 255;
  // Square input side for a graph whose input size is not fixed; 0 takes the graph's.
  int input_size = 0;
};

// model.json and its weight files (beside it). Throws ConvertError naming the file, the node
// and the problem: "model.json: node 'NAME' (OP): problem".
ConvertedModel tfjsToEngine(const std::string& model_json, const TfjsOptions& options = {});
// The same from the JSON text; `source` names it in messages.
ConvertedModel tfjsToEngine(const std::string& text, const ShardReader& read, const std::string& source,
                            const TfjsOptions& options = {});

}  // namespace orvacli
