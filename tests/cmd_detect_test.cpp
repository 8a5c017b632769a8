// The orva program run as its users run it: every command's statuses and messages for every
// kind of fault, no file left half-written; the detect command's options and the face detector on a demo picture when it has been fetched.
#include <gtest/gtest.h>

#include <filesystem>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "network_test_util.h"
#include "orva/orva.h"
#include "program_test_util.h"

namespace {

namespace fs = std::filesystem;
using namespace orva_test;

// Files every test shares: a small detector with random weights as a description, a
// weights-only file and a model file, faulty files, a picture and a video.
struct Files {
  std::string dir, cfg, weights, model, picture, video;
  Files() {
    dir = fs::path(temp_path("x")).parent_path().string() + "/program/";
    fs::create_directories(dir);
    cfg = dir + "det.cfg";
    write_file(cfg, kProgramDetectorCfg);
    weights = dir + "det.weights", model = dir + "det.orva";
    ORVA::Network net(ORVA::TEST, 1, -1);
    net.load(cfg.c_str(), nullptr);
    randomize_network(net);  // an inference network's own weights are whatever memory held
    net.save(weights.c_str(), false);
    net.save(model.c_str(), true);
    write_file(dir + "short.weights", std::string(12, '\0'));
    write_file(dir + "empty.weights", "");
    write_file(dir + "junk.orva", "not a model");
    write_file(dir + "bad.json", "{\"modelTopology\": {");
    write_file(dir + "labels.txt", "pic.png 0 0.5 0.5 0.2 0.2\n");
    cv::Mat img(48, 64, CV_8UC3);
    cv::randu(img, 0, 255);
    picture = dir + "pic.png";
    cv::imwrite(picture, img);
    video = dir + "clip.avi";
    cv::VideoWriter w(video, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10, img.size());
    for (int k = 0; k < 30; ++k) w.write(img);
  }
};

const Files& files() {
  static const Files f;
  return f;
}

// The same description with one line changed.
std::string variant(const std::string& name, const std::string& from, const std::string& to) {
  std::string t = text(files().cfg);
  t.replace(t.find(from), from.size(), to);
  const std::string path = files().dir + name;
  write_file(path, t);
  return path;
}

TEST(OrvaProgram, FaultsEndInOneMessageNamingTheFileAndLeaveNothingBehind) {
  const Files& f = files();
  const std::string d = f.dir, pic = f.picture, out = d + "out.orva";
  const std::string desc = "--gpu -1 -m " + f.cfg + " -w ";
  const std::string bogus = variant("act.cfg", "activation=leaky", "activation=bogus");
  const std::string misspelt = variant("key.cfg", "filters=14", "filtres=14");
  const std::string anchors = variant("num.cfg", "num=2", "num=5");
  const std::string section = variant("sect.cfg", "[convolution]", "[convolutional]");
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  struct Case {
    std::string args;
    int status;
    std::string message;
    std::string stdout_to = "";
  } cases[] = {
      {"frobnicate", 2, "unknown command"},
      {"detect -m " + f.model + " --roi 1,2 " + pic, 2, "--roi 1,2: expected X,Y,W,H"},
      {"detect -m " + f.model + " --start 1.5 " + pic, 2, "--start 1.5: expected"},
      {"detect --gpu -1 -m " + f.model + " --classes 0,cat " + pic, 2, "'cat' is neither"},
      {"detect -m " + f.model + " no_such_picture.jpg", 1, "no_such_picture.jpg: no such file"},
      {"info --gpu -1 -m " + d + "junk.orva", 1, "junk.orva: Invalid checksum"},
      // A weights-only file that is short, empty or really a model file, in every command.
      {"detect " + desc + d + "short.weights " + pic, 1, "short.weights: ends early"},
      {"info " + desc + d + "short.weights", 1, "short.weights: ends early"},
      {"bench " + desc + d + "empty.weights", 1, "empty.weights: empty weights file"},
      {"classify " + desc + f.model + " " + pic, 1, "det.orva: a model file, not a weights-only file"},
      {"train --gpu -1 -o " + d + " -w " + d + "short.weights " + f.cfg + " " + d + "labels.txt", 1,
       "short.weights: ends early"},
      {"convert --cfg " + f.cfg + " -w " + d + "short.weights -o " + out, 1, "short.weights: ends early"},
      {"convert --tfjs " + d + "bad.json -o " + out, 1, d + "bad.json: not JSON"},
      {"convert --onnx " + d + "junk.orva -o " + out, 1, d + "junk.orva: malformed model"},
      {"run --gpu -1 -m " + f.model + " --input " + d + "junk.orva", 1, d + "junk.orva: not a .npy file"},
      // Outputs that can't be written.
      {"convert --cfg " + f.cfg + " -w " + f.weights + " -o /dev/full", 1, "/dev/full: can't write"},
      {"convert --cfg " + f.cfg + " -w " + f.weights + " -o " + d + "nodir/x.orva", 1, "nodir/x.orva: no such folder"},
      {"detect --gpu -1 -m " + f.model + " --json /dev/full " + pic, 1, "/dev/full: can't write"},
      {"detect --gpu -1 -m " + f.model + " " + pic, 1, "stdout: can't write", "/dev/full"},
      {"info --gpu -1 -m " + f.model, 1, "stdout: can't write", "/dev/full"},
      {"train --gpu -1 -o " + d + "missing_dir " + f.cfg + " " + d + "labels.txt", 1, "missing_dir: no such folder"},
      {"detect --gpu -1 -m " + f.model + " --show " + pic, 1, "--show: no display"},
      // What would silently give a useless result.
      {"convert --cfg " + f.cfg + " -o " + out, 1, "det.cfg: no --weights; the model would hold random weights"},
      {"convert --cfg " + f.cfg + " -w " + f.weights + " --names " + d + "missing.names -o " + out, 1,
       "missing.names: no such file"},
      {"classify --gpu -1 -m " + f.model + " " + pic, 1, "det.orva: a detector (its output layer is region)"},
      // Descriptions.
      {"info --gpu -1 -m " + bogus, 1, "act.cfg:9: [convolution] unknown activation 'bogus'"},
      {"info --gpu -1 -m " + misspelt, 1, "key.cfg:6: [convolution] unknown key 'filtres'; did you mean 'filters'?"},
      {"info --gpu -1 -m " + anchors, 1, "num.cfg:13: [region] anchors has 4 values; num=5 needs 10"},
      {"info --gpu -1 -m " + section, 1, "sect.cfg:5: unknown section [convolutional]; did you mean [convolution]?"},
  };
  for (const Case& c : cases) {
    const ProgramRun r = run(c.args, c.stdout_to);
    EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << "\n" << r.err;
    // The program's message once; the engine's own lines only with -v.
    if (c.status == 1) {
      int messages = 0;
      std::istringstream in(r.err);
      for (std::string l; std::getline(in, l);) messages += l.compare(0, 5, "orva ") == 0;
      EXPECT_EQ(messages, 1) << c.args << "\n" << r.err;
      EXPECT_EQ(r.err.find("ERROR"), std::string::npos) << c.args << "\n" << r.err;
    }
  }
  for (const auto& e : fs::directory_iterator(d))
    EXPECT_EQ(e.path().filename().string().find(".part"), std::string::npos) << e.path();
  EXPECT_FALSE(fs::exists(out));
  // The training-proof program explains itself instead of starting its long run.
  const ProgramRun help = run("--help", "", ORVA_TRAIN_PROOF);
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("usage: orva_train_proof"), std::string::npos);
}

