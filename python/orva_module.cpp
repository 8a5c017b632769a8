// The `orva` Python module: task networks, the detection worker, the tracker, the background
// model and the image hash over NumPy frames laid out as OpenCV's Python binding gives them.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "orva/bgs.h"
#include "orva/image.h"
#include "orva/networks.h"
#include "orva/orva.h"
#include "orva/tracker.h"

namespace py = pybind11;

namespace {

// ---- Frames ------------------------------------------------------------------------------

std::string shapeText(const py::array& a) {
  std::ostringstream s;
  s << "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) s << (i ? ", " : "") << a.shape(i);
  s << (a.ndim() == 1 ? ",)" : ")");
  return s.str();
}

std::string stridesText(const py::array& a) {
  std::ostringstream s;
  s << "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) s << (i ? ", " : "") << a.strides(i);
  s << ")";
  return s.str();
}

// A view of an 8-bit image array: H x W (gray), H x W x 1 or H x W x 3 (BGR), pixels packed
// along each row; rows may lie apart (a crop of a larger frame). No copy is made: the array
// must outlive the view.
cv::Mat frameView(const py::handle& obj, const char* what) {
  const char* layout = "an H x W x 3 (BGR) or H x W uint8 array with packed pixels, e.g. from cv2.imread";
  if (!py::isinstance<py::array>(obj))
    throw py::value_error(std::string(what) + ": expected " + layout + ", got " +
                          std::string(py::str(obj.get_type().attr("__name__"))));
  py::array a = py::reinterpret_borrow<py::array>(obj);
  if (a.dtype().kind() != 'u' || a.itemsize() != 1)
    throw py::value_error(std::string(what) + ": expected " + layout + ", got dtype " +
                          std::string(py::str(a.dtype())));
  const int nd = (int)a.ndim();
  const int c = nd == 3 ? (int)a.shape(2) : 1;
  if ((nd != 2 && nd != 3) || (c != 1 && c != 3) || a.shape(0) < 1 || a.shape(1) < 1)
    throw py::value_error(std::string(what) + ": expected " + layout + ", got shape " + shapeText(a));
  const bool packed = (nd == 2 || a.strides(2) == 1) && a.strides(1) == c && a.strides(0) >= a.shape(1) * c;
  if (!packed)
    throw py::value_error(std::string(what) + ": expected " + layout + ", got strides " + stridesText(a) +
                          " (np.ascontiguousarray makes a packed copy)");
  return cv::Mat((int)a.shape(0), (int)a.shape(1), CV_8UC(c), const_cast<void*>(a.data()), (size_t)a.strides(0));
}

// A matrix handed to Python as an array that owns a reference to it (no copy).
py::array toArray(const cv::Mat& m) {
  cv::Mat* keep = new cv::Mat(m);
  py::capsule owner(keep, [](void* p) { delete static_cast<cv::Mat*>(p); });
  std::vector<py::ssize_t> shape = {m.rows, m.cols};
  std::vector<py::ssize_t> strides = {(py::ssize_t)m.step[0], (py::ssize_t)m.elemSize()};
  if (m.channels() > 1) {
    shape.push_back(m.channels());
    strides.push_back((py::ssize_t)m.elemSize1());
  }
  if (m.depth() == CV_8U) return py::array(py::dtype::of<uint8_t>(), shape, strides, m.data, owner);
  if (m.depth() == CV_32F) return py::array(py::dtype::of<float>(), shape, strides, m.data, owner);
  delete keep;
  throw std::runtime_error("unexpected matrix depth");
}

// ---- Results -----------------------------------------------------------------------------

struct Detection {
  int cls = 0;
  float score = 0;
  int x = 0, y = 0, w = 0, h = 0;
  int id = -1;
};

Detection fromObj(const ORVA::DetectObj& o) {
  return Detection{o.cid, o.prob, o.bbox.x, o.bbox.y, o.bbox.width, o.bbox.height, o.oid};
}

ORVA::DetectObj toObj(const Detection& d) {
  return ORVA::DetectObj{d.cls, d.id, d.score, cv::Rect(d.x, d.y, d.w, d.h)};
}

// One row per object: x, y, w, h, score, cls, id.
py::array_t<float> objsArray(const ORVA::DetectObjList& objs) {
  py::array_t<float> a({(py::ssize_t)objs.size(), (py::ssize_t)7});
  auto r = a.mutable_unchecked<2>();
  for (size_t i = 0; i < objs.size(); ++i) {
    const ORVA::DetectObj& o = objs[i];
    const float row[7] = {(float)o.bbox.x, (float)o.bbox.y, (float)o.bbox.width, (float)o.bbox.height,
                          o.prob,          (float)o.cid,    (float)o.oid};
    for (int k = 0; k < 7; ++k) r(i, k) = row[k];
  }
  return a;
}

// Boxes come back in the letterbox's widened frame: kept inside the frame, and dropped when
// nothing of them is left there (as the orva program reports them).
void clipObjs(ORVA::DetectObjList& objs, const cv::Size& frame) {
  const cv::Rect inside(0, 0, frame.width, frame.height);
  for (ORVA::DetectObj& o : objs) o.bbox &= inside;
  objs.erase(std::remove_if(objs.begin(), objs.end(), [](const ORVA::DetectObj& o) { return o.bbox.area() <= 0; }),
             objs.end());
}

py::object objsResult(const ORVA::DetectObjList& objs, bool as_array) {
  if (as_array) return objsArray(objs);
  py::list l;
  for (const ORVA::DetectObj& o : objs) l.append(fromObj(o));
  return std::move(l);
}

// Detections from a list of Detection objects or an N x 7 array of the layout above.
ORVA::DetectObjList objsFrom(const py::handle& obj) {
  ORVA::DetectObjList objs;
  if (py::isinstance<py::array>(obj)) {
    py::array_t<float, py::array::c_style | py::array::forcecast> a = py::reinterpret_borrow<py::array>(obj);
    if (a.ndim() != 2 || (a.shape(1) != 7 && a.shape(0) != 0))
      throw py::value_error("detections: expected an N x 7 array (x, y, w, h, score, cls, id), got shape " +
                            shapeText(a));
    auto r = a.unchecked<2>();
    for (py::ssize_t i = 0; i < a.shape(0); ++i)
      objs.push_back(ORVA::DetectObj{(int)r(i, 5), (int)r(i, 6), r(i, 4),
                                     cv::Rect((int)r(i, 0), (int)r(i, 1), (int)r(i, 2), (int)r(i, 3))});
    return objs;
  }
  for (const py::handle& item : obj) objs.push_back(toObj(item.cast<Detection>()));
  return objs;
}

// ---- Networks ----------------------------------------------------------------------------

// Builds from a model file, or from a description (.cfg, or any file with weights given).
void loadNetwork(ORVA::Network& net, const std::string& model, const py::object& weights, bool quant, bool fast) {
  const bool description = !weights.is_none() || (model.size() > 4 && model.compare(model.size() - 4, 4, ".cfg") == 0);
  int rc;
  if (description) {
    const std::string w = weights.is_none() ? std::string() : py::str(weights).cast<std::string>();
    py::gil_scoped_release nogil;
    rc = net.load(model.c_str(), w.empty() ? nullptr : w.c_str(), quant, fast);
  } else {
    py::gil_scoped_release nogil;
    rc = net.load(model.c_str(), quant, fast);
  }
  if (rc != 0) throw std::runtime_error(model + ": not a network description (no [network] section)");
}

// Python's handle on a network: the network itself until close().
template <typename Net>
struct PyNet {
  std::unique_ptr<Net> net;

