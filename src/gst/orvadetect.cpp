// orvadetect: each frame goes through a detect task; the objects found come back as
// region-of-interest metas on the same buffer. Instances naming the same model file, batch
// and device share one network, so frames of several streams are detected in one batch.
#include "orvadetect.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>


#include "orva/networks.h"
#include "orva/orva.h"
#include "orva/tracker.h"
#include "orva/util.h"

GST_DEBUG_CATEGORY_STATIC(orva_detect_debug);
#define GST_CAT_DEFAULT orva_detect_debug

namespace fs = std::filesystem;

namespace {

// The detect task with a wait for results: on the task's own signal instead of polling.
class WaitingDetectTask : public ORVA::DetectTask {
 public:
  using DetectTask::DetectTask;
  // Returns once a result is waiting or `limit` has passed; takes nothing.
  void waitForResult(std::chrono::microseconds limit) {
    std::unique_lock<std::mutex> lock(_omutex);
    _ocv.wait_for(lock, limit, [this] { return !_qoutput.empty(); });
  }
};

// One network and its detect task, shared by every orvadetect of the process that names the
// same model file, batch and device. Each instance is one source key of the task (its own
// threshold and suppression) and has at most one frame in flight; results of all instances
// leave the task in one queue and are sorted into per-key mailboxes by whoever collects.
class SharedDetector {
 public:
  // The detector of (model, batch, gpu), loaded when no instance holds it yet; null with
  // `error` set when the model can't be loaded or is not a 3-channel detector.
  static std::shared_ptr<SharedDetector> acquire(const std::string& model, int batch, int gpu, std::string& error) {
    std::error_code ec;
    const std::string id = fs::canonical(model, ec).string() + "|" + std::to_string(batch) + "|" + std::to_string(gpu);
    std::lock_guard<std::mutex> lock(registryMutex());
    auto& slot = registry()[id];
    if (auto found = slot.lock()) return found;
    std::shared_ptr<SharedDetector> d(new SharedDetector(batch, gpu));
    // A faulty description must fail this element, never end the host process.
    const bool throws = ORVA::fatalThrows();
    ORVA::setFatalThrows(true);
    try {
      d->_net.load(model.c_str(), false, false);
    } catch (const std::exception& e) {
      error = e.what();
    }
    ORVA::setFatalThrows(throws);
    if (error.empty() && d->_net.getLayerCount() == 0) error = "the network has no layers";
    if (error.empty() && d->_net.iC != 3)
      error = "the network takes " + std::to_string(d->_net.iC) + " channels; colour frames need 3";
    if (!error.empty()) return nullptr;
    d->_task = std::make_unique<WaitingDetectTask>(&d->_net);
    slot = d;
    return d;
  }

  ~SharedDetector() { _task.reset(); }  // the worker stops before the network goes

  int classes() { return _net.getClassNum(); }

  // A new source key with its own parameters. The task is paused for it once nothing is in
  // flight, since the network's parameter table is read by the worker.
  unsigned join(float thresh, float nms) {
    std::unique_lock<std::mutex> lock(_m);
    _cv.wait(lock, [this] { return !_joining; });
    _joining = true;
    _cv.wait(lock, [this] { return _inflight == 0; });
    const unsigned key = _nextKey++;
    _task->stop();
    _net.setParameter(key, thresh, nms);
    _mail[key].clear();
    _task->run();
    _joining = false;
    _cv.notify_all();
    return key;
  }

  void leave(unsigned key) {
    std::lock_guard<std::mutex> lock(_m);
    _mail.erase(key);
  }

