#pragma once
// Cairn::RootPath: where a table's files live. A table named "a/b/c" keeps
// its files in the directory <base>/a/b/c, where <base> is the value of the
// environment variable TESSEL_SHM_ROOT, or /dev/shm/tessel when it is unset
// or empty. One leading "/" of a name is ignored; a name that is empty, has
// an empty component, a "." or ".." component, or a NUL byte is refused with
// Basalt::InvalidInitializeException naming it, so that no table's files can
// lie outside the base directory or share a directory with another table.

#include <string>
#include <string_view>

#include "Basalt/DebugHandler.h"

namespace Cairn {

class RootPath {
 public:
  static constexpr const char * baseVariable = "TESSEL_SHM_ROOT";
  static constexpr const char * defaultBase = "/dev/shm/tessel";

  // `shared` is false for a table in local memory: it has a name but no files.
  RootPath(Basalt::Platform::DebugHandler & handler, std::string_view name, bool shared);

  const std::string & cairnName() const { return name_; }
  const std::string & directory() const { return directory_; }
  bool shared() const { return shared_; }
  // The path of file `fileName` of this table.
  std::string file(std::string_view fileName) const;
  // The text messages print: the directory.
  const std::string & toString() const { return directory_; }

  static std::string base();

 private:
  std::string name_;
  std::string directory_;
  bool shared_;
};

}  // namespace Cairn
