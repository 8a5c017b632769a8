#include "output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace orvacli {

void checkOutputFolder(const std::string& path) {
  const fs::path dir = fs::path(path).parent_path();
  std::error_code ec;
  if (!dir.empty() && !fs::is_directory(dir, ec)) throw std::runtime_error(path + ": no such folder " + dir.string());
}

std::string partName(const std::string& path) {
  std::error_code ec;
  const fs::file_status st = fs::status(path, ec);
  const fs::path p(path);
  if (fs::exists(st) && !fs::is_regular_file(st))
    return (fs::temp_directory_path() / ("orva-" + std::to_string(getpid()) + "-" + p.filename().string() +
                                         p.extension().string()))
        .string();
  return (p.parent_path() / ("." + p.stem().string() + ".part" + p.extension().string())).string();
}

namespace {

bool isDevice(const std::string& path) {
  std::error_code ec;
  const fs::file_status st = fs::status(path, ec);
  return fs::exists(st) && !fs::is_regular_file(st);
}

// Copies `part` into an existing device or pipe; errno tells why when it fails.
bool copyInto(const std::string& part, const std::string& path) {
  FILE* in = fopen(part.c_str(), "rb");
  if (!in) return false;
  FILE* out = fopen(path.c_str(), "wb");
  bool ok = out != nullptr;
  char buf[1 << 16];
  size_t n;
  while (ok && (n = fread(buf, 1, sizeof buf, in)) > 0) ok = fwrite(buf, 1, n, out) == n;
  if (out && fclose(out) != 0) ok = false;
  fclose(in);
  return ok;
}

}  // namespace

void commitPart(const std::string& part, const std::string& path) {
  if (part == path) return;
  if (isDevice(path)) {
    const bool ok = copyInto(part, path);
    const std::string why = strerror(errno);
    std::remove(part.c_str());
    if (!ok) throw std::runtime_error(path + ": can't write (" + why + ")");
    return;
  }
  if (std::rename(part.c_str(), path.c_str()) != 0) {
    const std::string why = strerror(errno);
    std::remove(part.c_str());
    throw std::runtime_error(path + ": can't write (" + why + ")");
  }
}

void writeThroughPart(const std::string& path, const std::function<void(const std::string&)>& write) {
  checkOutputFolder(path);
  const std::string part = partName(path);
  auto drop = [&] {
    if (part != path) std::remove(part.c_str());
  };
  try {
    errno = 0;
    write(part);
  } catch (size_t) {
    const std::string why = errno ? strerror(errno) : "short write";
    drop();
    throw std::runtime_error(path + ": can't write (" + why + ")");
  } catch (const std::exception& e) {
    drop();
    const std::string what = e.what();
    // Messages that already name the target or the part are passed on with the target's name.
    if (what.compare(0, part.size(), part) == 0) throw std::runtime_error(path + what.substr(part.size()));
    if (what.compare(0, path.size(), path) == 0) throw;
    throw std::runtime_error(path + ": " + what);
  }
  commitPart(part, path);
}

}  // namespace orvacli
