// orva detect: objects in images, folders, video files and cameras, as JSON lines, annotated
// pictures or video, and one summary line per picture or stream.
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "cli.h"
#include "orva/image.h"
#include "orva/networks.h"
#include "orva/tracker.h"

namespace fs = std::filesystem;
using namespace orvacli;
using Clock = std::chrono::steady_clock;

namespace {

// Set by Ctrl-C: the streams stop after the frame in hand, so videos are closed properly.
volatile std::sig_atomic_t g_stop = 0;
void onInterrupt(int) { g_stop = 1; }

bool isImageFile(const fs::path& p) {
  std::string e = p.extension().string();
  std::transform(e.begin(), e.end(), e.begin(), ::tolower);
  return e == ".jpg" || e == ".jpeg" || e == ".png" || e == ".bmp" || e == ".webp" || e == ".tif" || e == ".tiff";
}

bool isCameraIndex(const std::string& s) {
  return !s.empty() && s.size() < 4 && std::all_of(s.begin(), s.end(), ::isdigit) && !fs::exists(s);
}

// One input as the user named it: a list of pictures (a file or a folder), a video file or
// a camera.
struct Source {
  std::string arg;
  unsigned key;  // the detect network's parameter key
  std::vector<fs::path> images;
  std::unique_ptr<cv::VideoCapture> video;
  bool camera = false;
  long total = 0;  // frames in a video file, 0 when unknown
  long next = 0;   // index of the next frame
  std::unique_ptr<ORVA::Tracker> tracker;
  std::map<int, std::set<int>> tracks;  // class -> the track ids seen
  std::unique_ptr<cv::VideoWriter> writer;
  fs::path out_path;
  long objects = 0;
  Clock::time_point start;

  bool isVideo() const { return video != nullptr; }
  std::string name(long frame) const {
    return isVideo() ? arg : images[frame].string();
  }
};

struct Frame {
  Source* src;
  long index;
  cv::Mat img;
};

// Reads the next frame of a source; false when it has no more.
bool nextFrame(Source& s, long max_frames, Frame& f, std::string& error) {
  if (g_stop || (max_frames > 0 && s.next >= max_frames)) return false;
  f.src = &s;
  f.index = s.next;
  if (s.isVideo()) {
    if (!s.video->read(f.img) || f.img.empty()) return false;
  } else {
    if (s.next >= (long)s.images.size()) return false;
    f.img = cv::imread(s.images[s.next].string(), cv::IMREAD_COLOR);
    if (f.img.empty()) error = s.images[s.next].string() + ": can't read as an image";
  }
  ++s.next;
  return true;
}

cv::Scalar colour(int k) {
  static const cv::Scalar kColours[] = {{0, 200, 255}, {255, 128, 0}, {80, 220, 80}, {255, 0, 200},
                                        {0, 80, 255},  {200, 200, 0}, {160, 80, 255}, {0, 255, 160}};
  return kColours[(k % 8 + 8) % 8];
}

void annotate(cv::Mat& img, const ORVA::DetectObjList& objs, const std::vector<std::string>& names, bool track) {
  const int thick = std::max(2, std::min(img.cols, img.rows) / 300);
  const double font = std::max(0.5, std::min(img.cols, img.rows) / 900.0);
  for (const ORVA::DetectObj& o : objs) {
    const cv::Scalar c = colour(track ? o.oid : o.cid);
    cv::rectangle(img, o.bbox, c, thick);
    char label[128];
    if (track)
      snprintf(label, sizeof label, "%s %.2f #%d", names[o.cid].c_str(), o.prob, o.oid);
    else
      snprintf(label, sizeof label, "%s %.2f", names[o.cid].c_str(), o.prob);
    int base = 0;
    const cv::Size ts = cv::getTextSize(label, cv::FONT_HERSHEY_SIMPLEX, font, thick / 2 + 1, &base);
    const int top = o.bbox.y >= ts.height + 2 * thick ? o.bbox.y - ts.height - 2 * thick : o.bbox.y;
    cv::rectangle(img, cv::Rect(o.bbox.x, top, ts.width + 2 * thick, ts.height + 2 * thick), c, cv::FILLED);
    cv::putText(img, label, cv::Point(o.bbox.x + thick, top + ts.height + thick), cv::FONT_HERSHEY_SIMPLEX, font,
                cv::Scalar(0, 0, 0), thick / 2 + 1, cv::LINE_AA);
  }
}

double round4(float v) { return std::round(v * 1e4) / 1e4; }

// "[#######.......]  120/300  24.1 frames/s  7 s left" over one line of a terminal.
void progress(const Source& s, bool done) {
  const double secs = std::chrono::duration<double>(Clock::now() - s.start).count();
  const double fps = secs > 0 ? s.next / secs : 0;
  const int width = 30, filled = s.total ? (int)(width * std::min(1.0, (double)s.next / s.total)) : 0;
  const long left = fps > 0 && s.total > s.next ? (long)((s.total - s.next) / fps) : 0;
  fprintf(stderr, "\r[%s%s] %5ld/%ld  %.1f frames/s  %ld s left ", std::string(filled, '#').c_str(),
          std::string(width - filled, '.').c_str(), s.next, s.total, fps, left);
  if (done) fprintf(stderr, "\r%*s\r", width + 60, "");
}

}  // namespace

