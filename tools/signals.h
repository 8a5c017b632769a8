// Ctrl-C and SIGTERM ask a running command to stop after the work in hand, so that it can
// close its videos and files; a second signal ends the process at once.
#pragma once

namespace orvacli {

void catchStopSignals();
// The signal that asked to stop, 0 while none has.
int stopSignal();
// 128 + the signal, the status a shell gives a process ended by it; 0 when none came.
int stopStatus();

}  // namespace orvacli
