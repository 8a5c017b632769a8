#include "detect_common.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

namespace orvacli {

namespace fs = std::filesystem;

namespace {

cv::Scalar colour(int k) {
  static const cv::Scalar kColours[] = {{0, 200, 255}, {255, 128, 0}, {80, 220, 80}, {255, 0, 200},
                                        {0, 80, 255},  {200, 200, 0}, {160, 80, 255}, {0, 255, 160}};
  return kColours[(k % 8 + 8) % 8];
}

void label(cv::Mat& img, const std::string& text, cv::Point at, const cv::Scalar& c, int thick, double font) {
  int base = 0;
  const cv::Size ts = cv::getTextSize(text, cv::FONT_HERSHEY_SIMPLEX, font, thick / 2 + 1, &base);
  const int top = at.y >= ts.height + 2 * thick ? at.y - ts.height - 2 * thick : at.y;
  cv::rectangle(img, cv::Rect(at.x, top, ts.width + 2 * thick, ts.height + 2 * thick), c, cv::FILLED);
  cv::putText(img, text, cv::Point(at.x + thick, top + ts.height + thick), cv::FONT_HERSHEY_SIMPLEX, font,
              cv::Scalar(0, 0, 0), thick / 2 + 1, cv::LINE_AA);
}

}  // namespace

void annotate(cv::Mat& img, const ORVA::DetectObjList& objs, const std::vector<std::string>& names, bool track) {
  const int thick = std::max(2, std::min(img.cols, img.rows) / 300);
  const double font = std::max(0.5, std::min(img.cols, img.rows) / 900.0);
  for (const ORVA::DetectObj& o : objs) {
    const cv::Scalar c = colour(track && o.oid >= 0 ? o.oid : o.cid);
    cv::rectangle(img, o.bbox, c, thick);
    char text[128];
    if (track && o.oid >= 0)
      snprintf(text, sizeof text, "%s %.2f #%d", names[o.cid].c_str(), o.prob, o.oid);
    else
      snprintf(text, sizeof text, "%s %.2f", names[o.cid].c_str(), o.prob);
    label(img, text, o.bbox.tl(), c, thick, font);
  }
}

void overlayClock(cv::Mat& img, double fps, double time) {
  const int thick = std::max(2, std::min(img.cols, img.rows) / 300);
  const double font = std::max(0.5, std::min(img.cols, img.rows) / 900.0);
  char text[64];
  const long t = (long)std::max(0.0, time);
  snprintf(text, sizeof text, "%.1f frames/s  %ld:%02ld:%04.1f", fps, t / 3600, t / 60 % 60, std::fmod(std::max(0.0, time), 60.0));
  label(img, text, cv::Point(0, 0), cv::Scalar(255, 255, 255), thick, font);
}

void trackIds(IdTracker& tracker, cv::Mat& frame, ORVA::DetectObjList& dets) {
  ORVA::DetectObjList reported = dets;
  tracker.process(frame, reported);
  const ORVA::DetectObjList tracks = tracker.fed();
  std::vector<bool> taken(tracks.size(), false);
  for (ORVA::DetectObj& d : dets) {
    d.oid = -1;
    double best = 0;
    int pick = -1;
    for (size_t t = 0; t < tracks.size(); ++t) {
      if (taken[t]) continue;
      const double inter = (d.bbox & tracks[t].bbox).area();
      const double uni = d.bbox.area() + tracks[t].bbox.area() - inter;
      const double iou = uni > 0 ? inter / uni : 0;
      if (iou > best) best = iou, pick = (int)t;
    }
    if (pick >= 0) {
      taken[pick] = true;
      d.oid = tracks[pick].oid;
    }
  }
}

std::vector<int> codecsFor(const fs::path& path) {
  const std::string e = path.extension().string();
  if (e == ".avi") return {cv::VideoWriter::fourcc('M', 'J', 'P', 'G')};
  return {cv::VideoWriter::fourcc('a', 'v', 'c', '1'), cv::VideoWriter::fourcc('m', 'p', '4', 'v')};
}

double round4(float v) { return std::round(v * 1e4) / 1e4; }

nlohmann::ordered_json frameJson(const std::string& source, long frame, double time, int width, int height,
                                 const ORVA::DetectObjList& list, const std::vector<std::string>& names) {
  nlohmann::ordered_json line = {{"source", source}, {"frame", frame}};
  if (time >= 0) line["time"] = std::round(time * 1e3) / 1e3;
  line["width"] = width;
  line["height"] = height;
  nlohmann::ordered_json arr = nlohmann::ordered_json::array();
  for (const ORVA::DetectObj& d : list)
    arr.push_back(nlohmann::ordered_json{{"class", names[d.cid]},
                                         {"class_id", d.cid},
                                         {"score", round4(d.prob)},
                                         {"box", {d.bbox.x, d.bbox.y, d.bbox.width, d.bbox.height}},
                                         {"id", d.oid}});
  line["objects"] = arr;
  return line;
}

std::string jsonText(const nlohmann::ordered_json& j) {
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace orvacli
