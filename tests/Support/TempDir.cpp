#include "Support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace TestSupport {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tessel-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("TempDir: mkdtemp failed for " + pattern);
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace TestSupport