  PyNet(const std::string& model, const py::object& weights, int batch, int gpu, bool quant, bool fast) {
    if (batch < 1) throw py::value_error("batch must be at least 1, got " + std::to_string(batch));
    net = std::make_unique<Net>(ORVA::TEST, batch, gpu);
    loadNetwork(*net, model, weights, quant, fast);
  }
  Net& get() {
    if (!net) throw std::runtime_error("the network is closed");
    return *net;
  }
  void close() { net.reset(); }

  // The frame as the network input: itself when it already fits, else letterboxed (fill 128).
  // size receives the frame size the results map back to.
  cv::Mat input(const py::handle& frame, cv::Size& size) {
    Net& n = get();
    cv::Mat m = frameView(frame, "frame");
    if (m.channels() != n.iC)
      throw py::value_error("frame: the network takes " + std::to_string(n.iC) + " channel(s), got " +
                            std::to_string(m.channels()));
    if (m.cols == n.iW && m.rows == n.iH && m.isContinuous()) {
      size = m.size();
      return m;
    }
    cv::Mat in;
    size = cv::Size(n.iW, n.iH);
    ORVA::resize_ratio(m, in, &size, 0.f, 128);
    return in;
  }
};

template <typename Net>
void bindCommon(py::class_<PyNet<Net>>& c) {
  using P = PyNet<Net>;
  c.def(py::init<const std::string&, const py::object&, int, int, bool, bool>(), py::arg("model"),
        py::arg("weights") = py::none(), py::arg("batch") = 1, py::arg("gpu") = 0, py::arg("quant") = false,
        py::arg("fast") = false,
        "Builds the network from a model file, or from a description (.cfg) with an optional weights file.\n"
        "gpu: the CUDA device, -1 for the host (a missing GPU falls back to the host). Raises RuntimeError\n"
        "(orva.Error for faults of the description) when the files can't be used.")
      .def("close", &P::close, "Releases the network; any later use raises RuntimeError.")
      .def_property_readonly("closed", [](P& p) { return !p.net; })
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](P& p, py::args) { p.close(); })
      .def_property_readonly("input_size", [](P& p) { return py::make_tuple(p.get().iW, p.get().iH, p.get().iC); },
                             "(width, height, channels) of the network input.")
      .def_property_readonly("batch", [](P& p) { return p.get().getBatch(); })
      .def_property_readonly("layer_count", [](P& p) { return p.get().getLayerCount(); })
      .def_property_readonly("gpu", [](P& p) { return p.get().getGpuIndex(); },
                             "The CUDA device serving the network, -1 on the host.")
      .def(
          "save", [](P& p, const std::string& path) {
            Net& n = p.get();
            py::gil_scoped_release nogil;
            n.save(path.c_str(), true);
          },
          py::arg("path"), "Writes the network as a model file.");
}

