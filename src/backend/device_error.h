// A device runtime or library call that failed. Thrown by the status checks of the CUDA
// backend; the network adds which layer was running and what it was doing.
#pragma once
#include <stdexcept>
#include <string>

namespace ORVA {

class DeviceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws "<call> failed: <status text> (<code>)"; `call` is the call's source text, of which
// only the function name is kept.
[[noreturn]] void throw_device_error(const char* call, int code, const char* text);
// The same line on the error stream, for calls that release resources (in destructors).
void report_device_error(const char* call, int code, const char* text);

// Runs one step of a layer; a device failure inside it comes out as
// "<section> (layer <index>) <step>: <call> failed: ...".
template <typename F>
void layer_step(const char* section, int index, const char* step, F&& f) {
  try {
    f();
  } catch (const DeviceError& e) {
    throw DeviceError(std::string(section ? section : "layer") + " (layer " + std::to_string(index) + ") " + step +
                      ": " + e.what());
  }
}

}  // namespace ORVA
