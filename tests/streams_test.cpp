// Several video sources through `orva detect` at once, and its events on a real MQTT broker
// (Debian's mosquitto, started on a free loopback port): every frame once per source and in
// order, sources that end early, outputs, track events, an unreachable broker and one that
// restarts mid-stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include <opencv2/videoio.hpp>

#include "network_test_util.h"
#include "orva/orva.h"
#include "program_test_util.h"

namespace {

namespace fs = std::filesystem;
using namespace orva_test;
using Clock = std::chrono::steady_clock;
using CliRun = ProgramRun;

// A broker on loopback and a subscriber to PREFIX/# writing "topic payload" lines.
struct Broker {
  int port = freePort();
  std::string conf = temp_path("mosquitto.conf"), received = temp_path("received.txt");
  pid_t broker = -1, sub = -1;
  Broker() {
    write_file(conf, "listener " + std::to_string(port) + " 127.0.0.1\nallow_anonymous true\n");
    start();
    sub = spawn({"mosquitto_sub", "-h", "127.0.0.1", "-p", std::to_string(port), "-q", "1", "-v", "-t", "t/#"},
                received);
    // Subscribed once a probe comes back.
    waitFor([&] {
      std::system(("mosquitto_pub -h 127.0.0.1 -p " + std::to_string(port) + " -t t/probe -m 1 2>/dev/null").c_str());
      return text(received).find("t/probe") != std::string::npos;
    }, 20);
  }
  void start() {
    broker = spawn({"mosquitto", "-c", conf});
    waitFor([&] {
      return std::system(("mosquitto_pub -h 127.0.0.1 -p " + std::to_string(port) + " -t t/probe -m 1 2>/dev/null").c_str()) == 0;
    }, 20);
  }
  ~Broker() {
    stop(sub);
    stop(broker);
  }
  // Messages by topic, each parsed; probes left out.
  std::multimap<std::string, nlohmann::json> messages() const {
    std::multimap<std::string, nlohmann::json> m;
    std::istringstream in(text(received));
    for (std::string l; std::getline(in, l);) {
      const size_t sp = l.find(' ');
      if (l.rfind("t/probe", 0) == 0) continue;
      m.emplace(l.substr(0, sp), nlohmann::json::parse(l.substr(sp + 1)));
    }
    return m;
  }
};

bool haveMosquitto() { return std::system("command -v mosquitto >/dev/null && command -v mosquitto_sub >/dev/null") == 0; }

// A small detector with random weights (it finds boxes on a still random picture, so tracks
// start and end), and still clips of 30 frames at 10 frames/s.
struct Files {
  std::string dir, model, clip, other, cut, long_clip;
  Files() {
    dir = fs::path(temp_path("x")).parent_path().string() + "/streams/";
    fs::create_directories(dir);
    const std::string cfg = dir + "det.cfg";
    write_file(cfg, kProgramDetectorCfg);
    model = dir + "det.orva";
    clip = dir + "clip.avi", other = dir + "other.avi", long_clip = dir + "long.avi";
    // Random pictures and weights until the detector reports boxes (many draws put every box
    // outside the picture), so that there are tracks to follow.
    for (int attempt = 0; attempt < 32; ++attempt) {
      cv::Mat img(48, 64, CV_8UC3);
      cv::randu(img, 0, 255);
      for (auto [path, frames] : {std::pair{clip, 30}, std::pair{other, 30}, std::pair{long_clip, 400}}) {
        cv::VideoWriter w(path, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10, img.size());
        for (int k = 0; k < frames; ++k) w.write(img);
      }
      ORVA::Network net(ORVA::TEST, 1, -1);
      net.load(cfg.c_str(), nullptr);
      randomize_network(net);  // an inference network's own weights are whatever memory held
      net.save(model.c_str(), true);
      if (run("detect --gpu -1 -m " + model + " -t 0.1 --max-frames 1 " + clip).out.find("\"box\"") != std::string::npos)
        break;
    }
    // The same clip cut off in the middle: its header still promises 30 frames.
    cut = dir + "cut.avi";
    const std::string whole = text(clip);
    write_file(cut, whole.substr(0, whole.size() / 2));
  }
};

const Files& files() {
  static const Files f;
  return f;
}

std::map<std::string, std::vector<int>> framesBySource(const std::string& out) {
  std::map<std::string, std::vector<int>> m;
  std::istringstream in(out);
  for (std::string l; std::getline(in, l);) {
    const auto j = nlohmann::json::parse(l);
    m[j.at("source")].push_back(j.at("frame"));
  }
  return m;
}

std::vector<int> upTo(int n) {
  std::vector<int> v(n);
  for (int k = 0; k < n; ++k) v[k] = k;
  return v;
}

TEST(OrvaStreams, SourcesRunAtOnceEachInOrderAndOneThatIsCutOffEndsAlone) {
  const Files& f = files();
  const std::string out = f.dir + "out";
  const CliRun r = run("detect --gpu -1 -m " + f.model + " -t 0.1 --track -o " + out + " " + f.clip + " " + f.cut + " " +
                    f.clip + " --every 2");
  ASSERT_EQ(r.status, 0) << r.err;
  const auto m = framesBySource(r.out);
  std::vector<int> even;
  for (int k = 0; k < 30; k += 2) even.push_back(k);
  // The clip named twice is two sources: each of its frames comes twice, in order per source.
  std::vector<int> twice;
  for (int k : even) twice.push_back(k), twice.push_back(k);
  std::vector<int> got = m.at(f.clip);
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, twice);
  const std::vector<int>& cut = m.at(f.cut);
  EXPECT_GT(cut.size(), 3u);
  EXPECT_LT(cut.size(), even.size());
  EXPECT_TRUE(std::is_sorted(cut.begin(), cut.end()));
  EXPECT_NE(r.err.find(f.cut + ": ends at frame"), std::string::npos) << r.err;
  for (const char* name : {"clip.mp4", "clip_2.mp4", "cut.mp4"}) {
    cv::VideoCapture v(out + "/" + name);
    ASSERT_TRUE(v.isOpened()) << name;
    EXPECT_EQ(v.get(cv::CAP_PROP_FRAME_COUNT), std::string(name) == "cut.mp4" ? (double)cut.size() : 15.0) << name;
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 3);  // no part files left
}

