#include "Ripple/RippleTable.h"

#include <fmt/format.h>

namespace Ripple {

RippleTable::RippleTable(Basalt::Platform::DebugHandler & handler, std::string directory, bool localMem)
    : Basalt::Debuggable(handler),
      directory_(std::move(directory)),
      controlFile_(handler, directory_, ControlFileName, localMem),
      tableFiles_{{handler, directory_, PrimaryFileName, localMem},
                  {handler, directory_, SecondaryFileName, localMem}} {}

RippleTable::~RippleTable() {
  RippleTable::detach();
}

void RippleTable::detach() {
  controlFile_.detach();
  tableFiles_[Primary].detach();
  tableFiles_[Secondary].detach();
  control_ = nullptr;
  tables_[Primary] = nullptr;
  tables_[Secondary] = nullptr;
}

bool RippleTable::dumpToCoreIs(bool dump) {
  const bool control = controlFile_.dumpToCoreIs(dump);
  const bool primary = tableFiles_[Primary].dumpToCoreIs(dump);
  const bool secondary = tableFiles_[Secondary].dumpToCoreIs(dump);
  return control && primary && secondary;
}

bool RippleTable::mapFiles(Arena::ArenaFilesWrapper::Mode mode, std::size_t tableBytes,
                           std::string & errorOut) {
  control_ = static_cast<ControlBlock *>(controlFile_.attach(ControlBlockSize, mode));
  if (control_ == nullptr) {
    errorOut = controlFile_.reason();
    detach();
    return false;
  }
  for (unsigned index : {Primary, Secondary}) {
    tables_[index] = static_cast<TableHeader *>(tableFiles_[index].attach(tableBytes, mode));
    if (tables_[index] == nullptr) {
      errorOut = tableFiles_[index].reason();
      detach();
      return false;
    }
  }
  return true;
}

bool RippleTable::remapTable(unsigned index, std::size_t bytes, std::string & errorOut) {
  tables_[index] = static_cast<TableHeader *>(tableFiles_[index].resize(bytes));
  if (tables_[index] == nullptr) {
    errorOut = tableFiles_[index].reason();
    return false;
  }
  return true;
}

std::size_t RippleTable::mappedSize(unsigned index) const {
  return tables_[index] == nullptr ? 0 : tableFiles_[index].memSize();
}

std::string RippleTable::headersToString() const {
  if (control_ == nullptr) {
    return fmt::format("RippleTable {} detached", directory_);
  }
  return fmt::format("RippleTable {}\n  RippleTable::Control() {}\n{}\n{}", directory_, control_->toString(),
                     tableToString(Primary), tableToString(Secondary));
}

std::string RippleTable::tableToString(unsigned index) const {
  const char * name = index == Primary ? PrimaryFileName : SecondaryFileName;
  if (tables_[index] == nullptr) {
    return fmt::format("  RippleTable::Header({}) unmapped", name);
  }
  return fmt::format("  RippleTable::Header({}) {} mapped:{}", name, tables_[index]->toString(),
                     mappedSize(index));
}

}  // namespace Ripple
