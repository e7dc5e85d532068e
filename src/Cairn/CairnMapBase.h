#pragma once
// Cairn::CairnMapBase: the part of a map (Cairn/CairnMap.h) that does not
// depend on the table's key and value: its name, the descriptor it was
// initialised with, its debug handler, the sentry that watches its files
// (its "mounter"), and the report of corruption. Through it a map is the
// notifiee of both sentries, and the ControlBase (Cairn/ControlBase.h) by
// which its collection's control layer mounts it.
//
// Contract (all of it on the thread of the map's owner):
//   doCorruptionDetected(message)
//       the one way a table reports that its files contradict themselves:
//       a level 0 trace naming the table and the message; the corruption
//       marker (Cairn/Util.h) in the table's directory when the table is an
//       initialised shared one; then the process-wide corruption handler,
//       which an agent sets by corruptionHandlerIs. The default handler
//       adds nothing and returns: a read then answers with the default
//       value, and a write reaches its "no man's land" assertion. An agent
//       that wants the process to stop sets a handler that does not return.
//   cairnMapUpdateReaderCounters(c), cairnMapUpdateWriterCounters(c)
//       merge what the backend counts with what the map remembers: while the
//       backend is mounted its record is the table's, and the map keeps it;
//       while it is not (a dummy, a local Tmp), the map answers with the
//       record of the last mounted backend, so that a table's counts don't
//       fall to zero at a detach.
//   readerFullyAttached()
//       a reader map whose backend is mounted (status 1), or a shadow or
//       keyshadow map whose backend is connected (status 2).
//   disconnectedActiveReader()
//       a shadow or keyshadow map whose backend is mounted (status 1 or 2)
//       but does not report itself connected to its writer.
//   exists()
//       the table is there to be used: a local table once initialised; a
//       shared one when its writer has recorded a generation in the epoch
//       file.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Arena/ReaderSentry.h"
#include "Arena/Sentry.h"
#include "Arena/WriterSentry.h"
#include "Basalt/DebugHandler.h"
#include "Cairn/ControlBase.h"
#include "Cairn/MapDescriptor.h"
#include "Cairn/ReaderCounters.h"
#include "Cairn/WriterCounters.h"

namespace Cairn {

class CairnMapBase : public Arena::ReaderSentryNotifiee, public Arena::WriterSentryNotifiee, public ControlBase {
 public:
  // Called with the table's path and the corruption's message.
  using CorruptionHandler = std::function<void(const std::string & path, const std::string & message)>;

  // The handler of a map that has not been initialised.
  static constexpr const char * TempHandlerName = "CairnTemp";

  CairnMapBase();
  ~CairnMapBase() override;
  CairnMapBase(const CairnMapBase &) = delete;
  CairnMapBase & operator=(const CairnMapBase &) = delete;

  Basalt::Platform::DebugHandler & debugHandler() const { return *handler_; }
  const MapDescriptor & descriptor() const { return descriptor_; }
  // The table's full name, and the name it was given by its collection.
  const std::string & path() const { return path_; }
  void pathIs(const std::string & path) { path_ = path; }
  const std::string & shortName() const { return shortName_; }
  void shortNameIs(const std::string & shortName) { shortName_ = shortName; }
  const std::string & traceName() const { return traceName_; }
  // The sentry that watches the table's files, or null.
  Arena::Sentry * mounter() const { return mounter_.get(); }

  virtual bool initialized() const { return initialized_; }
  bool localMem() const override { return descriptor_.localMem; }
  virtual CairnType mode() const { return descriptor_.mode; }
  bool notifying() const override { return notifying_; }
  virtual bool exists() const;
  std::string modeStr() const override;
  bool readerFullyAttached() const override;
  bool disconnectedActiveReader() const override;

  virtual bool connected() const = 0;

  void doCorruptionDetected(const std::string & message) const;
  // The socket of a shadow to its writer closed: the sentry looks at the
  // files now and attaches or detaches as they tell. Shadow modes only.
  void handleDisconnect();
  // Serves from a dummy that owns the present backend.
  virtual void installDummy() = 0;
  // Sets the process's corruption handler and returns the one it replaces;
  // an empty one restores the default.
  static CorruptionHandler corruptionHandlerIs(CorruptionHandler handler);

 protected:
  // Writes one line to the system log: facility LOG_LOCAL5, priority
  // LOG_DEBUG, with the process id; the log is opened for this line alone.
  static void systemLog(const std::string & text);

  Reader::Counters cairnMapUpdateReaderCounters(const Reader::Counters & counters) const;
  Writer::Counters cairnMapUpdateWriterCounters(const Writer::Counters & counters) const;

  std::shared_ptr<Basalt::Platform::DebugHandler> handler_;
  MapDescriptor descriptor_;
  std::unique_ptr<Arena::Sentry> mounter_;
  bool initialized_ = false;
  std::string path_;
  std::string shortName_;
  std::string traceName_;
  bool notifying_ = true;

 private:
  // The records of the last mounted backend.
  mutable Reader::Counters readerCounters_;
  mutable Writer::Counters writerCounters_;
};

}  // namespace Cairn