// Ctrl-C or a termination mid-run: the signal's status, every output closed and playable,
// the lines written so far, no part file left.
TEST(OrvaStreams, InterruptedRunClosesEveryOutput) {
  const Files& f = files();
  for (const auto [sig, status] : {std::pair{SIGINT, 130}, std::pair{SIGTERM, 143}}) {
    const std::string out = f.dir + "stopped" + std::to_string(sig), json = out + ".json";
    fs::create_directories(out);
    const pid_t det = spawn({ORVA_CLI, "detect", "--gpu", "-1", "-m", f.model, "-t", "0.1", "-o", out, "--json", json,
                             "--realtime", f.long_clip, f.clip});
    ASSERT_TRUE(waitFor([&] { return fs::exists(out + "/.long.part.mp4") && fs::exists(out + "/.clip.part.mp4"); }, 30));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(signal_and_wait(det, sig), status);
    for (const char* name : {"long.mp4", "clip.mp4"}) {
      cv::VideoCapture v(out + "/" + name);
      cv::Mat frame;
      EXPECT_TRUE(v.isOpened() && v.read(frame)) << name;
    }
    const auto m = framesBySource(text(json));
    EXPECT_GT(m.at(f.long_clip).size(), 0u);
    EXPECT_LT(m.at(f.long_clip).size(), 400u);
    EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 2);
  }
}

TEST(OrvaStreams, EveryFrameAndTrackEventArrivesOnceAndParses) {
  if (!haveMosquitto()) GTEST_SKIP() << "mosquitto is not installed (scripts/setup.sh)";
  const Files& f = files();
  Broker b;
  const CliRun r = run("detect --gpu -1 -m " + f.model + " -t 0.1 --track --track-min-hits 1 --mqtt 127.0.0.1:" +
                    std::to_string(b.port) + " --topic t/box1 " + f.clip + " " + f.other);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("acknowledged, 0 undelivered, 0 reconnects"), std::string::npos) << r.err;
  std::multimap<std::string, nlohmann::json> m;
  waitFor([&] { return (m = b.messages()).count("t/box1/other/frames") == 30 && m.count("t/box1/clip/frames") == 30; }, 10);
  for (const std::string src : {"clip", "other"}) {
    std::vector<int> frames;
    std::map<int, int> starts, ends;
    for (auto [it, end] = m.equal_range("t/box1/" + src + "/frames"); it != end; ++it) {
      frames.push_back(it->second.at("frame"));
      EXPECT_EQ(it->second.at("source"), src == "clip" ? f.clip : f.other);
    }
    std::sort(frames.begin(), frames.end());
    EXPECT_EQ(frames, upTo(30)) << src;
    for (auto [it, end] = m.equal_range("t/box1/" + src + "/tracks"); it != end; ++it)
      ++(it->second.at("event") == "start" ? starts : ends)[it->second.at("id").get<int>()];
    // Still frames: every track lives to the end of its source and is closed there.
    EXPECT_FALSE(starts.empty()) << src << r.err;
    EXPECT_EQ(starts, ends) << src;
    for (const auto& [id, n] : starts) EXPECT_EQ(n, 1) << src << " track " << id;
  }
}

