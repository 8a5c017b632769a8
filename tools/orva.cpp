// orva: find objects in pictures and video, inspect, time and convert models.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <opencv2/core/utils/logger.hpp>

#include "cli.h"

namespace {

const orvacli::Command kCommands[] = {
    {"detect", "find objects in images, folders, video files or cameras", cmd_detect},
    {"classify", "name the best classes of pictures", cmd_classify},
    {"info", "layers, parameters, operations, input size and classes of a model", cmd_info},
    {"bench", "per-layer times and frames per second", cmd_bench},
    {"convert", "description + weights, darknet, face-api, TF.js or ONNX models to one model file", cmd_convert},
    {"run", "a network on a raw tensor (.npy) in, the output tensor out", cmd_run},
    {"train", "teach a network from a list of labelled pictures", cmd_train},
};

void usage(std::ostream& out) {
  out << "usage: orva <command> [options]   (orva <command> --help for its options)\n\ncommands:\n";
  for (const auto& c : kCommands) out << "  " << c.name << std::string(10 - strlen(c.name), ' ') << c.summary << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage(std::cerr);
    return orvacli::kUsage;
  }
  const std::string name = argv[1];
  if (name == "-h" || name == "--help" || name == "help") {
    usage(std::cout);
    return orvacli::kOk;
  }
  if (name == "--version") {
    std::cout << "orva " << ORVA_MAJOR_VERSION << "." << ORVA_MINOR_VERSION << "\n";
    return orvacli::kOk;
  }
  // Faults in descriptions and model files end up as messages naming the file; the
  // engine's and OpenCV's own lines only with --verbose (FFmpeg's through OpenCV's setting,
  // read when a video is first opened).
  ORVA::setFatalThrows(true);
  ORVA::setMsgLevel(ALERT + 1);
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  bool verbose = false;
  for (int i = 2; i < argc; ++i) verbose |= !strcmp(argv[i], "-v") || !strcmp(argv[i], "--verbose");
  if (!verbose) setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);
  for (const auto& c : kCommands)
    if (name == c.name) {
      try {
        const int status = c.run(argc - 1, argv + 1);
        // What a command printed is lost when stdout can't take it (a full disk, a closed pipe).
        std::cout.flush();
        if (status == orvacli::kOk && (fflush(stdout) != 0 || ferror(stdout) || !std::cout))
          return orvacli::fail(name, std::string("stdout: can't write (") + strerror(errno) + ")");
        return status;
      } catch (const std::exception& e) {
        return orvacli::fail(name, e.what());
      } catch (size_t) {
        return orvacli::fail(name, "a file ended early or could not be written (short count)");
      }
    }
  std::cerr << "orva: unknown command '" << name << "'\n";
  usage(std::cerr);
  return orvacli::kUsage;
}