TEST(OrvaProgram, DetectOptionsOnPicturesAndFolders) {
  const Files& f = files();
  const std::string base = "detect --gpu -1 -m " + f.model + " -t 0.1 ";
  // Two folders with a picture of the same name, one of them not UTF-8.
  const std::string a = f.dir + "a/", b = f.dir + "b/", weird = std::string("p\xff.png");
  fs::create_directories(a);
  fs::create_directories(b);
  fs::copy_file(f.picture, a + "pic.png", fs::copy_options::overwrite_existing);
  fs::copy_file(f.picture, a + weird, fs::copy_options::overwrite_existing);
  fs::copy_file(f.picture, b + "pic.png", fs::copy_options::overwrite_existing);
  const std::string out = f.dir + "annotated", crops = f.dir + "crops";
  const ProgramRun all = run(base + "-o " + out + " --save-crops " + crops + " " + a + " " + b);
  ASSERT_EQ(all.status, 0) << all.err;
  const auto js = lines(all.out);
  ASSERT_EQ(js.size(), 3u);
  EXPECT_EQ(js[0].at("frame"), 0);  // pictures are numbered within their folder
  EXPECT_EQ(js[1].at("frame"), 1);
  EXPECT_EQ(js[2].at("frame"), 0);
  EXPECT_FALSE(js[0].contains("time"));
  EXPECT_TRUE(fs::exists(out + "/pic.png") && fs::exists(out + "/pic_2.png") && fs::exists(out + "/" + weird));
  size_t objects = 0;
  for (const auto& j : js) objects += j.at("objects").size();
  ASSERT_GT(objects, 0u);
  EXPECT_EQ((size_t)std::distance(fs::directory_iterator(crops), fs::directory_iterator()), objects);

  struct Case {
    std::string options;
    std::function<bool(const nlohmann::json& object)> holds;
  } cases[] = {
      {"--classes 1", [](const nlohmann::json& o) { return o.at("class_id") == 1; }},
      {"--classes 0", [](const nlohmann::json& o) { return o.at("class_id") == 0; }},
      {"--min-size 300", [](const nlohmann::json& o) { return o.at("box")[2] >= 300 && o.at("box")[3] >= 300; }},
      {"--roi 10,5,40,30",
       [](const nlohmann::json& o) {
         const auto& x = o.at("box");
         return x[0] >= 10 && x[1] >= 5 && int(x[0]) + int(x[2]) <= 50 && int(x[1]) + int(x[3]) <= 35;
       }},
  };
  for (const Case& c : cases) {
    const ProgramRun r = run(base + c.options + " " + f.picture);
    ASSERT_EQ(r.status, 0) << c.options << r.err;
    for (const auto& j : lines(r.out))
      for (const auto& o : j.at("objects")) EXPECT_TRUE(c.holds(o)) << c.options << " " << o;
  }
  // Nothing found: --only-hits writes neither a line nor a picture.
  const std::string none = f.dir + "none";
  const ProgramRun hits = run(base + "--min-size 300 --only-hits -o " + none + " " + f.picture);
  EXPECT_EQ(hits.status, 0);
  EXPECT_EQ(hits.out, "");
  EXPECT_TRUE(fs::is_empty(none));
}