TEST(OrvaStreams, AnUnreachableBrokerIsCountedOrFailsFast) {
  const Files& f = files();
  const std::string base = "detect --gpu -1 -m " + f.model + " -t 0.1 --mqtt 127.0.0.1:" + std::to_string(freePort()) + " ";
  const CliRun counted = run(base + f.clip);
  ASSERT_EQ(counted.status, 0) << counted.err;
  EXPECT_EQ(framesBySource(counted.out)[f.clip], upTo(30));
  EXPECT_NE(counted.err.find("0 published, 0 acknowledged, 30 undelivered"), std::string::npos) << counted.err;
  const std::string json = temp_path("required.json");
  const CliRun required = run(base + "--mqtt-required --json " + json + " " + f.clip);
  EXPECT_EQ(required.status, 1);
  EXPECT_FALSE(fs::exists(json));
  EXPECT_NE(required.err.find("can't connect (Connection refused)"), std::string::npos) << required.err;
  EXPECT_EQ(required.out, "");
  EXPECT_EQ(run(base + "--topic a/# " + f.clip).status, 2);
}

TEST(OrvaStreams, BrokerRestartMidStreamLosesOnlyTheGapAndNeverStallsThePipeline) {
  if (!haveMosquitto()) GTEST_SKIP() << "mosquitto is not installed (scripts/setup.sh)";
  const Files& f = files();
  Broker b;
  const std::string json = temp_path("restart.json");
  // 60 frames paced at 10 frames/s: six seconds, the broker away for about one of them.
  const pid_t det = spawn({ORVA_CLI, "detect", "--gpu", "-1", "-m", f.model, "-t", "0.1", "--realtime", "--max-frames",
                           "60", "--mqtt", "127.0.0.1:" + std::to_string(b.port), "--topic", "t/r", "--json", json,
                           f.long_clip});
  ASSERT_GT(det, 0);
  ASSERT_TRUE(waitFor([&] { return b.messages().size() >= 10; }, 30));
  stop(b.broker);
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  b.start();
  int rc = 0;
  waitpid(det, &rc, 0);
  ASSERT_TRUE(WIFEXITED(rc));
  EXPECT_EQ(WEXITSTATUS(rc), 0);
  std::istringstream in(text(json));
  int lines = 0;
  for (std::string l; std::getline(in, l);) ++lines;
  EXPECT_EQ(lines, 60);  // the file output saw every frame whatever the broker did
  std::vector<int> frames;
  waitFor([&] {
    frames.clear();
    for (const auto& [topic, j] : b.messages()) frames.push_back(j.at("frame"));
    return !frames.empty() && *std::max_element(frames.begin(), frames.end()) == 59;
  }, 10);
  // Frames before the kill and after the restart arrived; at most the gap is missing.
  ASSERT_FALSE(frames.empty());
  EXPECT_EQ(*std::min_element(frames.begin(), frames.end()), 0);
  EXPECT_EQ(*std::max_element(frames.begin(), frames.end()), 59);
  EXPECT_LT(frames.size(), 60u + 20u);  // a resend after the reconnect may repeat a few
}

}  // namespace