  // Detects one BGR frame of source `key`; blocks until its result is back. The frame is
  // letterboxed into the task's own copy before this returns control of the pixels.
  void detect(unsigned key, unsigned tick, const cv::Mat& bgr, ORVA::DetectObjList& out) {
    {
      std::unique_lock<std::mutex> lock(_m);
      _cv.wait(lock, [this] { return !_joining; });
      ++_inflight;
    }
    ORVA::TaskInput in{key, tick, bgr};
    // The queue bound refuses a frame only while other streams fill the batch: wait for room.
    while (!_task->process(in)) std::this_thread::sleep_for(std::chrono::microseconds(100));
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(_m);
        ORVA::DetectTaskResult r;
        while (_task->getResult(r)) _mail[r.id].push_back(std::move(r));
        auto& box = _mail[key];
        if (!box.empty()) {
          out = std::move(box.front().objs);
          box.pop_front();
          if (--_inflight == 0) _cv.notify_all();
          return;
        }
      }
      // Bounded: with several instances waiting, the one woken may take another's result
      // into its mailbox while that one sleeps on.
      _task->waitForResult(std::chrono::microseconds(1000));
    }
  }

 private:
  SharedDetector(int batch, int gpu) : _net(ORVA::TEST, batch, gpu) {}

  static std::mutex& registryMutex() {
    static std::mutex m;
    return m;
  }
  static std::map<std::string, std::weak_ptr<SharedDetector>>& registry() {
    static std::map<std::string, std::weak_ptr<SharedDetector>> r;
    return r;
  }

  ORVA::DetectNetwork _net;
  std::unique_ptr<WaitingDetectTask> _task;
  std::mutex _m;
  std::condition_variable _cv;
  bool _joining = false;  // a new key is being set up: no new frames meanwhile
  int _inflight = 0;      // frames handed to the task and not yet collected
  unsigned _nextKey = 0;
  std::map<unsigned, std::deque<ORVA::DetectTaskResult>> _mail;
};

struct Settings {
  std::string model;
  std::string names;
  float threshold = 0.5f;
  float nms = 0.4f;
  int batch = 1;
  int gpu = 0;
  bool track = false;
};

// What exists between start and stop.
struct Running {
  std::shared_ptr<SharedDetector> detector;
  unsigned key = 0;
  unsigned tick = 0;
  std::vector<GQuark> names;  // roi_type of each class
  std::unique_ptr<ORVA::Tracker> tracker;
  GstVideoInfo info;
  // Formats other than BGR: converted into one BGR buffer, reused from frame to frame.
  GstVideoConverter* converter = nullptr;
  GstVideoInfo bgr_info;
  GstBuffer* bgr_buffer = nullptr;
  ORVA::DetectObjList objs;

  void dropConverter() {
    if (converter) gst_video_converter_free(converter);
    if (bgr_buffer) gst_buffer_unref(bgr_buffer);
    converter = nullptr;
    bgr_buffer = nullptr;
  }
  ~Running() { dropConverter(); }
};

std::vector<std::string> readNames(const std::string& path) {
  std::vector<std::string> names;
  std::ifstream f(path);
  std::string line;
  while (std::getline(f, line)) {
    const size_t a = line.find_first_not_of(" \t\r");
    if (a == std::string::npos) continue;
    names.push_back(line.substr(a, line.find_last_not_of(" \t\r") - a + 1));
  }
  return names;
}

}  // namespace

struct _GstOrvaDetect {
  GstBaseTransform parent;
  Settings* settings;  // guarded by the object lock
  Running* run;        // streaming side; null when stopped
};

G_DEFINE_TYPE(GstOrvaDetect, gst_orva_detect, GST_TYPE_BASE_TRANSFORM)

enum { PROP_0, PROP_MODEL, PROP_NAMES, PROP_THRESHOLD, PROP_NMS, PROP_BATCH, PROP_GPU, PROP_TRACK };

#define ORVA_DETECT_CAPS GST_VIDEO_CAPS_MAKE("{ BGR, BGRx, RGB, NV12, I420 }")

static void orva_detect_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
  GstOrvaDetect* self = GST_ORVA_DETECT(object);
  Settings& s = *self->settings;
  GST_OBJECT_LOCK(self);
  switch (id) {
    case PROP_MODEL: s.model = g_value_get_string(value) ? g_value_get_string(value) : ""; break;
    case PROP_NAMES: s.names = g_value_get_string(value) ? g_value_get_string(value) : ""; break;
    case PROP_THRESHOLD: s.threshold = g_value_get_float(value); break;
    case PROP_NMS: s.nms = g_value_get_float(value); break;
    case PROP_BATCH: s.batch = g_value_get_int(value); break;
    case PROP_GPU: s.gpu = g_value_get_int(value); break;
    case PROP_TRACK: s.track = g_value_get_boolean(value); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(self);
}

static void orva_detect_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
  GstOrvaDetect* self = GST_ORVA_DETECT(object);
  const Settings& s = *self->settings;
  GST_OBJECT_LOCK(self);
  switch (id) {
    case PROP_MODEL: g_value_set_string(value, s.model.empty() ? nullptr : s.model.c_str()); break;
    case PROP_NAMES: g_value_set_string(value, s.names.empty() ? nullptr : s.names.c_str()); break;
    case PROP_THRESHOLD: g_value_set_float(value, s.threshold); break;
    case PROP_NMS: g_value_set_float(value, s.nms); break;
    case PROP_BATCH: g_value_set_int(value, s.batch); break;
    case PROP_GPU: g_value_set_int(value, s.gpu); break;
    case PROP_TRACK: g_value_set_boolean(value, s.track); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(self);
}

