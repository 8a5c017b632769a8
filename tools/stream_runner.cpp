#include "stream_runner.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include <nlohmann/json.hpp>

#include "cli.h"
#include "detect_common.h"
#include "mqtt_publisher.h"
#include "orva/orva.h"
#include "output_file.h"
#include "signals.h"

namespace orvacli {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Reads that fail in a row before a file source is given up; single bad frames are skipped.
constexpr int kMaxBadReads = 25;
// Annotated frames waiting for a source's video writer.
constexpr size_t kWriterQueue = 16;

double seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

struct Pending {
  cv::Mat img;
  long index = 0;
  double time = -1;
  cv::Point offset;
  Clock::time_point read_at;
  ORVA::DetectObjList objs;
};

// Places for frames with the engine, shared by every source. When a place frees, the source
// that has waited longest since its last frame went in takes it: without the turn, readers
// that happen to ask just after the worker takes a batch win every time and a source that
// asks a moment later is starved (measured: 196 against 8 frames of 200 at the same rate).
class FairGate {
 public:
  explicit FairGate(size_t places) : _places(places) {}

  // Waits until `who` may hand a frame over, or until `until`, or a stop. True when it may:
  // one place is then its own until leave().
  bool enter(const void* who, Clock::time_point until) {
    std::unique_lock<std::mutex> lock(_mutex);
    const Clock::time_point since = _last.count(who) ? _last[who] : Clock::time_point{};
    _waiting.emplace(since, who);
    bool ok = false;
    for (;;) {
      ok = _in_flight < _places && _waiting.begin()->second == who;
      if (ok || stopSignal() || Clock::now() >= until) break;
      _cv.wait_until(lock, std::min(until, Clock::now() + std::chrono::milliseconds(50)));
    }
    _waiting.erase(_waiting.find({since, who}));
    if (ok) {
      ++_in_flight;
      _last[who] = Clock::now();
    }
    // The next in line may be able to go now that this one is out of the way.
    _cv.notify_all();
    return ok;
  }

  void leave() {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      --_in_flight;
    }
    _cv.notify_all();
  }

 private:
  const size_t _places;
  std::mutex _mutex;
  std::condition_variable _cv;
  size_t _in_flight = 0;
  std::set<std::pair<Clock::time_point, const void*>> _waiting;  // oldest turn first
  std::map<const void*, Clock::time_point> _last;                  // when each last went in
};

struct LiveTrack {
  int cid;
  long first_frame, last_frame;
  double last_time;
  cv::Rect box;
};

struct Stream {
  StreamSource* src = nullptr;
  std::string topic;  // PREFIX/NAME
  double fps = 25;
  std::thread reader, writer;
  // Frames handed to the detect task, by tick, until their result comes back.
  std::mutex pending_mutex;
  std::map<unsigned, Pending> pending;
  std::atomic<long> read{0}, dropped{0}, skipped{0}, done{0}, objects{0}, written_dropped{0};
  std::atomic<bool> reading{true};
  std::string end_message;  // why reading ended early, set by the reader before `reading` drops
  Clock::time_point start;

  // The collector's alone.
  std::unique_ptr<IdTracker> tracker;
  std::map<int, std::set<int>> tracks;  // class -> track ids seen
  std::map<int, LiveTrack> live;
  std::vector<float> latency_ms;
  size_t latency_next = 0;
  bool closed = false;

  // Writer queue.
  std::mutex wmutex;
  std::condition_variable wcv;
  std::deque<Pending> wqueue;
  bool wclose = false;
  std::unique_ptr<cv::VideoWriter> vwriter;
  fs::path out_path, part_path;
  std::string write_error;

  // Stats of the last terminal refresh.
  long shown_read = 0, shown_done = 0;
};

// A topic level from a source's name: no wildcards, no separators.
std::string topicName(const std::string& s) {
  std::string out;
  for (char c : s) out += std::isalnum((unsigned char)c) || c == '-' || c == '_' || c == '.' ? c : '_';
  return out.empty() ? "source" : out;
}

