#pragma once
// A private depot root under /dev/shm for one test, removed with everything
// in it when the test ends.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace testkit {

class TempRoot {
 public:
  TempRoot() {
    char tmpl[] = "/dev/shm/depot-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) ADD_FAILURE() << "mkdtemp failed";
    path = tmpl;
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;
  std::string file(const std::string& name) const { return path + "/" + name; }
  std::string path;
};

}  // namespace testkit