// ---- Tasks -------------------------------------------------------------------------------

// The detection worker and the network it owns (shared with the Python network object).
struct PyDetectTask {
  py::object owner;  // keeps the network alive while the task runs
  std::unique_ptr<ORVA::DetectTask> task;
  // Sizes of the frames in flight, by (id, tick), to keep their boxes inside them.
  std::multimap<std::pair<unsigned, unsigned>, cv::Size> sizes;

  explicit PyDetectTask(py::object net) : owner(net) {
    auto& pn = net.cast<PyNet<ORVA::DetectNetwork>&>();
    task = std::make_unique<ORVA::DetectTask>(&pn.get());
    task->run();
  }
  ORVA::DetectTask& get() {
    if (!task) throw std::runtime_error("the detect task is closed");
    return *task;
  }
  void close() {
    if (!task) return;
    py::gil_scoped_release nogil;
    task.reset();
  }
};

}  // namespace

PYBIND11_MODULE(orva, m) {
  m.doc() =
      "ORVA: neural-network inference for video analytics.\n\n"
      "Frames are NumPy arrays as cv2 gives them: H x W x 3 uint8 BGR, or H x W gray. Networks\n"
      "release the GIL while they run, so threads with one network each run in parallel.";
  // A fault in a user's file raises instead of ending the interpreter.
  ORVA::setFatalThrows(true);
  py::register_exception<ORVA::FatalError>(m, "Error", PyExc_RuntimeError);
  // A short read of a weights or model file throws its count.
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (size_t n) {
      PyErr_SetString(PyExc_RuntimeError, ("the file ends early (a read of " + std::to_string(n) + " came short)").c_str());
    }
  });

  m.attr("__version__") = std::to_string(ORVA_MAJOR_VERSION) + "." + std::to_string(ORVA_MINOR_VERSION);
  m.attr("DEBUG") = (int)DEBUG;
  m.attr("INFO") = (int)INFO;
  m.attr("WARNING") = (int)WARNING;
  m.attr("ALERT") = (int)ALERT;
  m.def("set_msg_level", &ORVA::setMsgLevel, py::arg("level"),
        "Lines of this level and above go to stderr (DEBUG, INFO, WARNING, ALERT; default ALERT).");

  py::class_<Detection>(m, "Detection", "One detected (or tracked) object.")
      .def(py::init([](int cls, float score, py::sequence box, int id) {
             if (py::len(box) != 4) throw py::value_error("box: expected (x, y, w, h)");
             return Detection{cls, score, box[0].cast<int>(), box[1].cast<int>(), box[2].cast<int>(),
                              box[3].cast<int>(), id};
           }),
           py::arg("cls"), py::arg("score"), py::arg("box"), py::arg("id") = -1)
      .def_readonly("cls", &Detection::cls, "Class index.")
      .def_readonly("score", &Detection::score, "Class score times objectness.")
      .def_property_readonly("box", [](const Detection& d) { return py::make_tuple(d.x, d.y, d.w, d.h); },
                             "(x, y, w, h) in pixels of the frame: left, top, width, height.")
      .def_readonly("id", &Detection::id, "Object identity from the tracker; -1 from a detector.")
      .def("__repr__", [](const Detection& d) {
        std::ostringstream s;
        s << "Detection(cls=" << d.cls << ", score=" << d.score << ", box=(" << d.x << ", " << d.y << ", " << d.w
          << ", " << d.h << "), id=" << d.id << ")";
        return s.str();
      });

  using Det = PyNet<ORVA::DetectNetwork>;
  py::class_<Det> det(m, "DetectNetwork", "Object detection (region, qregion or detobj head).");
  bindCommon(det);
  det.def_property_readonly("class_count", [](Det& p) { return p.get().getClassNum(); })
      .def(
          "detect",
          [](Det& p, const py::handle& frame, float thresh, float nms, bool as_array) {
            cv::Size size;
            cv::Mat in = p.input(frame, size);
            const cv::Size frame_size = frameView(frame, "frame").size();
            ORVA::DetectObjList objs;
            {
              py::gil_scoped_release nogil;
              p.get().detect(objs, in, size, thresh, nms);
            }
            clipObjs(objs, frame_size);
            return objsResult(objs, as_array);
          },
          py::arg("frame"), py::arg("thresh") = 0.5f, py::arg("nms") = 0.4f, py::arg("as_array") = false,
          "Objects in one frame, by descending score: a list of Detection, or with as_array an N x 7\n"
          "float32 array (x, y, w, h, score, cls, id). nms <= 0 selects soft suppression.")
      .def(
          "set_parameter", [](Det& p, unsigned key, float thresh, float nms) { p.get().setParameter(key, thresh, nms); },
          py::arg("key"), py::arg("thresh"), py::arg("nms"),
          "Threshold and suppression for frames of source `key` in a DetectTask.");

  using Cls = PyNet<ORVA::ClassifyNetwork>;
  py::class_<Cls> cls(m, "ClassifyNetwork", "Image classification.");
  bindCommon(cls);
  cls.def_property_readonly("class_count", [](Cls& p) { return p.get().getClassNum(); })
      .def(
          "classify",
          [](Cls& p, const py::handle& frame, float thresh, int topk) {
            cv::Size size;
            cv::Mat in = p.input(frame, size);
            ORVA::ClassIdList l;
            {
              py::gil_scoped_release nogil;
              p.get().classify(&l, &in, thresh, topk, 1);
            }
            std::vector<std::pair<int, float>> out;
            for (const ORVA::ClassId& c : l) out.emplace_back(c.id, c.prob);
            return out;
          },
          py::arg("frame"), py::arg("thresh") = 0.f, py::arg("topk") = 1,
          "The best class (topk <= 1) or the topk best as (class, score) pairs scoring at least thresh.")
      .def(
          "scores",
          [](Cls& p, const py::handle& frame) {
            cv::Size size;
            cv::Mat in = p.input(frame, size);
            float* out;
            {
              py::gil_scoped_release nogil;
              out = p.get().predict(&in, 1);
            }
            return py::array_t<float>(p.get().getOutputs(), out);
          },
          py::arg("frame"), "Every class score of one frame as a float32 array.");

  using Hm = PyNet<ORVA::HeatmapNetwork>;
  py::class_<Hm> hm(m, "HeatmapNetwork", "Heat-map detection.");
  bindCommon(hm);
  hm.def_property_readonly("class_count", [](Hm& p) { return p.get().getClassNum(); })
      .def(
          "heatmap",
          [](Hm& p, const py::handle& frame, int cid, float thresh) {
            if (cid < 0 || cid >= p.get().getClassNum())
              throw py::value_error("cls: " + std::to_string(cid) + " is not a class of this network (" +
                                    std::to_string(p.get().getClassNum()) + " classes)");
            cv::Size size;
            cv::Mat in = p.input(frame, size);
            cv::Mat map;
            {
              py::gil_scoped_release nogil;
              float* out = p.get().predict(&in, 1);
              p.get().getHeatmap(out, map, cid, thresh);
            }
            return toArray(map);
          },
          py::arg("frame"), py::arg("cls") = 0, py::arg("thresh") = 0.f,
          "Probability of class `cls` per sub-cell scaled to 0..255 (uint8 array on the fine grid).");

  py::class_<PyDetectTask>(m, "DetectTask",
                           "Detection on a worker thread: frames from any number of sources in, one result per\n"
                           "accepted frame out, in the order they were accepted. The network must not be used\n"
                           "elsewhere while the task lives.")
      .def(py::init<py::object>(), py::arg("network"))
      .def(
          "process",
          [](PyDetectTask& t, const py::handle& frame, unsigned id, unsigned tick) {
            ORVA::TaskInput in{id, tick, frameView(frame, "frame")};
            ORVA::DetectTask& task = t.get();
            // Noted before the frame is queued: its result may be fetched as soon as it is.
            const auto key = std::make_pair(id, tick);
            t.sizes.emplace(key, in.img.size());
            bool taken;
            {
              py::gil_scoped_release nogil;  // the frame is letterboxed into a copy before this returns
              taken = task.process(in);
            }
            if (!taken) {
              auto it = t.sizes.find(key);
              if (it != t.sizes.end()) t.sizes.erase(it);
            }
            return taken;
          },
          py::arg("frame"), py::arg("id") = 0, py::arg("tick") = 0,
          "Queues a frame; False (frame dropped) when 2 x batch frames are already waiting.")
      .def(
          "result",
          [](PyDetectTask& t, bool as_array) -> py::object {
            ORVA::DetectTaskResult r;
            if (!t.get().getResult(r)) return py::none();
            auto it = t.sizes.find(std::make_pair(r.id, r.tick));
            if (it != t.sizes.end()) {
              clipObjs(r.objs, it->second);
              t.sizes.erase(it);
            }
            return py::make_tuple(r.id, r.tick, objsResult(r.objs, as_array));
          },
          py::arg("as_array") = false, "(id, tick, detections) of the next result, or None; never blocks.")
      .def("close", &PyDetectTask::close, "Stops the worker and drops what is still queued.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](PyDetectTask& t, py::args) { t.close(); });

  py::class_<ORVA::Tracker>(m, "Tracker", "Multi-object tracker: Kalman-filtered boxes matched by optimal assignment.")
      .def(py::init<int, int, float>(), py::arg("max_miss") = 3, py::arg("min_hit") = 2, py::arg("iou") = 0.3f)
      .def(
          "update",
          [](ORVA::Tracker& t, const py::handle& detections, const py::handle& frame, bool as_array) {
            ORVA::DetectObjList objs = objsFrom(detections);
            cv::Mat size;
            if (py::isinstance<py::array>(frame)) {
              cv::Mat f = frameView(frame, "frame");
              size = cv::Mat(f.rows, f.cols, CV_8UC1, f.data, f.step[0]);
            } else {
              auto wh = frame.cast<std::pair<int, int>>();
              if (wh.first < 1 || wh.second < 1) throw py::value_error("frame: (width, height) must be positive");
              // Only the size is read: the data pointer is a placeholder.
              static unsigned char placeholder;
              size = cv::Mat(wh.second, wh.first, CV_8UC1, &placeholder);
            }
            t.process(size, objs);
            return objsResult(objs, as_array);
          },
          py::arg("detections"), py::arg("frame"), py::arg("as_array") = false,
          "Tracked objects for this frame's detections (a list of Detection or an N x 7 array); `frame` is\n"
          "the frame or its (width, height). Confirmed tracks carry their identity in `id`.")
      .def("reset", &ORVA::Tracker::reset);

  py::class_<ORVA::MedianBGS>(m, "MedianBGS", "Running-median background model of a fixed camera.")
      .def(py::init<int, int, int>(), py::arg("width"), py::arg("height"), py::arg("channels") = 3)
      .def(
          "init",
          [](ORVA::MedianBGS& b, const py::handle& frame, int value) {
            cv::Mat f = frameView(frame, "frame");
            return b.init(f, value);
          },
          py::arg("frame"), py::arg("value") = -1,
          "Starts the model: a flat grey level (value >= 0) or seeded from the frame. False when the\n"
          "frame does not have the model's geometry.")
      .def(
          "update",
          [](ORVA::MedianBGS& b, const py::handle& frame) {
            cv::Mat f = frameView(frame, "frame");
            return b.update(f, 0.f);
          },
          py::arg("frame"))
      .def("background", [](ORVA::MedianBGS& b) { return toArray(b.getBackground()); })
      .def(
          "foreground",
          [](ORVA::MedianBGS& b, const py::handle& frame) {
            cv::Mat f = frameView(frame, "frame");
            cv::Mat fg = b.getForeground(f);
            if (fg.empty()) throw py::value_error("frame: not of the model's geometry");
            return toArray(fg);
          },
          py::arg("frame"), "Absolute difference between the frame and the background.")
      .def("set_parameter", &ORVA::MedianBGS::setParameter, py::arg("alpha_min"));

  py::enum_<ORVA::HashMode>(m, "HashMode")
      .value("GRAY_32BIT", ORVA::GRAY_32BIT)
      .value("GRAY_64BIT", ORVA::GRAY_64BIT)
      .value("RGB_96BIT", ORVA::RGB_96BIT)
      .value("RGB_192BIT", ORVA::RGB_192BIT)
      .value("YUV_96BIT", ORVA::YUV_96BIT)
      .value("YUV_128BIT", ORVA::YUV_128BIT)
      .value("HSV_96BIT", ORVA::HSV_96BIT)
      .value("HSV_128BIT", ORVA::HSV_128BIT);
  m.def(
      "compute_hash",
      [](const py::handle& frame, ORVA::HashMode mode) {
        cv::Mat f = frameView(frame, "frame");
        if (f.channels() != 3) throw py::value_error("frame: the hash takes an H x W x 3 BGR frame");
        cv::Mat h;
        ORVA::computeHash(f, h, mode);
        return toArray(h).attr("reshape")(-1);
      },
      py::arg("frame"), py::arg("mode") = ORVA::GRAY_64BIT, "Perceptual hash of a BGR frame as a uint8 array.");
  m.def(
      "compare_hash",
      [](py::array_t<uint8_t, py::array::c_style | py::array::forcecast> a,
         py::array_t<uint8_t, py::array::c_style | py::array::forcecast> b) {
        cv::Mat ma(1, (int)a.size(), CV_8UC1, const_cast<uint8_t*>(a.data()));
        cv::Mat mb(1, (int)b.size(), CV_8UC1, const_cast<uint8_t*>(b.data()));
        return ORVA::compareHash(ma, mb);
      },
      py::arg("a"), py::arg("b"), "Fraction of differing bits (0..1); -1.0 when the lengths differ.");
}