// Fails the state change: an error message from this element naming the property.
static gboolean property_error(GstOrvaDetect* self, const char* property, const std::string& what,
                               bool missing_file = false) {
  gchar* name = gst_object_get_name(GST_OBJECT(self));
  const std::string text = std::string(name) + ": property '" + property + "': " + what;
  g_free(name);
  if (missing_file)
    GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND, ("%s", text.c_str()), (nullptr));
  else
    GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("%s", text.c_str()), (nullptr));
  return FALSE;
}

static gboolean orva_detect_start(GstBaseTransform* trans) {
  GstOrvaDetect* self = GST_ORVA_DETECT(trans);
  GST_OBJECT_LOCK(self);
  const Settings s = *self->settings;
  GST_OBJECT_UNLOCK(self);

  if (s.model.empty()) return property_error(self, "model", "not set; give the path of a detection model file");
  if (!fs::is_regular_file(s.model)) return property_error(self, "model", "'" + s.model + "': no such file", true);
  if (!s.names.empty() && !fs::is_regular_file(s.names))
    return property_error(self, "names", "'" + s.names + "': no such file", true);
  char buf[64];
  if (!(s.threshold >= 0.f && s.threshold <= 1.f)) {
    snprintf(buf, sizeof buf, "%g is outside 0..1", s.threshold);
    return property_error(self, "threshold", buf);
  }
  if (!(s.nms >= 0.f && s.nms <= 1.f)) {
    snprintf(buf, sizeof buf, "%g is outside 0..1 (0: soft suppression)", s.nms);
    return property_error(self, "nms", buf);
  }
  if (s.batch < 1 || s.batch > 64) return property_error(self, "batch", std::to_string(s.batch) + " is outside 1..64");
  if (s.gpu < -1) return property_error(self, "gpu", std::to_string(s.gpu) + " is below -1 (-1: the host)");

  std::string error;
  auto detector = SharedDetector::acquire(s.model, s.batch, s.gpu, error);
  if (!detector) return property_error(self, "model", "'" + s.model + "': " + error);

  auto run = std::make_unique<Running>();
  std::vector<std::string> names =
      readNames(s.names.empty() ? fs::path(s.model).replace_extension(".names").string() : s.names);
  for (int i = (int)names.size(); i < detector->classes(); ++i) names.push_back(std::to_string(i));
  for (const std::string& n : names) run->names.push_back(g_quark_from_string(n.c_str()));
  run->key = detector->join(s.threshold, s.nms);
  run->detector = std::move(detector);
  // As `orva detect --track`: reported after two hits, kept through three misses.
  if (s.track) run->tracker = std::make_unique<ORVA::Tracker>(3, 2, 0.3f);
  gst_video_info_init(&run->info);
  GST_INFO_OBJECT(self, "model %s, source key %u, threshold %g, nms %g", s.model.c_str(), run->key, s.threshold,
                  s.nms);
  self->run = run.release();
  return TRUE;
}

static gboolean orva_detect_stop(GstBaseTransform* trans) {
  GstOrvaDetect* self = GST_ORVA_DETECT(trans);
  if (self->run) {
    self->run->detector->leave(self->run->key);
    delete self->run;  // the last instance of a model takes its network with it
    self->run = nullptr;
  }
  return TRUE;
}

static gboolean orva_detect_set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps* outcaps) {
  GstOrvaDetect* self = GST_ORVA_DETECT(trans);
  if (!self->run) return FALSE;
  GstVideoInfo info;
  if (!gst_video_info_from_caps(&info, incaps)) return FALSE;
  Running& r = *self->run;
  r.dropConverter();
  if (GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_BGR) {
    gst_video_info_set_format(&r.bgr_info, GST_VIDEO_FORMAT_BGR, GST_VIDEO_INFO_WIDTH(&info),
                              GST_VIDEO_INFO_HEIGHT(&info));
    // The converter wants the two sides alike in everything but format and colorimetry.
    GST_VIDEO_INFO_FPS_N(&r.bgr_info) = GST_VIDEO_INFO_FPS_N(&info);
    GST_VIDEO_INFO_FPS_D(&r.bgr_info) = GST_VIDEO_INFO_FPS_D(&info);
    GST_VIDEO_INFO_PAR_N(&r.bgr_info) = GST_VIDEO_INFO_PAR_N(&info);
    GST_VIDEO_INFO_PAR_D(&r.bgr_info) = GST_VIDEO_INFO_PAR_D(&info);
    const guint threads = std::min(4u, g_get_num_processors());
    r.converter = gst_video_converter_new(
        &info, &r.bgr_info, gst_structure_new("config", GST_VIDEO_CONVERTER_OPT_THREADS, G_TYPE_UINT, threads, nullptr));
    r.bgr_buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&r.bgr_info), nullptr);
    if (!r.converter || !r.bgr_buffer) {
      r.dropConverter();
      GST_WARNING_OBJECT(self, "no conversion from %s to BGR", gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&info)));
      return FALSE;
    }
  }
  self->run->info = info;
  return TRUE;
}