namespace {

// (frames detected, frames dropped) from each summary line of `source` ("NAME: K frames, ...
// D dropped before detection"), wherever the terminal's redraw codes left it on its line.
std::vector<std::pair<long, long>> doneAndDropped(const std::string& err, const std::string& source) {
  std::vector<std::pair<long, long>> out;
  std::istringstream in(err);
  for (std::string l; std::getline(in, l);) {
    const size_t at = l.find(source + ": ");
    if (at == std::string::npos || l.find(" frames, ", at) == std::string::npos) continue;
    const size_t d = l.find(" dropped before detection");
    size_t b = d;
    while (d != std::string::npos && b > 0 && std::isdigit((unsigned char)l[b - 1])) --b;
    out.push_back({std::stol(l.substr(at + source.size() + 2)), d == std::string::npos ? 0 : std::stol(l.substr(b, d - b))});
  }
  return out;
}

// --realtime delivers files at their own rate as cameras would: frames the engine can't take
// in time are dropped and counted, every frame is either detected or counted, sources at the
// same rate get the same share of the engine, and the live lines report the rates while it
// runs. Without it the same files lose nothing.
TEST(OrvaStreams, RealtimeDropsWhatTheEngineCantTakeAndCountsIt) {
  const Files& f = files();
  // A network far slower than 500 frames/s, fed a file that claims 500.
  const std::string cfg = f.dir + "slow.cfg", model = f.dir + "slow.orva", fast = f.dir + "fast.avi";
  write_file(cfg, "[network]\nwidth=256\nheight=256\nchannels=3\n[convolution]\nfilters=32\nsize=3\nstride=1\n"
                  "activation=leaky\n[convolution]\nfilters=14\nsize=3\nstride=16\nactivation=leaky\n"
                  "[region]\nclasses=2\nnum=2\nanchors=1,1,2,2\nsoftmax=1\n");
  ORVA::Network net(ORVA::TEST, 1, -1);
  net.load(cfg.c_str(), nullptr);
  randomize_network(net);
  net.save(model.c_str(), true);
  constexpr int kFrames = 750;
  {
    cv::Mat img(48, 64, CV_8UC3);
    cv::randu(img, 0, 255);
    cv::VideoWriter w(fast, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 500, img.size());
    for (int k = 0; k < kFrames; ++k) w.write(img);
  }
  const CliRun paced = run("detect --gpu -1 -m " + model + " --realtime --progress " + fast + " " + fast + " " + fast);
  ASSERT_EQ(paced.status, 0) << paced.err;
  const auto counts = doneAndDropped(paced.err, fast);
  ASSERT_EQ(counts.size(), 3u) << paced.err;
  long least = kFrames, most = 0, total = 0;
  for (const auto& [done, dropped] : counts) {
    EXPECT_GT(dropped, 0);
    EXPECT_EQ(done + dropped, kFrames);
    least = std::min(least, done), most = std::max(most, done), total += done;
  }
  EXPECT_GE(2 * least, most) << paced.err;
  EXPECT_EQ((long)framesBySource(paced.out)[fast].size(), total);
  // The run lasts 1.5 s: at least one live line, redrawn in place.
  EXPECT_NE(paced.err.find("\x1b[2K"), std::string::npos);
  EXPECT_NE(paced.err.find("/s  done "), std::string::npos) << paced.err;

  const CliRun whole = run("detect --gpu -1 -m " + model + " --max-frames 40 " + fast + " " + fast);
  ASSERT_EQ(whole.status, 0) << whole.err;
  EXPECT_EQ(framesBySource(whole.out)[fast].size(), 80u);
  EXPECT_EQ(whole.err.find("dropped"), std::string::npos) << whole.err;
}

// Stream URLs go through FFmpeg: a file served over HTTP is read whole and in order; a server
// that never answers ends the run after --open-timeout with a message, not a hang.
TEST(OrvaStreams, StreamUrlsOpenOrTimeOut) {
  const Files& f = files();
  const int port = freePort();
  const pid_t server = spawn({"python3", "-m", "http.server", std::to_string(port), "--bind", "127.0.0.1", "--directory",
                              f.dir});
  ASSERT_TRUE(waitFor([&] {
    return std::system(("python3 -c \"import socket; socket.create_connection(('127.0.0.1', " + std::to_string(port) +
                        "))\" 2>/dev/null").c_str()) == 0;
  }, 20));
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/clip.avi";
  const CliRun served = run("detect --gpu -1 -m " + f.model + " -t 0.1 --max-frames 12 " + url);
  stop(server);
  ASSERT_EQ(served.status, 0) << served.err;
  EXPECT_EQ(framesBySource(served.out)[url], upTo(12));

  // Connections are accepted by the kernel's backlog and never answered.
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(fd, (sockaddr*)&a, sizeof a), 0);
  listen(fd, 8);
  getsockname(fd, (sockaddr*)&a, &len);
  const std::string silent = "http://127.0.0.1:" + std::to_string(ntohs(a.sin_port)) + "/cam.mjpg";
  const auto t0 = Clock::now();
  const CliRun hung = run("detect --gpu -1 -m " + f.model + " --open-timeout 1 " + silent);
  close(fd);
  EXPECT_EQ(hung.status, 1);
  EXPECT_NE(hung.err.find(silent + ": no answer within 1 s (--open-timeout)"), std::string::npos) << hung.err;
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - t0).count(), 10);
}

}  // namespace
