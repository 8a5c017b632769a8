#include "backend/device_error.h"

#include <cstdio>
#include <string>

#include "orva/util.h"

namespace ORVA {

namespace {
std::string describe(const char* call, int code, const char* text) {
  std::string name(call);
  const size_t paren = name.find('(');
  if (paren != std::string::npos) name.resize(paren);
  return name + " failed: " + text + " (" + std::to_string(code) + ")";
}
}  // namespace

void throw_device_error(const char* call, int code, const char* text) {
  throw DeviceError(describe(call, code, text));
}

void report_device_error(const char* call, int code, const char* text) {
  ORVA_ERROR("%s", describe(call, code, text).c_str());
}

}  // namespace ORVA
