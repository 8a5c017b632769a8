// orva detect: objects in images, folders, video files and cameras, as JSON lines, annotated
// pictures or video, and one summary line per picture or stream.
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include <nlohmann/json.hpp>
#include <opencv2/highgui.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "cli.h"
#include "orva/image.h"
#include "orva/networks.h"
#include "orva/tracker.h"
#include "detect_common.h"
#include "output_file.h"
#include "signals.h"
#include "stream_runner.h"

namespace fs = std::filesystem;
using namespace orvacli;
using Clock = std::chrono::steady_clock;

namespace {

bool isImageFile(const fs::path& p) {
  std::string e = p.extension().string();
  std::transform(e.begin(), e.end(), e.begin(), ::tolower);
  return e == ".jpg" || e == ".jpeg" || e == ".png" || e == ".bmp" || e == ".webp" || e == ".tif" || e == ".tiff";
}

bool isCameraIndex(const std::string& s) {
  return !s.empty() && s.size() < 4 && std::all_of(s.begin(), s.end(), ::isdigit) && !fs::exists(s);
}

// "rtsp://...", "http://...", "udp://...": a stream OpenCV's FFmpeg reader opens.
bool isStreamUrl(const std::string& s) {
  const size_t k = s.find("://");
  return k != std::string::npos && k > 0 &&
         std::all_of(s.begin(), s.begin() + k, [](char c) { return std::isalnum((unsigned char)c) || c == '+' || c == '-' || c == '.'; });
}

// A stream URL through FFmpeg, which honours a deadline on opening and on every read (a
// camera that stops answering ends its source instead of holding its reader forever); the
// other readers wait on an unanswered URL for as long as the network does.
std::unique_ptr<cv::VideoCapture> openStream(const std::string& url, double timeout_s, std::string& why) {
  const int ms = (int)std::lround(timeout_s * 1000);
  const Clock::time_point t0 = Clock::now();
  auto cap = std::make_unique<cv::VideoCapture>(
      url, cv::CAP_FFMPEG, std::vector<int>{cv::CAP_PROP_OPEN_TIMEOUT_MSEC, ms, cv::CAP_PROP_READ_TIMEOUT_MSEC, ms});
  if (cap->isOpened()) return cap;
  const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
  char buf[96];
  if (secs >= 0.9 * timeout_s)
    snprintf(buf, sizeof buf, "no answer within %g s (--open-timeout)", timeout_s);
  else
    snprintf(buf, sizeof buf, "can't open the stream");
  why = buf;
  return nullptr;
}

// What the user asked for beyond the model.
struct Settings {
  float thresh = 0.5f, nms = 0.4f;
  std::string out_dir, json_path = "-", crops_dir, classes_arg, roi_arg, start_arg;
  bool track = false, only_hits = false, show = false, progress = false;
  long max_frames = 0, every = 1;
  int min_size = 0;
  float track_iou = 0.3f;
  int track_max_miss = 3, track_min_hits = 2;
  bool realtime = false, mqtt_required = false;
  std::string mqtt, topic = "orva";
  double open_timeout = 10;
};

// One input as the user named it: a list of pictures (a file or a folder), a video file or
// a camera.
struct Source {
  std::string arg;
  unsigned key;  // the detect network's parameter key
  std::vector<fs::path> images;
  std::unique_ptr<cv::VideoCapture> video;
  bool camera = false;
  bool live = false;  // a camera or a stream URL: frames come whether or not they are taken
  long total = 0;  // frames to go through in a video file, 0 when unknown
  long next = 0;   // index of the next frame
  long read = 0;   // frames read to detect
  long done = 0;   // frames detected
  std::unique_ptr<IdTracker> tracker;
  std::map<int, std::set<int>> tracks;  // class -> the track ids seen
  std::unique_ptr<cv::VideoWriter> writer;
  fs::path out_path, part_path;
  bool write_failed = false;
  long objects = 0;
  Clock::time_point start;

