#include "signals.h"

#include <csignal>

namespace orvacli {

namespace {

volatile std::sig_atomic_t g_signal = 0;

void onStop(int sig) {
  g_signal = sig;
  // The next one is not caught: a run that does not stop soon enough can still be ended.
  std::signal(sig, SIG_DFL);
}

}  // namespace

void catchStopSignals() {
  std::signal(SIGINT, onStop);
  std::signal(SIGTERM, onStop);
}

int stopSignal() { return g_signal; }

int stopStatus() { return g_signal ? 128 + g_signal : 0; }

}  // namespace orvacli
