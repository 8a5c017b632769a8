// Import of ONNX models (opsets 7 to 17): the convolutional subset of the operators mapped
// onto the engine's layers through the shared graph mapper, batch normalisation folded into
// the convolution before it, constants and initializers folded.
#pragma once
#include <string>

#include "model_build.h"
#include "onnx_proto.h"

namespace orvacli {

// model.onnx (external data beside it). Throws ConvertError naming the file, the node and the
// problem: "model.onnx: node 'NAME' (OP): problem".
ConvertedModel onnxToEngine(const std::string& path);
// The same from the model's bytes; `source` names it in messages.
ConvertedModel onnxToEngine(const std::string& bytes, const std::string& source, const onnx::ExternalReader& external);

}  // namespace orvacli