// The frame as 8-bit BGR: the mapped pixels themselves for BGR, else the converter's output,
// which follows the stream's colorimetry (full-range JPEG, BT.709 HD video and so on).
static cv::Mat to_bgr(GstVideoFrame& f, Running& r) {
  const int w = GST_VIDEO_FRAME_WIDTH(&f), h = GST_VIDEO_FRAME_HEIGHT(&f);
  if (!r.converter)
    return cv::Mat(h, w, CV_8UC3, GST_VIDEO_FRAME_PLANE_DATA(&f, 0), GST_VIDEO_FRAME_PLANE_STRIDE(&f, 0));
  GstVideoFrame out;
  if (!gst_video_frame_map(&out, &r.bgr_info, r.bgr_buffer, GST_MAP_WRITE)) return cv::Mat();
  gst_video_converter_frame(r.converter, &f, &out);
  cv::Mat m(h, w, CV_8UC3, GST_VIDEO_FRAME_PLANE_DATA(&out, 0), GST_VIDEO_FRAME_PLANE_STRIDE(&out, 0));
  gst_video_frame_unmap(&out);  // the buffer's memory stays: it is ours and lives until the caps change
  return m;
}

static GstFlowReturn orva_detect_transform_ip(GstBaseTransform* trans, GstBuffer* buf) {
  GstOrvaDetect* self = GST_ORVA_DETECT(trans);
  Running* r = self->run;
  if (!r || GST_VIDEO_INFO_FORMAT(&r->info) == GST_VIDEO_FORMAT_UNKNOWN) {
    GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("no video format negotiated before the first buffer"), (nullptr));
    return GST_FLOW_NOT_NEGOTIATED;
  }
  GstVideoFrame frame;
  if (!gst_video_frame_map(&frame, &r->info, buf, GST_MAP_READ)) {
    GST_ELEMENT_ERROR(self, STREAM, FAILED, ("can't map a video frame"), (nullptr));
    return GST_FLOW_ERROR;
  }
  const cv::Mat bgr = to_bgr(frame, *r);
  if (bgr.empty()) {
    gst_video_frame_unmap(&frame);
    GST_ELEMENT_ERROR(self, STREAM, FAILED, ("can't map the converted frame"), (nullptr));
    return GST_FLOW_ERROR;
  }
  r->detector->detect(r->key, r->tick++, bgr, r->objs);
  gst_video_frame_unmap(&frame);

  // Boxes come back in the letterbox's widened frame; keep them inside the picture.
  const cv::Rect inside(0, 0, GST_VIDEO_INFO_WIDTH(&r->info), GST_VIDEO_INFO_HEIGHT(&r->info));
  ORVA::DetectObjList& objs = r->objs;
  for (ORVA::DetectObj& d : objs) d.bbox &= inside;
  objs.erase(std::remove_if(objs.begin(), objs.end(), [](const ORVA::DetectObj& d) { return d.bbox.area() <= 0; }),
             objs.end());
  if (r->tracker) {
    cv::Mat size_only(inside.height, inside.width, CV_8UC1, (void*)bgr.data);  // read for its size alone
    r->tracker->process(size_only, objs);
  }
  for (const ORVA::DetectObj& d : objs) {
    const GQuark type =
        d.cid >= 0 && d.cid < (int)r->names.size() ? r->names[d.cid] : g_quark_from_string(std::to_string(d.cid).c_str());
    GstVideoRegionOfInterestMeta* m =
        gst_buffer_add_video_region_of_interest_meta_id(buf, type, d.bbox.x, d.bbox.y, d.bbox.width, d.bbox.height);
    m->id = d.oid;
    gst_video_region_of_interest_meta_add_param(
        m, gst_structure_new(ORVA_DETECTION_PARAM, "class-id", G_TYPE_INT, d.cid, "score", G_TYPE_DOUBLE,
                             (double)d.prob, nullptr));
  }
  return GST_FLOW_OK;
}