TEST(OrvaProgram, DetectOptionsOnVideo) {
  const Files& f = files();
  const std::string base = "detect --gpu -1 -m " + f.model + " -t 0.1 ";
  struct Case {
    std::string options;
    std::vector<int> frames;
  } cases[] = {
      {"--every 7", {0, 7, 14, 21, 28}},
      {"--start 25", {25, 26, 27, 28, 29}},
      {"--start 2s --max-frames 2", {20, 21}},
  };
  for (const Case& c : cases) {
    const ProgramRun r = run(base + c.options + " " + f.video);
    ASSERT_EQ(r.status, 0) << c.options << r.err;
    std::vector<int> got;
    for (const auto& j : lines(r.out)) {
      got.push_back(j.at("frame"));
      EXPECT_NEAR(j.at("time").get<double>(), got.back() / 10.0, 1e-3) << c.options;  // the clip runs at 10 frames/s
    }
    EXPECT_EQ(got, c.frames) << c.options;
  }
  // Still frames: every detection keeps the detector's box and score; none has a track id on
  // the first frame, and tracks carry ids from their second hit on (--track-min-hits 1).
  const std::string out = f.dir + "tracked";
  const ProgramRun plain = run(base + "--max-frames 1 " + f.video);
  const ProgramRun tracked = run(base + "--track --track-min-hits 1 --max-frames 4 --progress -o " + out + " " + f.video);
  ASSERT_EQ(tracked.status, 0) << tracked.err;
  const auto js = lines(tracked.out), first = lines(plain.out);
  ASSERT_EQ(js.size(), 4u);
  for (size_t k = 0; k < 4; ++k) {
    ASSERT_EQ(js[k].at("objects").size(), first[0].at("objects").size());
    size_t with_id = 0;
    for (size_t i = 0; i < js[k].at("objects").size(); ++i) {
      const auto& o = js[k].at("objects")[i];
      EXPECT_EQ(o.at("box"), first[0].at("objects")[i].at("box"));
      EXPECT_EQ(o.at("score"), first[0].at("objects")[i].at("score"));
      with_id += o.at("id") >= 0;
    }
    if (k == 0)
      EXPECT_EQ(with_id, 0u);
    else
      EXPECT_GT(with_id, 0u) << k;
  }
  EXPECT_NE(tracked.err.find("\r["), std::string::npos);  // --progress draws the bar on a file too
  EXPECT_EQ(run(base + f.video).err.find("\r["), std::string::npos);
  cv::VideoCapture v(out + "/clip.mp4");
  ASSERT_TRUE(v.isOpened());
  EXPECT_EQ(v.get(cv::CAP_PROP_FRAME_COUNT), 4);
}

