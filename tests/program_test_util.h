// Helpers for the tests that run the orva program as its users do: runs with their status and
// both streams, processes in the background, JSON lines, and the small detector they share.
#pragma once
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "network_test_util.h"

extern char** environ;

namespace orva_test {

// A small detector: one strided convolution before a two-class region head on 32 x 32.
constexpr const char* kProgramDetectorCfg =
    "[network]\nwidth=32\nheight=32\nchannels=3\n[convolution]\nfilters=14\nsize=3\nstride=4\n"
    "activation=leaky\n[region]\nclasses=2\nnum=2\nanchors=1,1,2,2\nsoftmax=1\n";

struct ProgramRun {
  int status;  // -1 when a signal ended it
  std::string out, err;
};

// `args` through the shell; `stdout_to` replaces the captured stdout (e.g. /dev/full).
inline ProgramRun run(const std::string& args, const std::string& stdout_to = "", const char* program = ORVA_CLI) {
  const std::string out = stdout_to.empty() ? temp_path("stdout") : stdout_to, err = temp_path("stderr");
  const int rc = std::system((std::string(program) + " " + args + " >" + out + " 2>" + err).c_str());
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, stdout_to.empty() ? text(out) : "", text(err)};
}

// Started in the background (found on PATH), stdout to `out`, stderr dropped.
inline pid_t spawn(std::vector<std::string> args, const std::string& out = "/dev/null") {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  posix_spawnp(&pid, args[0].c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// The exit status after signalling, -1 when the signal ended it.
inline int signal_and_wait(pid_t pid, int sig) {
  if (pid <= 0) return -1;
  kill(pid, sig);
  int rc = 0;
  waitpid(pid, &rc, 0);
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

inline void stop(pid_t pid) { signal_and_wait(pid, SIGTERM); }

inline bool waitFor(const std::function<bool()>& ok, double secs) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(secs);
  while (!ok()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

inline int freePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, (sockaddr*)&a, sizeof a);
  getsockname(fd, (sockaddr*)&a, &len);
  close(fd);
  return ntohs(a.sin_port);
}

inline std::vector<nlohmann::json> lines(const std::string& out) {
  std::vector<nlohmann::json> js;
  std::istringstream in(out);
  for (std::string l; std::getline(in, l);) js.push_back(nlohmann::json::parse(l));
  return js;
}

}  // namespace orva_test
