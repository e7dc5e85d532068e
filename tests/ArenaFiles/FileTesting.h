#pragma once
// Reading and damaging the small files of a table byte by byte.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <iterator>
#include <string>

namespace FileTesting {

inline std::string contents(const std::string & path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

inline void overwrite(const std::string & path, const std::string & bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << bytes;
}

// Flips every bit of the byte at `offset`.
inline void flipByte(const std::string & path, std::size_t offset) {
  std::string bytes = contents(path);
  bytes.at(offset) = static_cast<char>(~bytes.at(offset));
  overwrite(path, bytes);
}

inline bool exists(const std::string & path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

}  // namespace FileTesting
