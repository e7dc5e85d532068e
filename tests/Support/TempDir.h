#pragma once

#include <string>

namespace TestSupport {

// A fresh directory under the system's temporary directory, removed with all
// it holds when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir & operator=(const TempDir &) = delete;
  const std::string & path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace TestSupport
