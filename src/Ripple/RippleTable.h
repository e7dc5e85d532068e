#pragma once
// Ripple::RippleTable: the mappings of one queue's three files, the control
// block and the primary and secondary tables (format: Ripple/RippleFormat.h).
// It is the common ground of the writer (RippleWriter, read-write) and the
// reader (RippleReader, read-only): it maps, remaps and unmaps; what is
// stored, and in which order, is the business of each side.
//
// Not thread-safe: one object belongs to one thread. Any number of processes
// may map the same files.

#include <cstddef>
#include <string>

#include "Arena/ArenaFilesWrapper.h"
#include "Basalt/Debuggable.h"
#include "Ripple/RippleFormat.h"

namespace Ripple {

class RippleTable : public Basalt::Debuggable {
 public:
  static constexpr unsigned Primary = 0;
  static constexpr unsigned Secondary = 1;

  // `directory` is the table's directory (Cairn::RootPath::directory()).
  // `localMem` puts the three pieces in private memory: the writer of a local
  // table works the same, and there is nothing for a reader to map.
  RippleTable(Basalt::Platform::DebugHandler & handler, std::string directory, bool localMem);
  virtual ~RippleTable();
  RippleTable(const RippleTable &) = delete;
  RippleTable & operator=(const RippleTable &) = delete;

  // Releases the three mappings; the files stay.
  virtual void detach();

  // Puts the three mappings into core dumps (true) or leaves them out
  // (false), now and after every remap; false if the system refused.
  bool dumpToCoreIs(bool dump);

  // The three headers, one line each, for dumps at level 3 and in messages.
  std::string headersToString() const;
  // Bytes of each table mapped now; 0 while detached.
  std::size_t primaryMappedSize() const { return mappedSize(Primary); }
  std::size_t secondaryMappedSize() const { return mappedSize(Secondary); }
  const std::string & directory() const { return directory_; }
  bool localMem() const { return controlFile_.localMem(); }
  const ControlBlock * control() const { return control_; }

 protected:
  // Maps the control block and both tables, each whole and at least as long
  // as asked (a ReadWrite mapping extends a shorter file). False with the
  // reason in errorOut if one fails; nothing stays mapped then.
  bool mapFiles(Arena::ArenaFilesWrapper::Mode mode, std::size_t tableBytes, std::string & errorOut);
  // Remaps table `index` to exactly `bytes` (a ReadWrite remap extends the
  // file first). False with the reason in errorOut; the table is unmapped then.
  bool remapTable(unsigned index, std::size_t bytes, std::string & errorOut);
  std::size_t mappedSize(unsigned index) const;
  std::string tableToString(unsigned index) const;

  std::string directory_;
  Arena::ArenaFilesWrapper controlFile_;
  Arena::ArenaFilesWrapper tableFiles_[2];
  ControlBlock * control_ = nullptr;
  TableHeader * tables_[2] = {nullptr, nullptr};
};

}  // namespace Ripple