void readerLoop(Stream& s, ORVA::DetectTask& task, const StreamOptions& opt, FairGate& gate) {
  StreamSource& src = *s.src;
  cv::VideoCapture& cap = *src.video;
  const bool paced = opt.realtime && !src.live;
  const bool drops = src.live || opt.realtime;
  unsigned tick = 0;
  int bad = 0;
  const Clock::time_point t0 = Clock::now();
  long taken = 0;  // frames read to detect
  while (!stopSignal() && (opt.max_frames <= 0 || taken < opt.max_frames)) {
    if (src.total > 0 && src.next >= src.total) break;
    if (taken > 0)
      for (long k = 1; k < opt.every && cap.grab(); ++k) ++src.next;
    if (paced) {
      // A file delivers its frames at its own rate, as a camera would.
      const auto due = t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(taken * opt.every / s.fps));
      std::this_thread::sleep_until(due);
    }
    Pending p;
    if (!cap.read(p.img) || p.img.empty()) {
      ++bad;
      if (src.total > 0 && src.next + 1 < src.total && bad < kMaxBadReads) {
        // A frame that does not decode in the middle of a file is skipped.
        ++src.next;
        ++s.skipped;
        continue;
      }
      // A run of failures up to the end is where the file ends, not frames skipped.
      const long first_bad = src.next - (bad - 1);
      s.skipped -= bad - 1;
      if (src.total > 0 && first_bad < src.total)
        s.end_message = "ends at frame " + std::to_string(first_bad) + " of " + std::to_string(src.total) + ": can't read further";
      else if (src.live)
        s.end_message = "no more frames (the stream ended or went away)";
      break;
    }
    bad = 0;
    p.read_at = Clock::now();
    p.index = src.next++;
    p.time = src.live ? seconds(s.start, p.read_at) : cap.get(cv::CAP_PROP_POS_MSEC) / 1000.0;
    ++taken;
    ++s.read;
    ORVA::TaskInput in{src.key, tick, p.img};
    if (opt.roi.area() > 0) {
      const cv::Rect r = opt.roi & cv::Rect(0, 0, p.img.cols, p.img.rows);
      if (r.area() > 0) {
        in.img = p.img(r);
        p.offset = r.tl();
      }
    }
    // A file waits for its turn rather than losing frames; a paced file or a live source waits
    // until its next frame is due, and that frame then takes this one's place.
    const Clock::time_point give_up =
        !drops  ? Clock::time_point::max()
        : paced ? t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(taken * opt.every / s.fps))
                : p.read_at + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / s.fps));
    bool sent = false;
    while (!sent && !stopSignal() && gate.enter(&s, give_up)) {
      {
        std::lock_guard<std::mutex> lock(s.pending_mutex);
        s.pending.emplace(tick, p);
        sent = task.process(in);
        if (!sent) s.pending.erase(tick);
      }
      if (!sent) {
        // The task's own queue is full (the worker has not taken its batch yet).
        gate.leave();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
      }
    }
    if (sent)
      ++tick;
    else
      ++s.dropped;
  }
  s.reading = false;
}

void writerLoop(Stream& s, const StreamOptions& opt, const std::vector<std::string>& names) {
  for (;;) {
    Pending p;
    {
      std::unique_lock<std::mutex> lock(s.wmutex);
      s.wcv.wait(lock, [&] { return s.wclose || !s.wqueue.empty(); });
      if (s.wqueue.empty()) return;
      p = std::move(s.wqueue.front());
      s.wqueue.pop_front();
    }
    s.wcv.notify_all();
    if (!s.write_error.empty()) continue;
    annotate(p.img, p.objs, names, opt.track);
    const double secs = seconds(s.start, Clock::now());
    overlayClock(p.img, secs > 0 ? s.done / secs : 0.0, p.time);
    if (!s.vwriter) {
      const double fps = s.fps / opt.every;
      for (int codec : codecsFor(s.out_path)) {
        s.vwriter = std::make_unique<cv::VideoWriter>(s.part_path.string(), codec, fps, p.img.size());
        if (s.vwriter->isOpened()) break;
      }
      if (!s.vwriter->isOpened()) {
        s.vwriter.reset();
        s.write_error = s.out_path.string() + ": can't write a video";
        continue;
      }
    }
    s.vwriter->write(p.img);
  }
}

float percentile(std::vector<float> v, double q) {
  if (v.empty()) return 0;
  const size_t k = std::min(v.size() - 1, (size_t)(q * (v.size() - 1) + 0.5));
  std::nth_element(v.begin(), v.begin() + k, v.end());
  return v[k];
}

}  // namespace