TEST(OrvaProgram, DetectFindsFacesInADemoPicture) {
  const std::string face = std::string(ORVA_MODELS_DIR) + "/face-api";
  const std::string picture = face + "/demo/sample1.jpg";
  if (!fs::exists(face + "/model/tiny_face_detector_model.bin") || !fs::exists(picture))
    GTEST_SKIP() << "the face detector was not fetched (scripts/setup.sh needs the npm registry): " << face;
  const std::string model = temp_path("face.orva"), json = temp_path("faces.json");
  const ProgramRun conv =
      run("convert --faceapi " + face + "/model/tiny_face_detector_model-weights_manifest.json -o " + model);
  ASSERT_EQ(conv.status, 0) << conv.err;
  const ProgramRun det = run("detect --gpu -1 -m " + model + " --json " + json + " " + picture);
  ASSERT_EQ(det.status, 0) << det.err;
  EXPECT_NE(det.err.find("sample1.jpg: 1920x1280, "), std::string::npos) << det.err;

  const auto js = lines(text(json));
  ASSERT_EQ(js.size(), 1u);
  const nlohmann::json& j = js[0];
  EXPECT_EQ(j.at("source"), picture);
  EXPECT_EQ(j.at("frame"), 0);
  const int w = j.at("width"), h = j.at("height");
  EXPECT_EQ(w, 1920);
  ASSERT_GE(j.at("objects").size(), 1u);
  for (const auto& o : j.at("objects")) {
    EXPECT_EQ(o.at("class"), "face");
    EXPECT_EQ(o.at("id"), -1);
    EXPECT_GE(o.at("score").get<double>(), 0.5);
    const std::vector<int> b = o.at("box");
    // Faces in this picture are a few hundred pixels wide and lie inside it.
    EXPECT_TRUE(b[0] >= 0 && b[1] >= 0 && b[0] + b[2] <= w && b[1] + b[3] <= h && b[2] > 100 && b[3] > 100) << o;
  }
}

}  // namespace
