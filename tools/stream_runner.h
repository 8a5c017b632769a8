// Several video sources at once: one reader thread per source feeding the detect task, which
// batches frames across sources; results tracked, reported and written per source; bounded
// queues everywhere. See docs/STREAMS.md.
#pragma once
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include "orva/networks.h"

namespace orvacli {

struct StreamSource {
  std::string arg;
  unsigned key = 0;  // the detect network's parameter key
  std::unique_ptr<cv::VideoCapture> video;
  bool live = false;  // a camera or a network stream: frames come whether or not they are taken
  long total = 0;     // frames in a file, 0 when unknown
  long next = 0;      // index of the next frame
};

struct StreamOptions {
  long max_frames = 0, every = 1;
  bool realtime = false, only_hits = false, track = false, stats = false;
  int min_size = 0;
  cv::Rect roi;
  float track_iou = 0.3f;
  int track_max_miss = 3, track_min_hits = 2;
  std::string out_dir;
  std::string mqtt, topic = "orva";
  bool mqtt_required = false;
};

// Runs every source to its end (or to Ctrl-C); JSON lines go to json. Returns the number of
// failures reported on stderr, or -1 when nothing was run (a bad --mqtt, or a broker that
// --mqtt-required needs and can't reach); json_failed is set when the JSON output failed.
int runStreams(ORVA::DetectNetwork& net, std::vector<StreamSource>& sources, const StreamOptions& opt,
               const std::vector<std::string>& names, const std::vector<bool>& keep_class, std::ostream& json,
               const std::string& json_name, bool& json_failed);

}  // namespace orvacli