int cmd_detect(int argc, char** argv) {
  CLI::App app("Finds objects and writes one JSON line per frame (source, frame, boxes in pixels, class, score, "
               "id), annotated pictures or video, and a summary line per picture or stream.",
               "orva detect");
  ModelOptions o;
  addModelOptions(app, o);
  std::vector<std::string> inputs, per_source;
  float thresh = 0.5f, nms = 0.4f;
  std::string out_dir, json_path = "-";
  bool track = false;
  long max_frames = 0;
  app.add_option("sources", inputs, "image files, folders of images, video files or camera indexes")->required();
  app.add_option("-t,--thresh", thresh, "score threshold")->capture_default_str()->check(CLI::Range(0.0, 1.0));
  app.add_option("--nms", nms, "overlap above which the lower-scored box goes; <= 0: soft suppression")
      ->capture_default_str();
  app.add_option("--source-thresh", per_source, "SOURCE=THRESH[:NMS] for one source (its argument or number)")
      ->allow_extra_args(false);
  app.add_option("-o,--output", out_dir, "folder for annotated pictures and videos");
  app.add_option("--json", json_path, "JSON lines to this file; - for stdout")->capture_default_str();
  app.add_flag("--track", track, "follow objects from frame to frame and report their ids");
  app.add_option("--max-frames", max_frames, "stop each video or camera after this many frames");
  int status;
  if (parseArgs(app, argc, argv, status)) return status;

  // Sources first: a missing file is reported before any model is loaded.
  std::vector<std::unique_ptr<Source>> sources;
  for (const std::string& a : inputs) {
    auto s = std::make_unique<Source>();
    s->arg = a;
    s->key = (unsigned)sources.size();
    if (isCameraIndex(a)) {
      s->video = std::make_unique<cv::VideoCapture>(std::stoi(a));
      s->camera = true;
      if (!s->video->isOpened()) return fail("detect", "camera " + a + ": can't open");
    } else if (fs::is_directory(a)) {
      for (const auto& e : fs::directory_iterator(a))
        if (e.is_regular_file() && isImageFile(e.path())) s->images.push_back(e.path());
      std::sort(s->images.begin(), s->images.end());
      if (s->images.empty()) return fail("detect", a + ": no images in this folder");
    } else if (!fs::is_regular_file(a)) {
      return fail("detect", a + ": no such file");
    } else if (isImageFile(a)) {
      s->images.push_back(a);
    } else {
      s->video = std::make_unique<cv::VideoCapture>(a);
      if (!s->video->isOpened()) return fail("detect", a + ": can't open as an image or a video");
      s->total = (long)s->video->get(cv::CAP_PROP_FRAME_COUNT);
      if (max_frames > 0 && s->total > max_frames) s->total = max_frames;
    }
    sources.push_back(std::move(s));
  }
  std::map<unsigned, std::pair<float, float>> thresholds;
  for (const std::string& entry : per_source) {
    const size_t eq = entry.rfind('=');
    if (eq == std::string::npos) return fail("detect", "--source-thresh " + entry + ": expected SOURCE=THRESH[:NMS]");
    const std::string name = entry.substr(0, eq);
    int found = -1;
    for (const auto& s : sources)
      if (s->arg == name || std::to_string(s->key) == name) found = (int)s->key;
    if (found < 0) return fail("detect", "--source-thresh " + entry + ": '" + name + "' is none of the sources");
    const std::string v = entry.substr(eq + 1);
    char* end = nullptr;
    const float t = std::strtof(v.c_str(), &end);
    float n = nms;
    if (*end == ':') n = std::strtof(end + 1, &end);
    if (v.empty() || *end || !(t >= 0 && t <= 1))
      return fail("detect", "--source-thresh " + entry + ": expected SOURCE=THRESH[:NMS], THRESH in 0..1");
    thresholds[(unsigned)found] = {t, n};
  }

  std::ofstream json_file;
  if (json_path != "-") {
    json_file.open(json_path);
    if (!json_file) return fail("detect", json_path + ": can't write");
  }
  std::ostream& json_out = json_path == "-" ? std::cout : json_file;
  if (!out_dir.empty()) {
    std::error_code ec;
    fs::create_directories(out_dir, ec);
    if (ec) return fail("detect", out_dir + ": " + ec.message());
  }

  ORVA::DetectNetwork net(ORVA::TEST, o.batch, o.gpu);
  try {
    loadNetwork(net, o);
  } catch (const std::exception& e) {
    return fail("detect", e.what());
  }
  const std::vector<std::string> names = classNames(o, net.getClassNum());
  for (const auto& s : sources) {
    const auto it = thresholds.find(s->key);
    net.setParameter(s->key, it == thresholds.end() ? thresh : it->second.first,
                     it == thresholds.end() ? nms : it->second.second);
    // The tracker reports a track only after two hits and keeps it through three misses.
    if (track) s->tracker = std::make_unique<ORVA::Tracker>(3, 2, 0.3f);
    s->start = Clock::now();
  }

  const bool tty = isatty(2);
  std::signal(SIGINT, onInterrupt);
  int failures = 0;
  const int batch = net.getBatch();
  std::vector<Frame> frames;
  std::vector<cv::Mat> inputs_lb(batch);
  std::vector<cv::Size> sizes(batch);
  std::vector<unsigned> keys(batch);
  std::vector<ORVA::DetectObjList> objs(batch);

  auto finishSource = [&](Source& s) {
    if (s.isVideo()) {
      if (tty && s.total) progress(s, true);
      const double secs = std::chrono::duration<double>(Clock::now() - s.start).count();
      // Distinct tracks per class, the most followed first.
      std::vector<std::pair<size_t, int>> counts;
      for (const auto& t : s.tracks) counts.push_back({t.second.size(), t.first});
      std::sort(counts.begin(), counts.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
      std::string tracked;
      for (const auto& c : counts)
        tracked += (tracked.empty() ? ", tracks: " : ", ") + std::to_string(c.first) + " " +
                   (c.second < (int)names.size() ? names[c.second] : "class " + std::to_string(c.second));
      fprintf(stderr, "%s: %ld frames, %ld detections, %.1f frames/s%s%s%s\n", s.arg.c_str(), s.next, s.objects,
              secs > 0 ? s.next / secs : 0.0, tracked.c_str(), s.out_path.empty() ? "" : " -> ", s.out_path.c_str());
      if (s.writer) s.writer->release();
    }
  };

  // Runs one batch: letterbox, detect, then per frame track, report and annotate.
  auto runBatch = [&]() {
    const int n = (int)frames.size();
    if (n == 0) return;
    const auto t0 = Clock::now();
    for (int k = 0; k < n; ++k) {
      sizes[k] = cv::Size(net.iW, net.iH);
      ORVA::resize_ratio(frames[k].img, inputs_lb[k], &sizes[k], 0.f, 128);
      keys[k] = frames[k].src->key;
    }
    net.detect(objs.data(), inputs_lb.data(), sizes.data(), keys.data(), n);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count() / n;
    for (int k = 0; k < n; ++k) {
      Frame& f = frames[k];
      Source& s = *f.src;
      ORVA::DetectObjList& list = objs[k];
      // Boxes come back in the letterbox's widened frame; keep them inside the picture.
      const cv::Rect inside(0, 0, f.img.cols, f.img.rows);
      for (ORVA::DetectObj& d : list) d.bbox &= inside;
      list.erase(std::remove_if(list.begin(), list.end(), [](const ORVA::DetectObj& d) { return d.bbox.area() <= 0; }),
                 list.end());
      if (s.tracker) s.tracker->process(f.img, list);
      if (s.tracker)
        for (const ORVA::DetectObj& d : list)
          if (d.oid >= 0) s.tracks[d.cid].insert(d.oid);
      s.objects += (long)list.size();

      nlohmann::ordered_json line = {{"source", s.name(f.index)}, {"frame", s.isVideo() ? f.index : 0},
                             {"width", f.img.cols}, {"height", f.img.rows}};
      nlohmann::ordered_json arr = nlohmann::ordered_json::array();
      for (const ORVA::DetectObj& d : list)
        arr.push_back(nlohmann::ordered_json{{"class", names[d.cid]},
                       {"class_id", d.cid},
                       {"score", round4(d.prob)},
                       {"box", {d.bbox.x, d.bbox.y, d.bbox.width, d.bbox.height}},
                       {"id", d.oid}});
      line["objects"] = arr;
      json_out << line.dump() << "\n";

      if (!out_dir.empty()) {
        annotate(f.img, list, names, track);
        if (s.isVideo()) {
          if (!s.writer) {
            s.out_path = fs::path(out_dir) / (s.camera ? "camera" + s.arg + ".mp4"
                                                       : fs::path(s.arg).stem().string() + ".mp4");
            double fps = s.video->get(cv::CAP_PROP_FPS);
            if (!(fps > 0 && fps < 1000)) fps = 25;
            s.writer = std::make_unique<cv::VideoWriter>(s.out_path.string(), cv::VideoWriter::fourcc('m', 'p', '4', 'v'),
                                                         fps, f.img.size());
            if (!s.writer->isOpened()) {
              fail("detect", s.out_path.string() + ": can't write a video");
              ++failures;
              s.out_path.clear();
            }
          }
          if (s.writer && s.writer->isOpened()) s.writer->write(f.img);
        } else {
          s.out_path = fs::path(out_dir) / s.images[f.index].filename();
          if (!cv::imwrite(s.out_path.string(), f.img)) {
            fail("detect", s.out_path.string() + ": can't write");
            ++failures;
          }
        }
      }
      if (!s.isVideo()) {
        std::string scores;
        std::map<std::string, int> count;
        for (const ORVA::DetectObj& d : list) {
          char b[16];
          snprintf(b, sizeof b, " %.2f", d.prob);
          scores += b;
          ++count[names[d.cid]];
        }
        std::string what;
        for (const auto& [name, c] : count)
          what += (what.empty() ? "" : ", ") + std::to_string(c) + " " + name + (c > 1 ? "s" : "");
        fprintf(stderr, "%s: %dx%d, %s%s%s, %.0f ms%s%s\n", s.images[f.index].filename().c_str(), f.img.cols,
                f.img.rows, what.empty() ? "nothing found" : what.c_str(), scores.empty() ? "" : ", scores",
                scores.c_str(), ms, out_dir.empty() ? "" : " -> ", out_dir.empty() ? "" : s.out_path.c_str());
      } else if (tty && s.total) {
        progress(s, false);
      }
    }
    json_out.flush();
    frames.clear();
  };

  for (auto& sp : sources) {
    Source& s = *sp;
    Frame f;
    std::string error;
    while (nextFrame(s, s.isVideo() ? max_frames : 0, f, error)) {
      if (!error.empty()) {
        fail("detect", error);
        ++failures;
        error.clear();
        continue;
      }
      frames.push_back(std::move(f));
      if ((int)frames.size() == batch) runBatch();
    }
    // A stream's frames are all out before its summary; pictures of the next source may
    // share a batch with this one's.
    if (s.isVideo()) runBatch();
    finishSource(s);
  }
  runBatch();
  return failures ? kFailed : kOk;
}
