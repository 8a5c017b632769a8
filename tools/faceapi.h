// The mapping of face-api's tiny face detector (a TF.js weights manifest) onto the engine's
// layers.
#pragma once
#include <string>
#include <vector>

#include "model_build.h"
#include "weights_manifest.h"

namespace orvacli {

// The mean colour the face detector subtracts (red, green, blue), on the 0..255 scale.
extern const float kFaceMean[3];
// The five anchors of the face detector's head, width and height in grid cells.
extern const float kFaceAnchors[10];

// The tiny face detector as an engine network for a square input of `input_size` pixels;
// see docs/MODELS.md for the layer mapping. `source` names the manifest in messages.
ConvertedModel tinyFaceDetector(const std::vector<NamedTensor>& tensors, int input_size,
                                const std::string& source);

}  // namespace orvacli