  bool isVideo() const { return video != nullptr; }
  std::string name(long frame) const { return isVideo() ? arg : images[frame].string(); }
};

struct Frame {
  Source* src;
  long index;
  double time;  // seconds from the video's own timestamps; -1 for pictures
  cv::Mat img;
  cv::Point offset;  // of the region of interest in the frame
};

// "[#######.......]  120/300  24.1 frames/s  7 s left" over one line of a terminal.
void progress(const Source& s, bool done) {
  const double secs = std::chrono::duration<double>(Clock::now() - s.start).count();
  const double fps = secs > 0 ? s.done / secs : 0;
  const int width = 30, filled = s.total ? (int)(width * std::min(1.0, (double)s.next / s.total)) : 0;
  const long left = fps > 0 && s.total > s.next ? (long)((s.total - s.next) / fps) : 0;
  fprintf(stderr, "\r[%s%s] %5ld/%ld  %.1f frames/s  %ld s left ", std::string(filled, '#').c_str(),
          std::string(width - filled, '.').c_str(), s.next, s.total, fps, left);
  if (done) fprintf(stderr, "\r%*s\r", width + 60, "");
}

// Whether a window can be opened: the display toolkit ends the process when it can't reach
// its server, so the X or Wayland socket is tried first.
bool displayReachable(std::string& why) {
  const char* wayland = getenv("WAYLAND_DISPLAY");
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (wayland && *wayland && fs::exists(wayland[0] == '/' ? fs::path(wayland) : fs::path(runtime ? runtime : "") / wayland))
    return true;
  const char* display = getenv("DISPLAY");
  if (!display || !*display) {
    why = "DISPLAY is not set";
    return false;
  }
  const std::string d = display;
  const size_t colon = d.rfind(':');
  const int number = colon == std::string::npos ? -1 : atoi(d.c_str() + colon + 1);
  const std::string host = colon == std::string::npos ? "" : d.substr(0, colon);
  bool ok = false;
  if (number >= 0 && (host.empty() || host == "unix")) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "/tmp/.X11-unix/X%d", number);
    ok = fd >= 0 && connect(fd, (sockaddr*)&addr, sizeof addr) == 0;
    if (fd >= 0) close(fd);
  } else if (number >= 0) {
    addrinfo hints{}, *res = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(host.c_str(), std::to_string(6000 + number).c_str(), &hints, &res) == 0) {
      for (addrinfo* a = res; a && !ok; a = a->ai_next) {
        const int fd = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
        ok = fd >= 0 && connect(fd, a->ai_addr, a->ai_addrlen) == 0;
        if (fd >= 0) close(fd);
      }
      freeaddrinfo(res);
    }
  }
  if (!ok) why = "can't reach the display " + d;
  return ok;
}

// stdout and stderr on the same terminal would mix the bar into the JSON lines.
bool sameTerminal() {
  struct stat a, b;
  return isatty(1) && fstat(1, &a) == 0 && fstat(2, &b) == 0 && a.st_rdev == b.st_rdev;
}

// "1,5,car": class names or numbers, each checked against the model's classes.
bool parseClasses(const std::string& arg, const std::vector<std::string>& names, std::vector<bool>& keep,
                  std::string& error) {
  keep.assign(names.size(), false);
  size_t at = 0;
  while (at <= arg.size()) {
    const size_t end = std::min(arg.find(',', at), arg.size());
    const std::string item = arg.substr(at, end - at);
    at = end + 1;
    if (item.empty()) continue;
    const auto it = std::find(names.begin(), names.end(), item);
    if (it != names.end()) {
      keep[it - names.begin()] = true;
      continue;
    }
    char* stop = nullptr;
    const long id = std::strtol(item.c_str(), &stop, 10);
    if (*stop || id < 0 || id >= (long)names.size()) {
      error = "--classes: '" + item + "' is neither a class name of the model nor a number below " +
              std::to_string(names.size());
      return false;
    }
    keep[id] = true;
  }
  return true;
}

}  // namespace

