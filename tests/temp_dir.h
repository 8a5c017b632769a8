// Scratch files of the suite: one private folder per test process, made on first use and
// removed with everything in it when the process ends, so runs never meet in /tmp.
#pragma once
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace orva_test {

class TempDir {
 public:
  static const std::string& path() {
    static TempDir dir;
    return dir._path;
  }
  ~TempDir() {
    // A death test's child ends through exit() too; only the maker removes the folder.
    std::error_code ec;
    if (getpid() == _owner) std::filesystem::remove_all(_path, ec);
  }

 private:
  TempDir() : _owner(getpid()) {
    std::string pattern = ::testing::TempDir() + "orva_tests_XXXXXX";
    if (!mkdtemp(&pattern[0])) ADD_FAILURE() << "can't make a folder like " << pattern;
    _path = pattern + "/";
  }
  pid_t _owner;
  std::string _path;
};

// A file in the process's folder, named after the running test.
inline std::string temp_path(const std::string& name) {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string base = info ? std::string(info->test_suite_name()) + "_" + info->name() : "orva";
  for (char& c : base)
    if (c == '/') c = '_';
  return TempDir::path() + base + "_" + name;
}

}  // namespace orva_test
