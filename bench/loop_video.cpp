// A long video for soak runs: the input played COPIES times in a row, written as MJPEG at
// the input's frame rate (optionally scaled by SCALE). Usage: loop_video IN OUT COPIES [SCALE]
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: loop_video IN OUT COPIES [SCALE]\n");
    return 2;
  }
  const int copies = atoi(argv[3]);
  const double scale = argc > 4 ? atof(argv[4]) : 1.0;
  cv::VideoCapture in(argv[1]);
  if (!in.isOpened() || copies < 1 || !(scale > 0)) {
    fprintf(stderr, "loop_video: %s: can't open, or bad COPIES/SCALE\n", argv[1]);
    return 1;
  }
  const double fps = in.get(cv::CAP_PROP_FPS) > 0 ? in.get(cv::CAP_PROP_FPS) : 25;
  std::vector<cv::Mat> frames;
  for (cv::Mat f; in.read(f);) {
    cv::Mat g;
    cv::resize(f, g, cv::Size(), scale, scale, cv::INTER_AREA);
    frames.push_back(g);
  }
  if (frames.empty()) {
    fprintf(stderr, "loop_video: %s: no frames\n", argv[1]);
    return 1;
  }
  cv::VideoWriter out(argv[2], cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), fps, frames[0].size());
  if (!out.isOpened()) {
    fprintf(stderr, "loop_video: %s: can't write\n", argv[2]);
    return 1;
  }
  for (int k = 0; k < copies; ++k)
    for (const cv::Mat& f : frames) out.write(f);
  printf("%s: %zu frames x %d at %.1f frames/s = %.0f s\n", argv[2], frames.size(), copies, fps,
         frames.size() * copies / fps);
  return 0;
}
