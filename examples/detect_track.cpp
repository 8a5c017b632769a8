// Detect and track: objects in a video file, a camera or pictures, with their track ids.
//   detect_track MODEL [SOURCE] [--gpu N]    SOURCE: a video file, a camera index, a picture
// One line per frame on stdout: the frame number, then "cls:id@x,y,w,h" per tracked object.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include <orva/image.h>
#include <orva/networks.h>
#include <orva/tracker.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s MODEL [SOURCE] [--gpu N]\n", argv[0]);
    return 2;
  }
  const char* model = argv[1];
  std::string source = argc > 2 && strcmp(argv[2], "--gpu") != 0 ? argv[2] : "0";
  int gpu = 0;
  for (int i = 2; i + 1 < argc; ++i)
    if (strcmp(argv[i], "--gpu") == 0) gpu = atoi(argv[i + 1]);

  ORVA::setFatalThrows(true);  // a bad model raises instead of ending the process
  ORVA::DetectNetwork net(ORVA::TEST, 1, gpu);
  try {
    const size_t n = strlen(model);
    if (n > 4 && strcmp(model + n - 4, ".cfg") == 0)
      net.load(model, nullptr);
    else
      net.load(model);
  } catch (const std::exception& e) {
    fprintf(stderr, "%s: %s\n", model, e.what());
    return 1;
  }

  cv::VideoCapture video;
  cv::Mat picture = cv::imread(source, cv::IMREAD_COLOR);
  if (picture.empty()) {
    const bool camera = source.size() < 4 && source.find_first_not_of("0123456789") == std::string::npos;
    if (!(camera ? video.open(std::stoi(source)) : video.open(source))) {
      fprintf(stderr, "%s: can't open\n", source.c_str());
      return 1;
    }
  }

  ORVA::Tracker tracker(/*maxMiss*/ 3, /*minHit*/ 2, /*iouTh*/ 0.3f);
  cv::Mat frame;
  for (long k = 0;; ++k) {
    if (!picture.empty()) {
      if (k == 1) break;
      frame = picture;
    } else if (!video.read(frame) || frame.empty()) {
      break;
    }
    // The network takes its own input size: letterbox the frame, keep the size to map back.
    cv::Mat input;
    cv::Size size(net.iW, net.iH);
    ORVA::resize_ratio(frame, input, &size, 0.f, 128);
    ORVA::DetectObjList objs;
    net.detect(objs, input, size, /*thresh*/ 0.5f, /*nms*/ 0.4f);
    tracker.process(frame, objs);
    printf("%ld", k);
    for (const ORVA::DetectObj& o : objs)
      printf(" %d:%d@%d,%d,%d,%d", o.cid, o.oid, o.bbox.x, o.bbox.y, o.bbox.width, o.bbox.height);
    printf("\n");
  }
  return 0;
}
