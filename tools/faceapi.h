// Reader of TensorFlow.js weight manifests with uint8-quantised tensors, and the mapping of
// the tiny face detector onto the engine's layers.
#pragma once
#include <string>
#include <vector>

#include "model_build.h"

namespace orvacli {

struct NamedTensor {
  std::string name;
  std::vector<int> shape;
  std::vector<float> values;  // dequantised, in the manifest's storage order
};

// Reads the manifest and the weight files it lists (relative to the manifest), tensor after
// tensor: uint8 quantisation gives byte x scale + min, plain float32 is taken as stored.
std::vector<NamedTensor> readWeightsManifest(const std::string& manifest_path);

// The mean colour the face detector subtracts (red, green, blue), on the 0..255 scale.
extern const float kFaceMean[3];
// The five anchors of the face detector's head, width and height in grid cells.
extern const float kFaceAnchors[10];

// The tiny face detector as an engine network for a square input of `input_size` pixels;
// see docs/MODELS.md for the layer mapping. `source` names the manifest in messages.
ConvertedModel tinyFaceDetector(const std::vector<NamedTensor>& tensors, int input_size,
                                const std::string& source);

}  // namespace orvacli
