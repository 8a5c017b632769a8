// Emulated CUDA: what a test controls and observes of the emulator (no CUDA headers needed).
#pragma once
#include <cstdint>

namespace orva_emu {

// The order in which blocks, and the threads of a block, are run. A correct kernel gives
// the same bits in every order; a result that changes with the order has a race.
enum class Order { Forward, Reverse, Shuffle };
// Set for the calling process; ORVA_EMU_ORDER=forward|reverse|shuffle[:seed] sets the start.
void set_order(Order order);  // keeps the shuffle seed
void set_order(Order order, uint32_t seed);
Order order();

// Faults: launches a GPU would refuse, barriers reached by part of a block, memory calls on
// pointers the device does not own, library calls with bad arguments. Each is printed
// on stderr, counted, and handed to the hook (the test suite turns it into a failure).
using FaultHook = void (*)(const char* what);
FaultHook set_fault_hook(FaultHook hook);  // returns the previous hook
unsigned long fault_count();
void fault(const char* format, ...) __attribute__((format(printf, 1, 2)));

// cuDNN descriptors made and not yet destroyed (a count that grows across a test is a leak).
long cudnn_live_descriptors();

}  // namespace orva_emu