int runStreams(ORVA::DetectNetwork& net, std::vector<StreamSource>& sources, const StreamOptions& opt,
               const std::vector<std::string>& names, const std::vector<bool>& keep_class, std::ostream& json,
               const std::string& json_name, bool& json_failed) {
  int failures = 0;
  std::unique_ptr<MqttPublisher> mqtt;
  if (!opt.mqtt.empty()) {
    try {
      mqtt = std::make_unique<MqttPublisher>(opt.mqtt);
    } catch (const std::exception& e) {
      fail("detect", e.what());
      return -1;
    }
    std::string why;
    if (!mqtt->start(opt.mqtt_required ? 5.0 : 3.0, why)) {
      if (opt.mqtt_required) {
        fail("detect", "mqtt " + mqtt->address() + ": can't connect (" + why + ")");
        return -1;
      }
      fprintf(stderr, "orva detect: mqtt %s: not connected yet (%s); events are counted undelivered until it is\n",
              mqtt->address().c_str(), why.c_str());
    }
  }

  std::vector<std::unique_ptr<Stream>> streams;
  std::map<unsigned, Stream*> by_key;
  std::set<std::string> topics;
  std::set<fs::path> outputs;
  for (StreamSource& src : sources) {
    auto s = std::make_unique<Stream>();
    s->src = &src;
    const double fps = src.video->get(cv::CAP_PROP_FPS);
    s->fps = fps > 0 && fps < 1000 ? fps : 25;
    const std::string stem = src.arg.find("://") == std::string::npos ? fs::path(src.arg).stem().string() : src.arg;
    std::string name = topicName(src.live && src.arg.size() < 4 ? "camera" + src.arg : stem);
    for (int k = 2; topics.count(name); ++k) name = topicName(stem) + "_" + std::to_string(k);
    topics.insert(name);
    s->topic = opt.topic + "/" + name;
    if (!opt.out_dir.empty()) {
      fs::path p = fs::path(opt.out_dir) / (name + ".mp4");
      for (int k = 2; outputs.count(p); ++k) p = fs::path(opt.out_dir) / (name + "_" + std::to_string(k) + ".mp4");
      outputs.insert(p);
      s->out_path = p;
      s->part_path = partName(p.string());
    }
    if (opt.track) s->tracker = std::make_unique<IdTracker>(opt.track_max_miss, opt.track_min_hits, opt.track_iou);
    s->latency_ms.reserve(4096);
    by_key[src.key] = s.get();
    streams.push_back(std::move(s));
  }

  ORVA::DetectTask task(&net);
  task.run();
  // Frames with the engine at once: the task's queue (two batches) and the batch in the works.
  FairGate gate(3 * (size_t)net.getBatch());
  const Clock::time_point start = Clock::now();
  for (auto& s : streams) {
    s->start = start;
    if (!opt.out_dir.empty()) s->writer = std::thread(writerLoop, std::ref(*s), std::cref(opt), std::cref(names));
    s->reader = std::thread(readerLoop, std::ref(*s), std::ref(task), std::cref(opt), std::ref(gate));
  }

  auto publish = [&](const std::string& topic, const nlohmann::ordered_json& j) {
    if (mqtt) mqtt->publish(topic, jsonText(j));
  };
  auto trackEvent = [&](Stream& s, const char* what, int id, const LiveTrack& t) {
    nlohmann::ordered_json e = {{"source", s.src->arg}, {"event", what}, {"id", id}, {"class", names[t.cid]},
                                {"class_id", t.cid}};
    if (std::string(what) == "start") {
      e["frame"] = t.first_frame;
    } else {
      e["first_frame"] = t.first_frame;
      e["frame"] = t.last_frame;
    }
    if (t.last_time >= 0) e["time"] = std::round(t.last_time * 1e3) / 1e3;
    e["box"] = {t.box.x, t.box.y, t.box.width, t.box.height};
    publish(s.topic + "/tracks", e);
  };

  auto handle = [&](ORVA::DetectTaskResult& r) {
    const auto it = by_key.find(r.id);
    if (it == by_key.end()) return;
    Stream& s = *it->second;
    Pending p;
    {
      std::lock_guard<std::mutex> lock(s.pending_mutex);
      const auto pit = s.pending.find(r.tick);
      if (pit == s.pending.end()) return;
      p = std::move(pit->second);
      s.pending.erase(pit);
    }
    gate.leave();
    ORVA::DetectObjList& list = r.objs;
    const cv::Rect inside(0, 0, p.img.cols - p.offset.x, p.img.rows - p.offset.y);
    for (ORVA::DetectObj& d : list) {
      d.bbox &= inside;
      d.bbox += p.offset;
    }
    list.erase(std::remove_if(list.begin(), list.end(),
                              [&](const ORVA::DetectObj& d) {
                                return d.bbox.area() <= 0 || d.bbox.width < opt.min_size || d.bbox.height < opt.min_size ||
                                       d.cid < 0 || d.cid >= (int)keep_class.size() || !keep_class[d.cid];
                              }),
               list.end());
    if (s.tracker) {
      trackIds(*s.tracker, p.img, list);
      for (const ORVA::DetectObj& d : list) {
        if (d.oid < 0) continue;
        s.tracks[d.cid].insert(d.oid);
        auto lt = s.live.find(d.oid);
        if (lt == s.live.end()) {
          lt = s.live.emplace(d.oid, LiveTrack{d.cid, p.index, p.index, p.time, d.bbox}).first;
          trackEvent(s, "start", d.oid, lt->second);
        }
        lt->second.last_frame = p.index;
        lt->second.last_time = p.time;
        lt->second.box = d.bbox;
      }
      const std::set<int> alive = s.tracker->alive();
      for (auto lt = s.live.begin(); lt != s.live.end();) {
        if (alive.count(lt->first)) {
          ++lt;
          continue;
        }
        trackEvent(s, "end", lt->first, lt->second);
        lt = s.live.erase(lt);
      }
    }
    s.objects += (long)list.size();
    ++s.done;
    if (!opt.only_hits || !list.empty()) {
      const nlohmann::ordered_json line = frameJson(s.src->arg, p.index, p.time, p.img.cols, p.img.rows, list, names);
      if (!json_failed) json << jsonText(line) << "\n";
      publish(s.topic + "/frames", line);
      if (!opt.out_dir.empty()) {
        p.objs = list;
        std::unique_lock<std::mutex> lock(s.wmutex);
        // A file waits for its writer; a live source drops the annotated frame.
        while (!s.src->live && !opt.realtime && s.wqueue.size() >= kWriterQueue && !stopSignal())
          s.wcv.wait_for(lock, std::chrono::milliseconds(50));
        if (s.wqueue.size() < kWriterQueue) {
          s.wqueue.push_back(std::move(p));
          s.wcv.notify_all();
        } else {
          ++s.written_dropped;
        }
      }
    }
    // Read to event, over a window of the latest frames.
    const float ms = (float)(seconds(p.read_at, Clock::now()) * 1e3);
    if (s.latency_ms.size() < 4096)
      s.latency_ms.push_back(ms);
    else
      s.latency_ms[s.latency_next++ % 4096] = ms;
  };

  // Live lines, one per source, redrawn in place.
  int shown_lines = 0;
  Clock::time_point last_show = start;
  auto showStats = [&](bool final_clear) {
    const Clock::time_point now = Clock::now();
    const double dt = seconds(last_show, now);
    if (shown_lines) fprintf(stderr, "\x1b[%dA", shown_lines);
    if (final_clear) {
      for (int k = 0; k < shown_lines; ++k) fprintf(stderr, "\x1b[2K\n");
      if (shown_lines) fprintf(stderr, "\x1b[%dA", shown_lines);
      shown_lines = 0;
      return;
    }
    for (auto& sp : streams) {
      Stream& s = *sp;
      long tracks = 0;
      for (const auto& t : s.tracks) tracks += (long)t.second.size();
      const long rd = s.read, dn = s.done;
      fprintf(stderr, "\x1b[2K%-24.24s in %6.1f/s  done %6.1f/s  %7ld frames  %5ld dropped  %4ld tracks%s\n",
              s.src->arg.c_str(), dt > 0 ? (rd - s.shown_read) / dt : 0.0, dt > 0 ? (dn - s.shown_done) / dt : 0.0, dn,
              s.dropped + s.written_dropped, tracks, s.reading ? "" : "  (ended)");
      s.shown_read = rd, s.shown_done = dn;
    }
    if (mqtt)
      fprintf(stderr, "\x1b[2Kmqtt %s: %ld published, %ld undelivered\n", mqtt->address().c_str(), mqtt->published(),
              mqtt->undelivered());
    shown_lines = (int)streams.size() + (mqtt ? 1 : 0);
    last_show = now;
  };

  auto finishStream = [&](Stream& s) {
    for (auto& [id, t] : s.live) trackEvent(s, "end", id, t);
    s.live.clear();
    s.closed = true;
  };

  ORVA::DetectTaskResult r;
  Clock::time_point stop_at{};
  for (;;) {
    bool any = false;
    while (task.getResult(r)) {
      handle(r);
      any = true;
    }
    bool running = false;
    for (auto& sp : streams) {
      Stream& s = *sp;
      if (s.closed) continue;
      bool empty;
      {
        std::lock_guard<std::mutex> lock(s.pending_mutex);
        empty = s.pending.empty();
      }
      if (!s.reading && empty) {
        finishStream(s);
        continue;
      }
      running = true;
    }
    if (!json_failed && any) {
      json.flush();
      if (!json) {
        json_failed = true;
        fail("detect", json_name + ": can't write (" + strerror(errno) + ")");
        ++failures;
      }
    }
    if (!running) break;
    if (stopSignal()) {
      // Frames already with the engine get a few seconds to come back.
      if (stop_at == Clock::time_point{}) stop_at = Clock::now();
      if (seconds(stop_at, Clock::now()) > 5) break;
    }
    if (opt.stats && seconds(last_show, Clock::now()) >= 1) showStats(false);
    if (!any) std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
  task.stop();
  for (auto& s : streams) s->reader.join();
  if (opt.stats) showStats(true);
  for (auto& s : streams)
    if (!s->closed) finishStream(*s);
  if (mqtt) mqtt->finish(5.0);

  const double secs = seconds(start, Clock::now());
  for (auto& sp : streams) {
    Stream& s = *sp;
    if (s.writer.joinable()) {
      {
        std::lock_guard<std::mutex> lock(s.wmutex);
        s.wclose = true;
      }
      s.wcv.notify_all();
      s.writer.join();
    }
    std::string out;
    if (!s.write_error.empty()) {
      fail("detect", s.write_error);
      ++failures;
    } else if (s.vwriter) {
      s.vwriter->release();
      try {
        commitPart(s.part_path.string(), s.out_path.string());
        out = s.out_path.string();
      } catch (const std::exception& e) {
        fail("detect", e.what());
        ++failures;
      }
    }
    if (!s.end_message.empty()) fprintf(stderr, "orva detect: %s: %s\n", s.src->arg.c_str(), s.end_message.c_str());
    std::vector<std::pair<size_t, int>> counts;
    for (const auto& t : s.tracks) counts.push_back({t.second.size(), t.first});
    std::sort(counts.begin(), counts.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::string tracked;
    for (const auto& c : counts)
      tracked += (tracked.empty() ? ", tracks: " : ", ") + std::to_string(c.first) + " " + names[c.second];
    std::string lost;
    if (s.dropped) lost += ", " + std::to_string(s.dropped) + " dropped before detection";
    if (s.written_dropped) lost += ", " + std::to_string(s.written_dropped) + " not written (writer behind)";
    if (s.skipped) lost += ", " + std::to_string(s.skipped) + " unreadable skipped";
    fprintf(stderr, "%s: %ld frames, %ld detections, %.1f frames/s, latency p50 %.0f ms p99 %.0f ms%s%s%s%s%s\n",
            s.src->arg.c_str(), (long)s.done, (long)s.objects, secs > 0 ? s.done / secs : 0.0,
            percentile(s.latency_ms, 0.5), percentile(s.latency_ms, 0.99), lost.c_str(), tracked.c_str(),
            out.empty() ? "" : " -> ", out.c_str(), stopSignal() ? " (interrupted)" : "");
  }
  if (mqtt)
    fprintf(stderr, "mqtt %s: %ld published, %ld acknowledged, %ld undelivered, %ld reconnects\n",
            mqtt->address().c_str(), mqtt->published(), mqtt->delivered(), mqtt->undelivered(), mqtt->reconnects());
  return failures;
}

}  // namespace orvacli
