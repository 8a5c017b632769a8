// The `orva` program: its subcommands and what they share (argument parsing, messages,
// model loading). A subcommand lives in cmd_<name>.cpp and has one line in the table of
// orva.cpp.
#pragma once
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "orva/orva.h"

namespace orvacli {

// Exit statuses of every subcommand.
enum Status { kOk = 0, kFailed = 1, kUsage = 2 };

struct Command {
  const char* name;
  const char* summary;
  int (*run)(int argc, char** argv);  // argv[0] is the subcommand's name
};

// Parses argv into `app`. Returns true when the command should stop with `status`:
// after --help (kOk) or on a usage error, printed with a hint (kUsage).
bool parseArgs(CLI::App& app, int argc, char** argv, int& status);

// "orva <command>: <what>" on stderr; returns kFailed.
int fail(const std::string& command, const std::string& what);

// Options every command that runs a network takes.
struct ModelOptions {
  std::string model;    // model file, or a text description
  std::string weights;  // weights-only file for a description
  std::string names;    // class names, one a line; default: beside the model
  int gpu = 0;          // CUDA device; negative for the host backend
  int batch = 1;
  bool quant = false;
  bool description = false;  // a text description whatever its name
  bool strict = true;   // refuse descriptions with unknown sections, keys or activations
};
void addModelOptions(CLI::App& app, ModelOptions& o);

// Builds `net` from a model file or from a description and weights. The engine's own lines
// (checksum, unknown sections, its error lines) reach stderr only with -v, so stdout stays
// machine-readable and a fault is told once, by the program's message.
// Throws std::runtime_error naming the file and the problem.
void loadNetwork(ORVA::Network& net, const ModelOptions& o);

// The class names for `count` classes: from the names file, else the class numbers.
std::vector<std::string> classNames(const ModelOptions& o, int count);

// True after -v: the engine's and OpenCV's own lines are shown.
bool verbose();

// Section name of a layer type id ("convolution", "maxpool", ...), "?" when unknown.
const char* layerTypeName(int type);

}  // namespace orvacli

int cmd_detect(int argc, char** argv);
int cmd_classify(int argc, char** argv);
int cmd_info(int argc, char** argv);
int cmd_bench(int argc, char** argv);
int cmd_convert(int argc, char** argv);
int cmd_train(int argc, char** argv);
int cmd_run(int argc, char** argv);