static gboolean orva_detect_sink_event(GstBaseTransform* trans, GstEvent* event) {
  GstOrvaDetect* self = GST_ORVA_DETECT(trans);
  // After a flushing seek the frames are no longer a continuation: tracks start afresh.
  if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP && self->run && self->run->tracker) self->run->tracker->reset();
  return GST_BASE_TRANSFORM_CLASS(gst_orva_detect_parent_class)->sink_event(trans, event);
}

static void orva_detect_finalize(GObject* object) {
  GstOrvaDetect* self = GST_ORVA_DETECT(object);
  delete self->run;
  delete self->settings;
  G_OBJECT_CLASS(gst_orva_detect_parent_class)->finalize(object);
}

static void gst_orva_detect_init(GstOrvaDetect* self) {
  self->settings = new Settings();
  self->run = nullptr;
  gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), FALSE);
}

static void gst_orva_detect_class_init(GstOrvaDetectClass* klass) {
  GST_DEBUG_CATEGORY_INIT(orva_detect_debug, "orvadetect", 0, "ORVA object detector");
  GObjectClass* gobject = G_OBJECT_CLASS(klass);
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* trans = GST_BASE_TRANSFORM_CLASS(klass);
  gobject->set_property = orva_detect_set_property;
  gobject->get_property = orva_detect_get_property;
  gobject->finalize = orva_detect_finalize;

  const GParamFlags flags = (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  // Numeric ranges are left wide on purpose: a value out of its range fails the start with a
  // message naming the property instead of being dropped with a warning.
  g_object_class_install_property(
      gobject, PROP_MODEL,
      g_param_spec_string("model", "Model", "Detection model file (required)", nullptr, flags));
  g_object_class_install_property(
      gobject, PROP_NAMES,
      g_param_spec_string("names", "Names",
                          "Class names, one a line (default: the model's path with .names; else class numbers)",
                          nullptr, flags));
  g_object_class_install_property(
      gobject, PROP_THRESHOLD,
      g_param_spec_float("threshold", "Threshold", "Score threshold, 0..1", -G_MAXFLOAT, G_MAXFLOAT, 0.5f, flags));
  g_object_class_install_property(
      gobject, PROP_NMS,
      g_param_spec_float("nms", "NMS", "Overlap above which the lower-scored box goes, 0..1; 0: soft suppression",
                         -G_MAXFLOAT, G_MAXFLOAT, 0.4f, flags));
  g_object_class_install_property(
      gobject, PROP_BATCH,
      g_param_spec_int("batch", "Batch",
                       "Frames per network pass, 1..64; instances with the same model, batch and gpu share one "
                       "network and batch their frames together",
                       G_MININT, G_MAXINT, 1, flags));
  g_object_class_install_property(
      gobject, PROP_GPU,
      g_param_spec_int("gpu", "GPU", "CUDA device; -1 runs on the host (a device that can't serve falls back)",
                       G_MININT, G_MAXINT, 0, flags));
  g_object_class_install_property(
      gobject, PROP_TRACK,
      g_param_spec_boolean("track", "Track", "Follow objects from frame to frame: meta ids become track ids",
                           FALSE, flags));

  gst_element_class_set_static_metadata(
      element, "ORVA object detector", "Filter/Analyzer/Video",
      "Finds objects and attaches one GstVideoRegionOfInterestMeta per object (class name, track id, box, and an "
      "\"" ORVA_DETECTION_PARAM "\" param with class-id and score)",
      "ORVA");
  GstCaps* caps = gst_caps_from_string(ORVA_DETECT_CAPS);
  gst_element_class_add_pad_template(element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
  gst_element_class_add_pad_template(element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);

  trans->start = GST_DEBUG_FUNCPTR(orva_detect_start);
  trans->stop = GST_DEBUG_FUNCPTR(orva_detect_stop);
  trans->set_caps = GST_DEBUG_FUNCPTR(orva_detect_set_caps);
  trans->transform_ip = GST_DEBUG_FUNCPTR(orva_detect_transform_ip);
  trans->sink_event = GST_DEBUG_FUNCPTR(orva_detect_sink_event);
}