int cmd_detect(int argc, char** argv) {
  CLI::App app("Finds objects and writes one JSON line per frame (source, frame, time, boxes in pixels, class, "
               "score, track id), annotated pictures or video, and a summary line per picture or stream.",
               "orva detect");
  ModelOptions o;
  addModelOptions(app, o);
  Settings st;
  std::vector<std::string> inputs, per_source;
  app.add_option("sources", inputs, "image files, folders of images, video files, camera indexes or stream URLs")
      ->required();
  app.add_option("-t,--thresh", st.thresh, "score threshold")->capture_default_str()->check(CLI::Range(0.0, 1.0));
  app.add_option("--nms", st.nms, "overlap above which the lower-scored box goes; <= 0: soft suppression")
      ->capture_default_str();
  app.add_option("--source-thresh", per_source, "SOURCE=THRESH[:NMS] for one source (its argument or number)")
      ->allow_extra_args(false);
  app.add_option("--classes", st.classes_arg, "report only these classes: names or numbers, comma-separated");
  app.add_option("--min-size", st.min_size, "drop boxes narrower or lower than this many pixels")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--roi", st.roi_arg, "X,Y,W,H: detect only inside this rectangle of each frame (pixels)");
  app.add_option("-o,--output", st.out_dir, "folder for annotated pictures and videos");
  app.add_option("--json", st.json_path, "JSON lines to this file; - for stdout")->capture_default_str();
  app.add_option("--save-crops", st.crops_dir, "folder for a picture of every object found");
  app.add_flag("--only-hits", st.only_hits, "JSON lines, pictures and video frames only where objects were found");
  app.add_flag("--show", st.show, "show the annotated frames in a window (needs a display)");
  app.add_flag("--progress", st.progress, "a progress bar on video files even when stderr is not a terminal");
  app.add_option("--start", st.start_arg, "first frame of each source: a frame number, or seconds as 12.5s");
  app.add_option("--max-frames", st.max_frames, "detect at most this many frames of each source")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--every", st.every, "detect every Nth frame of a video or camera")->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_flag("--track", st.track, "follow objects from frame to frame and report their track ids");
  app.add_option("--track-iou", st.track_iou, "least overlap of a detection with its track")->capture_default_str()
      ->check(CLI::Range(0.0, 1.0));
  app.add_option("--track-max-miss", st.track_max_miss, "frames a track survives without a detection")
      ->capture_default_str()->check(CLI::NonNegativeNumber);
  app.add_option("--track-min-hits", st.track_min_hits, "frames in a row with a detection before a track has an id")
      ->capture_default_str()->check(CLI::NonNegativeNumber);
  app.add_flag("--realtime", st.realtime, "read video files at their own frame rate, as cameras deliver");
  app.add_option("--mqtt", st.mqtt, "HOST[:PORT]: publish each frame's line and track events to this MQTT broker");
  app.add_option("--topic", st.topic, "topic prefix of the events: PREFIX/SOURCE/frames and PREFIX/SOURCE/tracks")
      ->capture_default_str();
  app.add_flag("--mqtt-required", st.mqtt_required, "fail at once when the broker can't be reached");
  app.add_option("--open-timeout", st.open_timeout, "seconds a stream URL may take to open, or to deliver a frame")
      ->capture_default_str()->check(CLI::Range(0.1, 3600.0));
  int status;
  if (parseArgs(app, argc, argv, status)) return status;
  auto usage = [](const std::string& what) {
    std::cerr << "orva detect: " << what << "\n(try orva detect --help)\n";
    return kUsage;
  };
  cv::Rect roi;
  if (!st.roi_arg.empty()) {
    char tail = 0;
    if (sscanf(st.roi_arg.c_str(), "%d,%d,%d,%d%c", &roi.x, &roi.y, &roi.width, &roi.height, &tail) != 4 ||
        roi.x < 0 || roi.y < 0 || roi.width <= 0 || roi.height <= 0)
      return usage("--roi " + st.roi_arg + ": expected X,Y,W,H, whole pixels, W and H above 0");
  }
  long start_frame = 0;
  double start_secs = -1;
  if (!st.start_arg.empty()) {
    char* end = nullptr;
    const double v = std::strtod(st.start_arg.c_str(), &end);
    const bool secs = *end == 's' && end[1] == 0;
    if (end == st.start_arg.c_str() || (*end && !secs) || v < 0 || (!secs && v != std::floor(v)))
      return usage("--start " + st.start_arg + ": expected a frame number or seconds such as 12.5s");
    if (secs)
      start_secs = v;
    else
      start_frame = (long)v;
  }
  std::string no_display;
  if (st.show && !displayReachable(no_display))
    return fail("detect", "--show: no display to show frames on (" + no_display + "); use -o to write them");

  // Sources first: a missing file is reported before any model is loaded.
  std::vector<std::unique_ptr<Source>> sources;
  for (const std::string& a : inputs) {
    auto s = std::make_unique<Source>();
    s->arg = a;
    s->key = (unsigned)sources.size();
    if (isCameraIndex(a)) {
      s->video = std::make_unique<cv::VideoCapture>(std::stoi(a));
      s->camera = s->live = true;
      if (!s->video->isOpened()) return fail("detect", "camera " + a + ": can't open");
    } else if (isStreamUrl(a) && !fs::exists(a)) {
      std::string why;
      s->video = openStream(a, st.open_timeout, why);
      if (!s->video) return fail("detect", a + ": " + why);
      // A file served over the network says how many frames it holds and is read as a file;
      // a live stream does not.
      s->total = std::max(0L, (long)s->video->get(cv::CAP_PROP_FRAME_COUNT));
      s->live = s->total == 0;
    } else if (fs::is_directory(a)) {
      std::error_code ec;
      for (const auto& e : fs::directory_iterator(a, ec))
        if (e.is_regular_file() && isImageFile(e.path())) s->images.push_back(e.path());
      if (ec) return fail("detect", a + ": " + ec.message());
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
    }
    if (s->isVideo()) {
      if (start_secs >= 0) s->video->set(cv::CAP_PROP_POS_MSEC, start_secs * 1000);
      if (start_frame > 0) {
        // Seeking is not exact in every container: frames are read past when it fails.
        if (s->live || !s->video->set(cv::CAP_PROP_POS_FRAMES, (double)start_frame)) {
          for (long k = 0; k < start_frame && s->video->grab(); ++k) {
          }
        }
      }
      s->next = std::max(0L, (long)s->video->get(cv::CAP_PROP_POS_FRAMES));
      if (s->live) s->next = start_frame;
    } else {
      s->next = start_frame;
    }
    if (s->total && st.max_frames > 0) s->total = std::min(s->total, s->next + st.max_frames * st.every);
    sources.push_back(std::move(s));
  }
  // Several videos, events or pacing: the sources run at once (stream_runner.cpp).
  bool all_video = true;
  for (const auto& s : sources) all_video = all_video && s->isVideo();
  const bool live_options = !st.mqtt.empty() || st.realtime;
  if (live_options && !all_video) return usage("--mqtt and --realtime take video files, cameras or streams only");
  if (live_options && (st.show || !st.crops_dir.empty()))
    return usage("--show and --save-crops don't go with --mqtt or --realtime");
  if (st.topic.empty() || st.topic.find_first_of("+#") != std::string::npos)
    return usage("--topic " + st.topic + ": expected a topic without wildcards");
  const bool concurrent = all_video && (live_options || (sources.size() > 1 && !st.show && st.crops_dir.empty()));
  std::map<unsigned, std::pair<float, float>> thresholds;
  for (const std::string& entry : per_source) {
    const size_t eq = entry.rfind('=');
    if (eq == std::string::npos) return usage("--source-thresh " + entry + ": expected SOURCE=THRESH[:NMS]");
    const std::string name = entry.substr(0, eq);
    int found = -1;
    for (const auto& s : sources)
      if (s->arg == name || std::to_string(s->key) == name) found = (int)s->key;
    if (found < 0) return usage("--source-thresh " + entry + ": '" + name + "' is none of the sources");
    const std::string v = entry.substr(eq + 1);
    char* end = nullptr;
    const float t = std::strtof(v.c_str(), &end);
    float n = st.nms;
    if (*end == ':') n = std::strtof(end + 1, &end);
    if (v.empty() || *end || !(t >= 0 && t <= 1))
      return usage("--source-thresh " + entry + ": expected SOURCE=THRESH[:NMS], THRESH in 0..1");
    thresholds[(unsigned)found] = {t, n};
  }

  // The JSON lines go to a temporary name beside the file and take its name at the end.
  std::string json_part;
  std::ofstream json_file;
  if (st.json_path != "-") {
    try {
      checkOutputFolder(st.json_path);
    } catch (const std::exception& e) {
      return fail("detect", e.what());
    }
    json_part = partName(st.json_path);
    json_file.open(json_part);
    if (!json_file) return fail("detect", st.json_path + ": can't write (" + strerror(errno) + ")");
  }
  std::ostream& json_out = st.json_path == "-" ? std::cout : json_file;
  const std::string json_name = st.json_path == "-" ? "stdout" : st.json_path;
  for (const std::string& dir : {st.out_dir, st.crops_dir}) {
    if (dir.empty()) continue;
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) return fail("detect", dir + ": " + ec.message());
  }
  auto dropJson = [&] {
    if (!json_part.empty() && json_part != st.json_path) std::remove(json_part.c_str());
  };

  ORVA::DetectNetwork net(ORVA::TEST, o.batch, o.gpu);
  try {
    loadNetwork(net, o);
  } catch (const std::exception& e) {
    dropJson();
    return fail("detect", e.what());
  }
  const std::vector<std::string> names = classNames(o, net.getClassNum());
  std::vector<bool> keep_class(names.size(), true);
  if (!st.classes_arg.empty()) {
    std::string error;
    if (!parseClasses(st.classes_arg, names, keep_class, error)) {
      dropJson();
      return usage(error);
    }
  }
  for (const auto& s : sources) {
    const auto it = thresholds.find(s->key);
    net.setParameter(s->key, it == thresholds.end() ? st.thresh : it->second.first,
                     it == thresholds.end() ? st.nms : it->second.second);
    if (st.track) s->tracker = std::make_unique<IdTracker>(st.track_max_miss, st.track_min_hits, st.track_iou);
    s->start = Clock::now();
  }

  const bool bar = st.progress || (isatty(2) && !sameTerminal());
  catchStopSignals();
  int failures = 0;
  bool json_failed = false;
  const int batch = net.getBatch();
  std::vector<Frame> frames;
  std::vector<cv::Mat> inputs_lb(batch);
  std::vector<cv::Size> sizes(batch);
  std::vector<unsigned> keys(batch);
  std::vector<ORVA::DetectObjList> objs(batch);
  std::set<fs::path> written;  // outputs of this run: a second source's file of the same name gets a suffix

  auto outputPath = [&](const fs::path& dir, const fs::path& name) {
    fs::path p = dir / name;
    for (int k = 2; written.count(p); ++k)
      p = dir / (name.stem().string() + "_" + std::to_string(k) + name.extension().string());
    written.insert(p);
    return p;
  };

  // Reads the next frame of a source to detect; false when it has no more.
  auto nextFrame = [&](Source& s, Frame& f, std::string& error) {
    if (stopSignal() || (st.max_frames > 0 && s.read >= st.max_frames)) return false;
    f.src = &s;
    if (s.isVideo()) {
      for (long skip = 1; s.read > 0 && skip < st.every; ++skip) {
        if (!s.video->grab()) return false;
        ++s.next;
      }
      if (!s.video->read(f.img) || f.img.empty()) return false;
      f.time = s.live ? std::chrono::duration<double>(Clock::now() - s.start).count()
                        : s.video->get(cv::CAP_PROP_POS_MSEC) / 1000.0;
    } else {
      if (s.next >= (long)s.images.size()) return false;
      f.img = cv::imread(s.images[s.next].string(), cv::IMREAD_COLOR);
      f.time = -1;
      if (f.img.empty()) error = s.images[s.next].string() + ": can't read as an image";
    }
    f.index = s.next++;
    ++s.read;
    return true;
  };

  auto finishSource = [&](Source& s) {
    if (!s.isVideo()) return;
    if (bar && s.total) progress(s, true);
    if (s.writer) {
      s.writer->release();
      try {
        commitPart(s.part_path.string(), s.out_path.string());
      } catch (const std::exception& e) {
        fail("detect", e.what());
        ++failures;
        s.out_path.clear();
      }
    }
    const double secs = std::chrono::duration<double>(Clock::now() - s.start).count();
    // Distinct tracks per class, the most followed first.
    std::vector<std::pair<size_t, int>> counts;
    for (const auto& t : s.tracks) counts.push_back({t.second.size(), t.first});
    std::sort(counts.begin(), counts.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::string tracked;
    for (const auto& c : counts)
      tracked += (tracked.empty() ? ", tracks: " : ", ") + std::to_string(c.first) + " " +
                 (c.second < (int)names.size() ? names[c.second] : "class " + std::to_string(c.second));
    fprintf(stderr, "%s: %ld frames, %ld detections, %.1f frames/s%s%s%s%s\n", s.arg.c_str(), s.done, s.objects,
            secs > 0 ? s.done / secs : 0.0, tracked.c_str(), s.out_path.empty() ? "" : " -> ", s.out_path.c_str(),
            stopSignal() ? " (interrupted)" : "");
  };

  auto writeVideoFrame = [&](Source& s, const cv::Mat& img) {
    if (s.write_failed) return;
    if (!s.writer) {
      s.out_path = outputPath(st.out_dir, s.camera ? "camera" + s.arg + ".mp4" : fs::path(s.arg).stem().string() + ".mp4");
      s.part_path = partName(s.out_path.string());
      double fps = s.video->get(cv::CAP_PROP_FPS);
      if (!(fps > 0 && fps < 1000)) fps = 25;
      fps /= st.every;
      for (int codec : codecsFor(s.out_path)) {
        s.writer = std::make_unique<cv::VideoWriter>(s.part_path.string(), codec, fps, img.size());
        if (s.writer->isOpened()) break;
      }
      if (!s.writer->isOpened()) {
        fail("detect", s.out_path.string() + ": can't write a video");
        ++failures;
        s.writer.reset();
        s.out_path.clear();
        s.write_failed = true;
        return;
      }
    }
    s.writer->write(img);
  };

  // Runs one batch: letterbox, detect, then per frame track, report and annotate.
  auto runBatch = [&]() {
    const int n = (int)frames.size();
    if (n == 0) return;
    const auto t0 = Clock::now();
    std::vector<cv::Mat> views(n);
    for (int k = 0; k < n; ++k) {
      Frame& f = frames[k];
      views[k] = f.img;
      f.offset = cv::Point(0, 0);
      if (roi.area() > 0) {
        const cv::Rect r = roi & cv::Rect(0, 0, f.img.cols, f.img.rows);
        if (r.area() > 0) {
          views[k] = f.img(r);
          f.offset = r.tl();
        }
      }
      sizes[k] = cv::Size(net.iW, net.iH);
      ORVA::resize_ratio(views[k], inputs_lb[k], &sizes[k], 0.f, 128);
      keys[k] = f.src->key;
    }
    net.detect(objs.data(), inputs_lb.data(), sizes.data(), keys.data(), n);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count() / n;
    for (int k = 0; k < n; ++k) {
      Frame& f = frames[k];
      Source& s = *f.src;
      ORVA::DetectObjList& list = objs[k];
      // Boxes come back in the letterbox's widened frame; keep them inside the picture.
      const cv::Rect inside(0, 0, views[k].cols, views[k].rows);
      for (ORVA::DetectObj& d : list) {
        d.bbox &= inside;
        d.bbox += f.offset;
      }
      list.erase(std::remove_if(list.begin(), list.end(),
                                [&](const ORVA::DetectObj& d) {
                                  return d.bbox.area() <= 0 || d.bbox.width < st.min_size ||
                                         d.bbox.height < st.min_size || d.cid < 0 ||
                                         d.cid >= (int)keep_class.size() || !keep_class[d.cid];
                                }),
                 list.end());
      if (s.tracker) {
        trackIds(*s.tracker, f.img, list);
        for (const ORVA::DetectObj& d : list)
          if (d.oid >= 0) s.tracks[d.cid].insert(d.oid);
      }
      s.objects += (long)list.size();
      ++s.done;
      const bool write = !st.only_hits || !list.empty();

      std::string crops_failed;
      if (!st.crops_dir.empty()) {
        const std::string stem = fs::path(s.isVideo() ? s.arg : s.images[f.index].string()).stem().string();
        for (size_t j = 0; j < list.size(); ++j) {
          const ORVA::DetectObj& d = list[j];
          char tail[96];
          snprintf(tail, sizeof tail, "_%06ld_%zu_", f.index, j);
          const fs::path p = outputPath(st.crops_dir, stem + tail + names[d.cid] + ".jpg");
          const std::string part = partName(p.string());
          bool ok = false;
          try {
            ok = cv::imwrite(part, f.img(d.bbox));
            if (ok) commitPart(part, p.string());
          } catch (const std::exception&) {
            ok = false;
          }
          if (!ok) {
            std::remove(part.c_str());
            if (crops_failed.empty()) fail("detect", p.string() + ": can't write");
            crops_failed = p.string();
            ++failures;
          }
        }
      }

      if (write && !json_failed) {
        json_out << jsonText(frameJson(s.name(f.index), f.index, f.time, f.img.cols, f.img.rows, list, names)) << "\n";
      }

      bool picture_written = false;
      if (!st.out_dir.empty() || st.show) {
        annotate(f.img, list, names, st.track);
        if (s.isVideo()) {
          const double secs = std::chrono::duration<double>(Clock::now() - s.start).count();
          overlayClock(f.img, secs > 0 ? s.done / secs : 0.0, f.time);
        }
        if (st.show) {
          cv::imshow("orva detect", f.img);
          if (cv::waitKey(1) == 27) raise(SIGINT);
        }
      }
      if (!st.out_dir.empty() && write) {
        if (s.isVideo()) {
          writeVideoFrame(s, f.img);
        } else {
          s.out_path = outputPath(st.out_dir, s.images[f.index].filename());
          const std::string part = partName(s.out_path.string());
          try {
            picture_written = cv::imwrite(part, f.img);
            if (picture_written) commitPart(part, s.out_path.string());
          } catch (const std::exception&) {
            picture_written = false;
          }
          if (!picture_written) {
            std::remove(part.c_str());
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
                scores.c_str(), ms, picture_written ? " -> " : "", picture_written ? s.out_path.c_str() : "");
      } else if (bar && s.total) {
        progress(s, false);
      }
    }
    json_out.flush();
    if (!json_out && !json_failed) {
      json_failed = true;
      fail("detect", json_name + ": can't write (" + strerror(errno) + ")");
      ++failures;
    }
    frames.clear();
  };

  if (concurrent) {
    std::vector<StreamSource> streams;
    for (auto& sp : sources)
      streams.push_back(StreamSource{sp->arg, sp->key, std::move(sp->video),
                                     sp->live, sp->total, sp->next});
    StreamOptions so;
    so.max_frames = st.max_frames, so.every = st.every, so.realtime = st.realtime, so.only_hits = st.only_hits;
    so.track = st.track, so.stats = bar, so.min_size = st.min_size, so.roi = roi, so.track_iou = st.track_iou;
    so.track_max_miss = st.track_max_miss, so.track_min_hits = st.track_min_hits, so.out_dir = st.out_dir;
    so.mqtt = st.mqtt, so.topic = st.topic, so.mqtt_required = st.mqtt_required;
    const int failed = runStreams(net, streams, so, names, keep_class, json_out, json_name, json_failed);
    if (failed < 0) {
      dropJson();
      return kFailed;
    }
    failures += failed;
    sources.clear();
  }
  for (auto& sp : sources) {
    Source& s = *sp;
    Frame f;
    std::string error;
    while (nextFrame(s, f, error)) {
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
  if (st.json_path != "-") {
    json_file.close();
    if (!json_file && !json_failed) {
      fail("detect", json_name + ": can't write (" + strerror(errno) + ")");
      ++failures;
      json_failed = true;
    }
    if (json_failed) {
      dropJson();
    } else {
      try {
        commitPart(json_part, st.json_path);
      } catch (const std::exception& e) {
        fail("detect", e.what());
        ++failures;
      }
    }
  }
  if (stopSignal()) return stopStatus();
  return failures ? kFailed : kOk;
}
