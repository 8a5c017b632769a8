// What the detect command's two paths share: the tracker wrapper, drawing, the codecs of the
// annotated video and the JSON line of a frame.
#pragma once
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>

#include "orva/data.h"
#include "orva/tracker.h"

namespace orvacli {

// A tracker that also tells which of its tracks are confirmed and were fed this frame.
struct IdTracker : ORVA::Tracker {
  using Tracker::Tracker;
  ORVA::DetectObjList fed() {
    ORVA::DetectObjList out;
    for (KalmanTracker& t : _ktracker)
      if (t.active && t.miss == 0) {
        ORVA::DetectObj o{};
        t.getState(o);
        out.push_back(o);
      }
    return out;
  }
  // Ids of the confirmed tracks still followed.
  std::set<int> alive() {
    std::set<int> ids;
    for (KalmanTracker& t : _ktracker)
      if (t.active) {
        ORVA::DetectObj o{};
        t.getState(o);
        ids.insert(o.oid);
      }
    return ids;
  }
};

void annotate(cv::Mat& img, const ORVA::DetectObjList& objs, const std::vector<std::string>& names, bool track);
// "12.3 frames/s  0:01:02.5" in the top left corner of a video frame.
void overlayClock(cv::Mat& img, double fps, double time);
// The detector's own boxes and scores, each with the id of the confirmed track it fed; -1
// until its track has been hit in enough frames in a row.
void trackIds(IdTracker& tracker, cv::Mat& frame, ORVA::DetectObjList& dets);
// The codecs tried for a container, best first; the last is the one every OpenCV build has.
std::vector<int> codecsFor(const std::filesystem::path& path);
double round4(float v);
// One frame's line: source, frame, time (when >= 0), width, height and the objects.
nlohmann::ordered_json frameJson(const std::string& source, long frame, double time, int width, int height,
                                 const ORVA::DetectObjList& list, const std::vector<std::string>& names);
// Writes a JSON value as one line; a file name that is not UTF-8 gets replacement characters.
std::string jsonText(const nlohmann::ordered_json& j);

}  // namespace orvacli
