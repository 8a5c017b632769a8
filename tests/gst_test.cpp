// The GStreamer elements in pipelines: orvadetect's metas against DetectNetwork::detect on the
// same frames for every input format, two instances sharing one network, the tracker across a
// flushing seek, bad properties, restarts, and what orvaoverlay and orvajson make of the metas.
#include <gtest/gtest.h>

#ifndef ORVA_GST_PLUGIN_DIR

TEST(GstElements, Skipped) { GTEST_SKIP() << "GStreamer's development files were not found when the suite was configured"; }

#else

#include <malloc.h>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include "network_test_util.h"
#include "orva/image.h"
#include "orva/networks.h"

using namespace orva_test;

namespace {

constexpr int kW = 64, kH = 48;  // four frame pixels per detector cell

// Loads the plugin from the build folder once; a reason when the pipelines can't be built.
std::string gst_missing() {
  static const std::string reason = [] {
    gst_init(nullptr, nullptr);
    gst_registry_scan_path(gst_registry_get(), ORVA_GST_PLUGIN_DIR);
    for (const char* f : {"orvadetect", "orvaoverlay", "orvajson", "appsrc", "appsink", "videoconvert", "videotestsrc"})
      if (GstElementFactory* factory = gst_element_factory_find(f))
        gst_object_unref(factory);
      else
        return std::string("GStreamer element ") + f + " is not installed";
    return std::string();
  }();
  return reason;
}

#define SKIP_WITHOUT_GST() \
  if (!gst_missing().empty()) GTEST_SKIP() << gst_missing()

// The analytic detector as a model file, with class names beside it; `wide` takes 160 x 120
// frames, so that a network left behind at a stop shows in the resident memory.
const std::string& model_path(bool wide = false) {
  static std::map<bool, std::string> paths;
  std::string& path = paths[wide];
  if (!path.empty()) return path;
  std::string cfg_text = kAnalyticDetectorCfg;
  const std::string narrow = "width=16\nheight=12";
  if (wide) cfg_text.replace(cfg_text.find(narrow), narrow.size(), "width=160\nheight=120");
  const std::string name = wide ? "gst_detector_wide" : "gst_detector";
  const std::string cfg = TempDir::path() + name + ".cfg";
  write_file(cfg, cfg_text);
  ORVA::DetectNetwork net(ORVA::TEST, 1, -1);
  net.load(cfg.c_str(), nullptr);
  set_analytic_detector_weights(net);
  path = TempDir::path() + name + ".orva";
  net.save(path.c_str());
  write_file(TempDir::path() + name + ".names", "plain\ngreenish\n");
  return path;
}

// Hot cells on a lattice of two cells, so no two boxes overlap enough to be suppressed, each
// with its own strength of red and blue (distinct scores) and sometimes green (class 1).
cv::Mat random_frame(std::mt19937& rng) {
  cv::Mat m(kH, kW, CV_8UC3, cv::Scalar(0, 0, 0));
  std::uniform_int_distribution<int> pick(0, 5), level(190, 255);
  for (int j = 0; j < 12; j += 2)
    for (int i = 0; i < 16; i += 2) {
      const int kind = pick(rng);
      if (kind >= 4) continue;
      const cv::Scalar bgr((kind & 1) ? level(rng) : 0, kind == 2 || kind == 3 ? 255 : 0, (kind & 1) ? 0 : level(rng));
      cv::rectangle(m, cv::Rect(4 * i, 4 * j, 4, 4), bgr, cv::FILLED);
    }
  return m;
}

struct Obj {
  int x, y, w, h, cid, id;
  std::string type;
  double score;
  bool operator<(const Obj& o) const { return std::tie(x, y, w, h, cid) < std::tie(o.x, o.y, o.w, o.h, o.cid); }
};

std::vector<Obj> metas_of(GstBuffer* buf) {
  std::vector<Obj> out;
  gpointer state = nullptr;
  while (GstMeta* m = gst_buffer_iterate_meta_filtered(buf, &state, GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE)) {
    auto* roi = reinterpret_cast<GstVideoRegionOfInterestMeta*>(m);
    Obj o{(int)roi->x, (int)roi->y, (int)roi->w, (int)roi->h, -1, roi->id, g_quark_to_string(roi->roi_type), -1};
    if (const GstStructure* p = gst_video_region_of_interest_meta_get_param(roi, "orva-detection")) {
      EXPECT_TRUE(gst_structure_get_int(p, "class-id", &o.cid));
      EXPECT_TRUE(gst_structure_get_double(p, "score", &o.score));
    }
    out.push_back(o);
  }
  std::sort(out.begin(), out.end());
  return out;
}

// What the network itself finds in the frame, letterboxed and clipped as the element does.
std::vector<Obj> reference(ORVA::DetectNetwork& net, const cv::Mat& frame, float thresh, float nms) {
  cv::Mat lb;
  cv::Size size(net.iW, net.iH);
  ORVA::resize_ratio(frame, lb, &size, 0.f, 128);
  ORVA::DetectObjList objs;
  net.detect(objs, lb, size, thresh, nms);
  static const char* kNames[] = {"plain", "greenish"};
  std::vector<Obj> out;
  for (ORVA::DetectObj& d : objs) {
    const cv::Rect r = d.bbox & cv::Rect(0, 0, frame.cols, frame.rows);
    if (r.area() > 0) out.push_back(Obj{r.x, r.y, r.width, r.height, d.cid, -1, kNames[d.cid], d.prob});
  }
  std::sort(out.begin(), out.end());
  return out;
}

void expect_same(const std::vector<Obj>& got, const std::vector<Obj>& want, double score_tol, const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  ASSERT_FALSE(want.empty()) << what << ": the frame should light some cells";
  for (size_t k = 0; k < got.size(); ++k) {
    EXPECT_EQ(std::tie(got[k].x, got[k].y, got[k].w, got[k].h, got[k].cid, got[k].id, got[k].type),
              std::tie(want[k].x, want[k].y, want[k].w, want[k].h, want[k].cid, want[k].id, want[k].type))
        << what << ", object " << k;
    EXPECT_NEAR(got[k].score, want[k].score, score_tol) << what << ", object " << k;
  }
}

// A parsed pipeline, brought to NULL and released at the end.
struct Pipeline {
  GstElement* p;
  explicit Pipeline(const std::string& desc) : p(gst_parse_launch(desc.c_str(), nullptr)) { EXPECT_NE(p, nullptr) << desc; }
  ~Pipeline() {
    gst_element_set_state(p, GST_STATE_NULL);
    gst_object_unref(p);
  }
  GstElement* get(const char* name) {
    GstElement* e = gst_bin_get_by_name(GST_BIN(p), name);
    gst_object_unref(e);  // the bin keeps it alive
    return e;
  }
  void push(const char* src, const cv::Mat& bgr, int index) {
    GstBuffer* buf = gst_buffer_new_memdup(bgr.data, bgr.total() * bgr.elemSize());
    GST_BUFFER_PTS(buf) = index * GST_SECOND / 10;
    ASSERT_EQ(gst_app_src_push_buffer(GST_APP_SRC(get(src)), buf), GST_FLOW_OK);
  }
  void end(const char* src) { gst_app_src_end_of_stream(GST_APP_SRC(get(src))); }
  // The next buffer's metas; false at EOS.
  bool pull(const char* sink, std::vector<Obj>& objs, cv::Mat* bgr = nullptr) {
    GstSample* s = gst_app_sink_try_pull_sample(GST_APP_SINK(get(sink)), 20 * GST_SECOND);
    if (!s) return false;
    objs = metas_of(gst_sample_get_buffer(s));
    GstMapInfo map;
    if (bgr && gst_buffer_map(gst_sample_get_buffer(s), &map, GST_MAP_READ)) {
      *bgr = cv::Mat(kH, kW, CV_8UC3, map.data).clone();  // rows of 192 bytes: no padding
      gst_buffer_unmap(gst_sample_get_buffer(s), &map);
    }
    gst_sample_unref(s);
    return true;
  }
  GstMessage* pop(GstMessageType types) {
    GstBus* bus = gst_element_get_bus(p);
    GstMessage* m = gst_bus_timed_pop_filtered(bus, 20 * GST_SECOND, types);
    gst_object_unref(bus);
    return m;
  }
};

std::string appsrc(const char* name) {
  return std::string("appsrc name=") + name + " format=time caps=video/x-raw,format=BGR,width=" + std::to_string(kW) +
         ",height=" + std::to_string(kH) + ",framerate=10/1 ! ";
}

std::string detect(const std::string& extra = "", bool wide = false) {
  return "orvadetect model=" + model_path(wide) + " gpu=-1 threshold=0.3 " + extra;
}

class GstDetectFormat : public ::testing::TestWithParam<const char*> {};

// Metas box by box against the network on the frames as the element sees them in each
// format (through videoconvert there and back: lossless for packed RGB, rounded colours for
// YUV); orvajson's lines, in a file and on the bus, hold the same objects.
TEST_P(GstDetectFormat, MetasMatchTheNetworkAndTheJsonLines) {
  SKIP_WITHOUT_GST();
  const std::string format = GetParam(), lines_path = temp_path("lines.json");
  const std::string to_format = "videoconvert ! video/x-raw,format=" + format + " ! ";
  Pipeline pipe(appsrc("src") + to_format + detect() + " ! orvajson location=" + lines_path +
                " source=cam0 ! orvajson source=cam0 ! appsink name=sink sync=false " + appsrc("raw") + to_format +
                "videoconvert ! video/x-raw,format=BGR ! appsink name=seen sync=false");
  ASSERT_EQ(gst_element_set_state(pipe.p, GST_STATE_PLAYING), GST_STATE_CHANGE_ASYNC);
  ORVA::DetectNetwork net(ORVA::TEST, 1, -1);
  net.load(model_path().c_str());
  std::mt19937 rng(17);
  for (int k = 0; k < 4; ++k) {
    const cv::Mat frame = random_frame(rng);
    pipe.push("src", frame, k);
    pipe.push("raw", frame, k);
  }
  pipe.end("src");
  std::vector<std::vector<Obj>> metas(4);
  for (int k = 0; k < 4; ++k) {
    std::vector<Obj> none;
    cv::Mat seen;
    ASSERT_TRUE(pipe.pull("sink", metas[k]) && pipe.pull("seen", none, &seen)) << "frame " << k;
    expect_same(metas[k], reference(net, seen, 0.3f, 0.4f), 1e-6, format + " frame " + std::to_string(k));
  }
  std::vector<Obj> none;
  EXPECT_FALSE(pipe.pull("sink", none)) << "EOS after the last frame";

  std::vector<std::string> bus_lines, file_lines;
  while (GstMessage* m = pipe.pop(GST_MESSAGE_ELEMENT)) {
    bus_lines.push_back(gst_structure_get_string(gst_message_get_structure(m), "line"));
    gst_message_unref(m);
    if (bus_lines.size() == 4) break;
  }
  gst_element_set_state(pipe.p, GST_STATE_NULL);  // closes the file
  std::ifstream f(lines_path);
  for (std::string line; std::getline(f, line);) file_lines.push_back(line);
  ASSERT_EQ(file_lines.size(), 4u);
  EXPECT_EQ(bus_lines, file_lines);
  for (int k = 0; k < 4; ++k) {
    const auto j = nlohmann::json::parse(file_lines[k]);
    EXPECT_EQ(j["source"], "cam0");
    EXPECT_EQ(j["frame"], k);
    EXPECT_EQ(std::make_pair(j["width"], j["height"]), std::make_pair(nlohmann::json(kW), nlohmann::json(kH)));
    std::vector<Obj> got;
    for (const auto& o : j["objects"])
      got.push_back(Obj{o["box"][0], o["box"][1], o["box"][2], o["box"][3], o["class_id"], o["id"], o["class"], o["score"]});
    std::sort(got.begin(), got.end());
    expect_same(got, metas[k], 5e-5, "line " + std::to_string(k));
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, GstDetectFormat, ::testing::Values("BGR", "BGRx", "RGB", "NV12", "I420"));

// Two streams through one network (same model, batch and device): each keeps its own
// threshold, and each frame's result comes back to its own stream.
TEST(GstDetect, InstancesShareOneNetworkWithTheirOwnThresholds) {
  SKIP_WITHOUT_GST();
  Pipeline pipe(appsrc("a") + detect("batch=2") + " ! appsink name=sa sync=false " + appsrc("b") +
                detect("batch=2 threshold=0.6") + " ! appsink name=sb sync=false");
  ASSERT_EQ(gst_element_set_state(pipe.p, GST_STATE_PLAYING), GST_STATE_CHANGE_ASYNC);
  ORVA::DetectNetwork net(ORVA::TEST, 1, -1);
  net.load(model_path().c_str());
  std::mt19937 rng(5);
  std::vector<cv::Mat> fa, fb;
  for (int k = 0; k < 6; ++k) {
    fa.push_back(random_frame(rng));
    fb.push_back(random_frame(rng));
    pipe.push("a", fa.back(), k);
    pipe.push("b", fb.back(), k);
  }
  for (int k = 0; k < 6; ++k) {
    std::vector<Obj> a, b;
    ASSERT_TRUE(pipe.pull("sa", a) && pipe.pull("sb", b));
    expect_same(a, reference(net, fa[k], 0.3f, 0.4f), 1e-6, "stream a frame " + std::to_string(k));
    expect_same(b, reference(net, fb[k], 0.6f, 0.4f), 1e-6, "stream b frame " + std::to_string(k));
  }
}

// A white ball moving over black: tracks get ids; a flushing seek back to the start restarts
// them (ids from 0 again on the first frame after it) and the stream still ends in EOS.
TEST(GstDetect, TracksRestartAfterAFlushingSeek) {
  SKIP_WITHOUT_GST();
  Pipeline pipe("videotestsrc pattern=ball num-buffers=40 ! video/x-raw,format=I420,width=160,height=120 ! " +
                detect("track=true") + " ! appsink name=sink sync=false max-buffers=2");
  ASSERT_NE(gst_element_set_state(pipe.p, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
  std::vector<Obj> objs;
  int highest = -1;
  for (int k = 0; k < 20; ++k) {
    ASSERT_TRUE(pipe.pull("sink", objs)) << "frame " << k;
    for (const Obj& o : objs) highest = std::max(highest, o.id);
  }
  ASSERT_GT(highest, 0) << "the moving ball should have made several tracks";
  ASSERT_TRUE(gst_element_seek_simple(pipe.p, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0));
  ASSERT_TRUE(pipe.pull("sink", objs));
  ASSERT_FALSE(objs.empty());
  std::vector<int> ids;
  for (const Obj& o : objs) ids.push_back(o.id);
  std::sort(ids.begin(), ids.end());
  for (size_t k = 0; k < ids.size(); ++k) EXPECT_EQ(ids[k], (int)k) << "ids after the seek start again at 0";
  while (pipe.pull("sink", objs)) {
  }
  EXPECT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(pipe.get("sink"))));
}

// Every bad value fails the start with an error from the element naming the property; the
// process goes on.
TEST(GstDetect, BadPropertiesFailTheStateChange) {
  SKIP_WITHOUT_GST();
  const std::string text = TempDir::path() + "not_a_model.orva";
  write_file(text, "[network]\nthis is not a model file\n");
  // A classifier: a fault the library treats as fatal, which must not end the process here.
  const std::string cls_cfg = temp_path("classifier.cfg"), classifier = TempDir::path() + "classifier.orva";
  write_file(cls_cfg, "[network]\nwidth=4\nheight=4\nchannels=3\n[convolution]\nfilters=2\nsize=1\n[softmax]\n");
  {
    ORVA::Network net(ORVA::TEST, 1, -1);
    ASSERT_EQ(net.load(cls_cfg.c_str(), nullptr), 0);
    net.save(classifier.c_str());
  }
  const std::string m = "orvadetect name=d gpu=-1 model=" + model_path();
  const std::pair<std::string, std::string> kCases[] = {
      {"orvadetect name=d", "model"},
      {"orvadetect name=d model=/nonexistent/x.orva", "model"},
      {"orvadetect name=d model=" + text, "model"},
      {"orvadetect name=d gpu=-1 model=" + classifier, "model"},
      {m + " threshold=2", "threshold"},
      {m + " nms=-0.5", "nms"},
      {m + " batch=0", "batch"},
      {m + " gpu=-3", "gpu"},
      {m + " names=/nonexistent/x.names", "names"},
      {"orvajson name=d location=/nonexistent/dir/x.json", "location"},
  };
  for (const auto& [element, property] : kCases) {
    Pipeline pipe("videotestsrc num-buffers=1 ! video/x-raw,format=BGR ! " + element + " ! fakesink");
    EXPECT_EQ(gst_element_set_state(pipe.p, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE) << element;
    GstMessage* msg = pipe.pop(GST_MESSAGE_ERROR);
    ASSERT_NE(msg, nullptr) << element;
    GError* err = nullptr;
    gst_message_parse_error(msg, &err, nullptr);
    EXPECT_STREQ(GST_OBJECT_NAME(GST_MESSAGE_SRC(msg)), "d") << element;
    EXPECT_NE(std::string(err->message).find("d: property '" + property + "'"), std::string::npos) << err->message;
    g_error_free(err);
    gst_message_unref(msg);
  }
}

// Resident memory once the allocator has handed back what it holds free.
long resident_kib() {
  malloc_trim(0);
  std::ifstream f("/proc/self/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

// Stopped and restarted a hundred times: each run loads the network, starts the worker and
// tracker, and releases them at the stop. Memory after the first thirty runs stays put.
TEST(GstDetect, HundredRestartsLeakNothing) {
  SKIP_WITHOUT_GST();
  Pipeline pipe("videotestsrc pattern=ball num-buffers=2 ! video/x-raw,format=I420,width=320,height=240 ! " +
                detect("track=true", true) + " ! orvajson ! fakesink");
  long settled = 0;
  for (int run = 0; run < 100; ++run) {
    ASSERT_NE(gst_element_set_state(pipe.p, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE) << "run " << run;
    GstMessage* m = pipe.pop((GstMessageType)(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(m, nullptr) << "run " << run;
    EXPECT_EQ(GST_MESSAGE_TYPE(m), GST_MESSAGE_EOS) << "run " << run;
    gst_message_unref(m);
    ASSERT_EQ(gst_element_set_state(pipe.p, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    GstBus* bus = gst_element_get_bus(pipe.p);
    gst_bus_set_flushing(bus, TRUE);  // drops the run's other messages
    gst_bus_set_flushing(bus, FALSE);
    gst_object_unref(bus);
    if (run == 29) settled = resident_kib();
  }
  // The allocator's and libraries' caches settle within a few MiB; a network left behind
  // would be over 3 MiB a run.
  EXPECT_LT(resident_kib() - settled, 4096) << "KiB resident after 70 more runs";
}

// A meta of another detector (no score) on an RGB frame: the box and label are drawn in the
// colour of its id, in the frame's channel order; pixels away from it are untouched.
TEST(GstOverlay, DrawsMetasOfAnyDetectorInChannelOrder) {
  SKIP_WITHOUT_GST();
  Pipeline pipe("appsrc name=src caps=video/x-raw,format=RGB,width=160,height=120,framerate=10/1 ! orvaoverlay ! "
                "appsink name=sink sync=false");
  ASSERT_EQ(gst_element_set_state(pipe.p, GST_STATE_PLAYING), GST_STATE_CHANGE_ASYNC);
  std::vector<unsigned char> black(160 * 120 * 3, 0);
  GstBuffer* buf = gst_buffer_new_memdup(black.data(), black.size());
  gst_buffer_add_video_region_of_interest_meta(buf, "car", 40, 50, 60, 40)->id = 7;
  ASSERT_EQ(gst_app_src_push_buffer(GST_APP_SRC(pipe.get("src")), buf), GST_FLOW_OK);
  GstSample* s = gst_app_sink_try_pull_sample(GST_APP_SINK(pipe.get("sink")), 20 * GST_SECOND);
  ASSERT_NE(s, nullptr);
  GstMapInfo map;
  gst_buffer_map(gst_sample_get_buffer(s), &map, GST_MAP_READ);
  const cv::Mat img(120, 160, CV_8UC3, map.data);
  EXPECT_EQ(img.at<cv::Vec3b>(70, 40), cv::Vec3b(160, 255, 0)) << "left edge in id 7's colour, R first";
  EXPECT_GT(cv::countNonZero(img(cv::Rect(40, 45, 60, 1)).reshape(1)), 30) << "the label above the box";
  EXPECT_EQ(img.at<cv::Vec3b>(70, 70), cv::Vec3b(0, 0, 0)) << "inside the box";
  EXPECT_EQ(img.at<cv::Vec3b>(110, 150), cv::Vec3b(0, 0, 0)) << "away from the box";
  gst_buffer_unmap(gst_sample_get_buffer(s), &map);
  gst_sample_unref(s);
}

}  // namespace

#endif
