// Training: the parameter set and its rate schedule, the sample block handed to
// Network::train, the randomised image augmentation that feeds it, and batch assembly.
#pragma once
#include "orva/export.h"
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "orva/config.h"
#include "orva/data.h"

ORVA_API_BEGIN

enum RatePolicy { CONSTANT = 0, STEP = 1, EXP = 2, POLY = 3, STEPS = 4, SIGMOID = 5, RANDOM = 6, STEPS_CYCLIC = 7 };

struct TrainParams {
  float learning_rate = 0.001f;
  float momentum = 0.9f;
  float decay = 0.0001f;
  int max_batches = 0;
  RatePolicy policy = CONSTANT;
  int burn_in = 0;
  float power = 4;
  float gamma = 1;
  int step = 1;
  float scale = 1;
  int num_steps = 0;
  std::vector<int> steps;
  std::vector<float> scales;
  int subdivisions = 1;
  int time_steps = 1;
};

// Reads the training keys from the first "train" section, or from "network" without one.
// Returns false when the description has neither. STEPS and STEPS_CYCLIC need "steps" and
// "scales"; without them the fault is fatal.
bool parse_train_options(TrainParams& p, ConfigReader& cfg);
// Rate of update number b (samples seen / (batch x subdivisions)).
float train_rate(const TrainParams& p, int b);

namespace ORVA {

// --- Augmentation -----------------------------------------------------------------------

struct ExtImageParams {
  int out_w = 0, out_h = 0;  // network input size
  float jitter = 0.2f;       // each crop edge moves by up to this fraction of the side
  bool flip = true;          // mirror left-right with probability 1/2
  float hue = 0.05f;         // hue shift of up to this fraction of the circle
  float saturation = 1.5f;   // saturation scaled by a factor in [1/s, s]
  float exposure = 1.5f;     // value scaled by a factor in [1/e, e]
  bool letterbox = true;     // keep the aspect ratio, pad with grey
  float min_side = 0.01f;    // boxes narrower or lower than this after clipping are dropped
  float min_visible = 0.25f; // boxes keeping less than this share of their area are dropped
  uint32_t seed = 1;
};

// One random draw per sample: the same (seed, epoch, index) always gives the same image.
typedef std::mt19937 AugRng;
AugRng aug_rng(uint32_t seed, uint32_t epoch, uint32_t index);

// Where a crop of the source lands in the output: out = (src - origin) * scale + offset.
struct CropPlan {
  float ox = 0, oy = 0;  // source point mapped to the output's offset
  float sx = 1, sy = 1;
  float dx = 0, dy = 0;  // output offset of the crop (letterbox padding)
  bool flip = false;
};

// The image_rand_* steps draw their parameters from rng; their order in image_ext_pipeline
// is fixed so a seed gives one result.
CropPlan image_rand_crop(const ExtImageParams& p, int src_w, int src_h, AugRng& rng);
bool image_rand_flip(const ExtImageParams& p, AugRng& rng);
// Hue shift in degrees, saturation and value factors.
cv::Vec3f image_rand_hsv(const ExtImageParams& p, AugRng& rng);
// Applies a plan to the 8-bit BGR source; the output is out_w x out_h, grey outside.
cv::Mat image_rand_apply(const cv::Mat& src, const ExtImageParams& p, const CropPlan& plan);
void image_rand_distort(cv::Mat& bgr, const cv::Vec3f& hsv);
// Moves labels through a plan, clips them to the frame and drops what falls out.
BoxLabelList image_rand_boxes(const BoxLabelList& in, const ExtImageParams& p, int src_w, int src_h,
                              const CropPlan& plan);

// Whole pipeline for one sample: crop/jitter, letterbox, flip, colour; writes planar RGB
// floats in [0, 1] (out_w x out_h x 3) into dst and returns the labels that stay in frame.
BoxLabelList image_ext_pipeline(const cv::Mat& src, const BoxLabelList& boxes, const ExtImageParams& p,
                                AugRng& rng, float* dst);

// Labelled image list and the batches made from it.
struct LabelledImage {
  std::string image;
  BoxLabelList boxes;
};
// Reads "<image path> <class> <x> <y> <w> <h> ..." lines (see docs/TRAINING.md). A line with
// a fault is reported with file and line and skipped; false when the list can't be opened.
bool read_label_list(const char* path, std::vector<LabelledImage>& out, int classes, int* faults = nullptr);

class ExtImagePipeline {
 public:
  ExtImagePipeline(const std::vector<LabelledImage>& list, const ExtImageParams& p) : _list(list), _p(p) {}
  // Fills d with n samples starting at sample number first (wrapping around the list, one
  // epoch per pass); images that can't be read are reported and replaced by the next one.
  void load(TData& d, int n, size_t first);
  const ExtImageParams& params() const { return _p; }

 private:
  const std::vector<LabelledImage>& _list;
  ExtImageParams _p;
};

// Truth rows for heads that read box records: up to max_boxes records of (x, y, w, h, class),
// the rest zero (x = 0 ends the list).
void encode_box_truth(const BoxLabelList& boxes, float* row, int max_boxes = 100);
// Truth rows for a plain convolutional grid head closed by a cost layer: per cell the planes
// objectness, x and y inside the cell, w, h, then one plane per class (see docs/TRAINING.md).
void encode_grid_truth(const BoxLabelList& boxes, int grid_w, int grid_h, int classes, float* row);

}  // namespace ORVA

// Copies samples offset .. offset + n - 1 of d into the network's half input tensor and its
// host truth buffer.
void get_next_batch(void* handle, ORVA::TData& d, int n, int offset, void* input, float* truth);

ORVA_API_END
