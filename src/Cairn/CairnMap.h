#pragma once
// Cairn::CairnMap<K, V, Ops>: the front object of one table, the one object
// through which a table is used. It is not itself a store: it owns exactly
// one backend behind CairnInterface and exchanges it as the table's life goes
// on, so that a caller never sees the change.
//
// Which backend serves, by event (event, backend before -> backend after):
//   construction with a name  none       -> Tmp, a private local writer
//   resetToDefaultLocalWriter Tmp        -> a new Tmp; what was written is gone
//   init, localMem            Tmp        -> CairnWriter in private memory, no sentry
//   init, writer              Tmp        -> CairnWriter on shared files, a WriterSentry
//   init, reader, shadow or keyshadow
//                             Tmp        -> CairnDummy, a ReaderSentry
//   attach (the sentry's)     CairnDummy -> the backend makeAttachBackend makes:
//                                           a CairnReader, or a CairnShadow
//   attach, shadow modes      CairnShadow -> the same shadow, initialised again
//                                           (it waited for its flush or lost
//                                           its writer)
//   detach                    any        -> CairnDummy, or CairnStrictDummy for an
//                                           orphan that asked for it, owning the old
//                                           backend; but a shadow whose flush is
//                                           pending (status 3) stays
//   controlDetach, cleanupAndDetach
//                             any        -> a dummy, no sentry, not initialised
//
// Callbacks: init in writer mode calls the quiesced callback with true and
// then the mount-status callback; detach calls quiesced with false and then
// mount status; a successful attach calls quiesced with true for a reader
// backend, then mount status.
//
// Corruption: safeLookup, safeWrite, safeRemove and directCommit turn a
// Basalt::CorruptionDetectedException from the backend into
// doCorruptionDetected (Cairn/CairnMapBase.h). A read then answers with the
// map's default value. A write, removal or commit that comes back from
// doCorruptionDetected is in "no man's land": the process was to stop, and
// going on is a defect, raised as an assertion.
//
// Threads: a map, its backend and its sentry belong to the thread of the
// map's owner, whose event loop runs the sentry; a backend exchange and a
// caller's operation never overlap. Assertions here are raised through
// Basalt::debugAndThrowAssertException with the source name "Cairn/CairnMap";
// no state is rolled back after a failed init.

#include <cstdlib>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "Arena/CollectionDescriptor.h"
#include "Arena/Notify.h"
#include "Arena/ReaderSentry.h"
#include "Arena/WriterLock.h"
#include "Arena/WriterSentry.h"
#include "ArenaFiles/DoorbellName.h"
#include "ArenaFiles/OwnerFile.h"
#include "Basalt/DebugHandlerRegistry.h"
#include "Basalt/Exception.h"
#include "Basalt/TraceHandleName.h"
#include "Cairn/CairnDummy.h"
#include "Cairn/CairnInterface.h"
#include "Cairn/CairnMapBase.h"
#include "Cairn/CairnReader.h"
#include "Cairn/CairnShadow.h"
#include "Cairn/CairnStrictDummy.h"
#include "Cairn/CairnWriter.h"
#include "Cairn/Sentry.h"
#include "Cairn/Tmp.h"

namespace Cairn {

template <typename K, typename V, typename Ops>
class CairnMap : public CairnMapBase, public Arena::Notify<K, V> {
 public:
  using Interface = CairnInterface<K, V>;
  using WriterBackend = CairnWriter<K, V, Ops>;
  using TmpWriter = Tmp<K, V, Ops>;
  using Dummy = CairnDummy<K, V, Ops>;
  using StrictDummy = CairnStrictDummy<K, V, Ops>;
  using Callbacks = Arena::Notify<K, V>;

  static constexpr const char * SourceName = "Cairn/CairnMap";
  // Set in a build environment whose file system a reader sentry can't
  // watch: init then goes on without the sentry.
  static constexpr const char * ChrootVariable = "Z9_CHROOT";
  static constexpr const char * OrphanMessage =
      ". If you're seeing this, you're trying to operate on an orphan cairn entity";
  // The size of a default local writer's table.
  static constexpr uint32_t DefaultLocalSlots = 100;

  // A map with no name and no backend: the binding layer names it, sets its
  // callbacks and gives it its local writer.
  CairnMap() = default;

  // A named map on its default local writer: `path` is the table's full
  // name, and its last component the short name.
  explicit CairnMap(const std::string & path, Callbacks callbacks = Callbacks()) {
    pathIs(path);
    shortNameIs(path.substr(path.find_last_of('/') + 1));
    callbacksIs(std::move(callbacks));
    install(createDefaultLocalWriter(*handler_));
  }

  ~CairnMap() override {
    BASALT_TRACE(*handler_, 2, "CairnMap::~CairnMap() deleting state");
    delete backend_;
    backend_ = nullptr;
  }

  // ---- Binding ----

  // Replaces all eight callbacks and the keyNotifications flag.
  void callbacksIs(Callbacks callbacks) { static_cast<Callbacks &>(*this) = std::move(callbacks); }

  // A private local writer on this map's path, initialised.
  TmpWriter * createDefaultLocalWriter(Basalt::Platform::DebugHandler & handler) {
    auto writer = std::make_unique<TmpWriter>(handler, path_, MapDescriptor(DefaultLocalSlots), ops_, "",
                                              [](bool) {});
    writer->initialize("none");
    return writer.release();
  }

  // Drops the backend and everything written to it, and serves from a new
  // default local writer: what happens when a collection is placed.
  void resetToDefaultLocalWriter() {
    delete backend_;
    install(nullptr);
    install(createDefaultLocalWriter(*handler_));
  }

  bool orphanAssert() const { return orphanAssert_; }
  void orphanAssertIs(bool orphanAssert) { orphanAssert_ = orphanAssert; }

  Interface * backend() const { return backend_; }
  const Ops & ops() const { return ops_; }

  // ---- Life ----

  void init(const Arena::CollectionDescriptor & collectionDescriptor) override {
    BASALT_ASSERT(!orphanAssert_, SourceName,
                  "Re-initializing a collection that has already become an orphan and has assertOnOrphanAccess set");
    const auto & descriptor = dynamic_cast<const MapDescriptor &>(collectionDescriptor);
    if (descriptor.cleanupBeforeInit && backend_ != nullptr) {
      backend_->cleanup();
    }
    if (initialized_) {
      if (!(descriptor == descriptor_)) {
        throw Basalt::InvalidInitializeException(
            fmt::format("CairnMap::init() name:{} already initialized, old {}, new {}", path_,
                        descriptor_.toString(), descriptor.toString()));
      }
      BASALT_TRACE(*handler_, 1, "CairnMap::init() name:{} already initialized, new {}", path_,
                   descriptor.toString());
      return;
    }
    BASALT_TRACE(*handler_, 1, "CairnMap::init() name:{} {}", path_, descriptor.toString());
    refuseDescriptor(descriptor);
    if (!descriptor.synchronous && !descriptor.localMem &&
        (descriptor.mode == CairnType::shadow || descriptor.mode == CairnType::keyshadow)) {
      // A shadow that fills itself asynchronously stays quiet until its first walk ends.
      this->suppressKeyNotifications();
      BASALT_ASSERT(notifying_, SourceName,
                    "CairnMap::init() notifications unexpectedly disabled prior  to initialization with "
                    "asynchronous mode");
    }
    delete backend_;
    install(nullptr);
    descriptor_ = descriptor;
    Basalt::Util::traceHandleName(path_, &traceName_, 0);
    handler_ = Basalt::Platform::getDebugHandler(traceName_);
    BASALT_ASSERT(mounter_ == nullptr, SourceName, "Cairn mounter should not exist");
    if (!descriptor_.localMem && descriptor_.mode != CairnType::writer) {
      initRemote();
    } else {
      initWriter();
    }
    backend_->sampleIs(sample_);
    initialized_ = true;
    if (descriptor_.mode == CairnType::writer) {
      this->quiescedCallback_(true);
      this->mountStatusCallback_();
    }
  }

  // A descriptor of `mode`, `localMem` and `maxSlots`, all else default.
  virtual void init(CairnType mode, bool localMem, uint32_t maxSlots) {
    MapDescriptor descriptor;
    descriptor.mode = mode;
    descriptor.localMem = localMem;
    descriptor.maxSlots = maxSlots;
    init(descriptor);
  }

  // Takes the backend off its files and serves from a dummy that owns it,
  // but for a shadow whose flush is pending, which stays while the sentry is
  // held back until the flush ends.
  void detach(bool final) override {
    BASALT_TRACE(*handler_, 1, "CairnMap::detach() {}", rootPathText());
    if (backend_ != nullptr) {
      backend_->detach(final);
    }
    if (backend_ != nullptr && backend_->mountStatus() == 3 && mounter_ != nullptr) {
      mounter_->attachedIs(false);
    } else {
      installDummy();
    }
    this->quiescedCallback_(false);
    this->mountStatusCallback_();
    if (mounter_ != nullptr) {
      mounter_->purgeInotifyRecord();
    }
  }

  void installDummy() override {
    Interface * previous = backend_;
    if (orphanAssert_) {
      install(new StrictDummy(*handler_, path_, ops_, previous, false, OrphanMessage));
    } else {
      install(new Dummy(*handler_, path_, ops_, previous, false));
    }
  }

  // Detaches and forgets the sentry; the map can be initialised again.
  void controlDetach() override {
    detach(true);
    mounter_.reset();
    initialized_ = false;
  }

  virtual void cleanup() {
    BASALT_TRACE(*handler_, 5, "CairnMap::cleanup() {}", rootPathText());
    backend_->cleanup();
  }

  // Erases the table's files, then controlDetach.
  void cleanupAndDetach() override {
    BASALT_TRACE(*handler_, 5, "CairnMap::cleanupAndDetach() {}", rootPathText());
    BASALT_ASSERT(initialized_, SourceName,
                  fmt::format("CairnMap::cleanupAndDetach() {} trying to cleanup uninitialized cairn.",
                              rootPathText()));
    cleanup();
    controlDetach();
  }

  // Installs the backend that serves a reader, shadow or keyshadow; the
  // sentry calls it when the table can be mounted, and `name` goes to the
  // backend's initialize. A backend that fails to initialize is dropped and
  // the old one stays, but for one whose flush is pending.
  void attach(const std::string & name) override {
    BASALT_ASSERT(descriptor_.mode != CairnType::writer, SourceName, "CairnMap::attach() invoked for a writer");
    Interface * old = backend_;
    Interface * fresh;
    if (isShadowMode() && old != nullptr && old->type() == CairnType::shadow) {
      // A shadow that waited for its flush, or lost its writer, stays and is
      // initialised again; a spare dummy stands in as the old backend.
      fresh = old;
      old = new Dummy(*handler_, path_, ops_, nullptr, false);
    } else {
      fresh = makeAttachBackend();
    }
    if (fresh == nullptr) {
      BASALT_TRACE(*handler_, 1, "CairnMap::attach() no backend for {} as {}", rootPathText(), modeStr());
      return;
    }
    install(fresh);
    BASALT_TRACE(*handler_, 2, "CairnMap::attach() attempting to attach {} as {}", rootPathText(), modeStr());
    fresh->yieldTimeIs(yieldTime_);
    fresh->sampleIs(sample_);
    fresh->notifyingIs(notifying_);
    bool initialized;
    try {
      initialized = fresh->initialize(name);
    } catch (...) {
      install(old);
      delete fresh;
      throw;
    }
    if (initialized) {
      BASALT_TRACE(*handler_, 2, "CairnMap::attach() successful");
      delete old;
      if (fresh->type() == CairnType::reader) {
        this->quiescedCallback_(true);
      }
      this->mountStatusCallback_();
      return;
    }
    BASALT_TRACE(*handler_, 1, "CairnMap::attach() initialize failed for {}", rootPathText());
    if (fresh->mountStatus() == 3) {
      BASALT_TRACE(*handler_, 0, "CairnMap::attach() not deleting Cairn, waiting for flush to complete");
      delete old;
    } else {
      install(old);
      delete fresh;
    }
  }

  // Asks the sentry to look now; true if that mounted the table, which then
  // goes to the system log.
  virtual bool tryAttach() const {
    BASALT_TRACE(*handler_, 5, "CairnMap::tryAttach() {}", rootPathText());
    if (mounter_ == nullptr || descriptor_.mode == CairnType::writer) {
      return false;
    }
    if (const uint32_t status = mountStatus(); status != 0) {
      BASALT_TRACE(*handler_, 5, "CairnMap::tryAttach() {} is already mounted, mountStatus:{}", rootPathText(),
                   status);
      return false;
    }
    mounter_->poke("tryAttach");
    const uint32_t status = mountStatus();
    if (status == 0) {
      return false;
    }
    const std::string text = fmt::format("CANARY: mounted {} mountStatus:{}", rootPathText(), status);
    systemLog(text);
    BASALT_TRACE(*handler_, 1, "CairnMap::tryAttach() {}", text);
    return true;
  }

  // "<owner>:<pid>": the writer named in the owner file, as
  // Arena::WriterLock::ownerIsAlive tells it, and its process id, or 0 when
  // it is not alive or the owner file can't be read.
  virtual std::string owner() const {
    std::string ownerText;
    pid_t pid = 0;
    try {
      const ArenaFiles::OwnerFile ownerFile(*handler_, backend_->rootPath().directory(), false);
      const std::string socketName = ownerFile.doorbellInfo().socketName();
      if (Arena::WriterLock::ownerIsAlive(*handler_, socketName, ownerText)) {
        pid = ArenaFiles::DoorbellName(socketName).pid();
      }
    } catch (const Basalt::CorruptionDetectedException & exception) {
      BASALT_TRACE(*handler_, 1, "CairnMap::owner() corruption detected: {}", exception.what());
      pid = 0;
    }
    return fmt::format("{}:{}", ownerText, pid);
  }

  // The demangled class of the collection, which the binding layer knows;
  // it goes into a writer's file header.
  virtual std::string classType() const { return ""; }

  // ---- Forwarded to the backend ----

  virtual bool validate() {
    BASALT_TRACE(*handler_, 5, "CairnMap::validate() {}", rootPathText());
    return backend_->validate();
  }
  bool validateFiles() override {
    BASALT_TRACE(*handler_, 5, "CairnMap::validateFiles() {}", rootPathText());
    return backend_->validateFiles();
  }
  uint32_t mountStatus() const override {
    BASALT_TRACE(*handler_, 5, "CairnMap::mountStatus() {}", rootPathText());
    return backend_->mountStatus();
  }
  virtual uint64_t sequence() const {
    BASALT_TRACE(*handler_, 5, "CairnMap::sequence() {}", rootPathText());
    return backend_->sequence();
  }
  virtual bool clientQuiesced(const std::string & readerName) const {
    BASALT_TRACE(*handler_, 5, "CairnMap::clientQuiesced() {} readerName:{}", rootPathText(), readerName);
    return backend_->clientQuiesced(readerName);
  }
  virtual bool quiesced() const {
    BASALT_TRACE(*handler_, 5, "CairnMap::quiesced() {} type:{}", rootPathText(), modeStr());
    return backend_->quiesced();
  }
  virtual void sampleIs(uint32_t sample) {
    sample_ = sample;
    BASALT_TRACE(*handler_, 5, "CairnMap::sampleIs() {} sample:{}", rootPathText(), sample);
    backend_->sampleIs(sample);
  }
  virtual void yieldTimeIs(double yieldTime) {
    yieldTime_ = yieldTime;
    BASALT_TRACE(*handler_, 5, "CairnMap::yieldTimeIs() {} yieldTime:{}", rootPathText(), yieldTime);
    backend_->yieldTimeIs(yieldTime);
  }
  uint32_t sample() const { return sample_; }
  double yieldTime() const { return yieldTime_; }

  virtual uint32_t capacity() const { return backend_->capacity(); }
  virtual uint32_t maxSize() const { return backend_->maxSize(); }
  bool connected() const override { return backend_->connected(); }
  ArenaFiles::EpochId epochId() const override { return backend_->epochId(); }
  virtual std::string name() const { return backend_->cairnName(); }
  virtual RootPath rootPath() const { return backend_->rootPath(); }
  virtual void validateVersionAnchor() const { backend_->validateVersionAnchor(); }
  virtual void validateVersionAnchorHookIs(VersionAnchorHook hook) { backend_->validateVersionAnchorHookIs(hook); }
  virtual Arena::CacheVersionAnchor getCacheVersionAnchor() const { return backend_->getCacheVersionAnchor(); }
  // True when the anchor of the value last handed out is `other`, both words.
  virtual bool compareVersionAnchor(const Arena::CacheVersionAnchor & other) const {
    const Arena::CacheVersionAnchor mine = getCacheVersionAnchor();
    return mine.version == other.version && mine.offset == other.offset;
  }

  virtual Reader::Counters readerCounters() const {
    return cairnMapUpdateReaderCounters(backend_->readerCounters());
  }
  virtual Writer::Counters writerCounters() const {
    return cairnMapUpdateWriterCounters(backend_->writerCounters());
  }

  // Key notifications that init suppressed can't be turned on while the map
  // is initialised: the shadow turns them on when its first walk ends.
  virtual void notifyingIs(bool on) {
    BASALT_TRACE(*handler_, 5, "CairnMap::notifyingIs() {} notifying:{}", rootPathText(), on);
    BASALT_ASSERT(!initialized_ || this->keyNotifications_, SourceName,
                  fmt::format("CairnMap::notifyingIs() not allowed at this time, initialized:{} keyNotifications:{}",
                              initialized_, this->keyNotifications_));
    notifying_ = on;
    backend_->notifyingIs(on);
    if (on && mounter_ != nullptr) {
      mounter_->poke("Notifications enabled");
    }
  }

  // ---- Protected operations ----

  // The backend's value for `key`, or the map's default value when the
  // backend finds the files corrupt.
  const V * safeLookup(const K & key, bool & found, V * out = nullptr) const {
    try {
      return backend_->lookup(key, found, out);
    } catch (const Basalt::CorruptionDetectedException & exception) {
      doCorruptionDetected(exception.what());
      return &defaultValue_;
    }
  }

  const V * safeWrite(const V & value, bool publish) {
    try {
      return backend_->write(value, publish);
    } catch (const Basalt::CorruptionDetectedException & exception) {
      doCorruptionDetected(exception.what());
      Basalt::debugAndThrowAssertException(SourceName, __func__, __LINE__, "CairnMap::safeWrite() in no man's land");
    }
  }

  bool safeRemove(const K & key, V & removed) {
    try {
      return backend_->remove(key, removed);
    } catch (const Basalt::CorruptionDetectedException & exception) {
      doCorruptionDetected(exception.what());
      Basalt::debugAndThrowAssertException(SourceName, __func__, __LINE__,
                                           "CairnMap::safeRemove() in no man's land");
    }
  }

  // Closes the backend's direct operation; a writer's is called directly,
  // not through the virtual slot.
  void directCommit() {
    try {
      if (writer_ != nullptr) {
        writer_->WriterBackend::directCommit();
      } else {
        backend_->directCommit();
      }
    } catch (const Basalt::CorruptionDetectedException & exception) {
      doCorruptionDetected(exception.what());
      Basalt::debugAndThrowAssertException(SourceName, __func__, __LINE__,
                                           "CairnMap::directCommit() in no man's land");
    }
  }

 protected:
  // Installs `backend`, whose owner the map becomes; the old one is deleted.
  // For the binding layer, and for tests that serve a map from a backend of
  // their own.
  void backendIs(Interface * backend) {
    delete backend_;
    install(backend);
  }

  // The backend that attach installs for this map's mode, not yet
  // initialised: a CairnReader on the table's files in reader mode, a
  // CairnShadow in the shadow modes.
  virtual Interface * makeAttachBackend() {
    if (descriptor_.mode == CairnType::reader) {
      return new CairnReader<K, V, Ops>(*handler_, path(), ops(), nullptr);
    }
    if (isShadowMode()) {
      return new CairnShadow<K, V, Ops>(*handler_, path(), ops(), shadowFlags(), *this, *this);
    }
    return nullptr;
  }

  bool isShadowMode() const {
    return descriptor_.mode == CairnType::shadow || descriptor_.mode == CairnType::keyshadow;
  }

  // Bit 0 a key shadow, bits 1 and 2 the descriptor's shadow options.
  unsigned shadowFlags() const {
    return (descriptor_.mode == CairnType::keyshadow ? CairnShadowBase::KeyShadowFlag : 0u) |
           (descriptor_.shadowOptionBit1 ? CairnShadowBase::CompareNotificationsFlag : 0u) |
           (descriptor_.shadowOptionBit2 ? CairnShadowBase::NotifyOnFlushFlag : 0u);
  }

 private:
  // Every exchange of the backend goes through here, so that the writer
  // pointer of directCommit is always the backend's.
  void install(Interface * backend) {
    backend_ = backend;
    writer_ = dynamic_cast<WriterBackend *>(backend);
  }

  // Steps of init that refuse a descriptor before anything is touched.
  void refuseDescriptor(const MapDescriptor & descriptor) const {
    if (descriptor.useHeap && !descriptor.localMem) {
      throw Basalt::InvalidInitializeException(fmt::format(
          "CairnMap::init() cannot initialize collection {} heap allocation in non-local mode not allowed", path_));
    }
    if (descriptor.mode == CairnType::writer && descriptor.maxSlots == 0) {
      throw Basalt::InvalidInitializeException(fmt::format(
          "CairnMap::init() 0 is not a valid initialization size for collection {} in writer mode", path_));
    }
  }

  // A reader, shadow or keyshadow of a shared table: a dummy until the
  // sentry finds a writer to attach to.
  void initRemote() {
    const CairnType mode = descriptor_.mode;
    BASALT_ASSERT(mode == CairnType::shadow || mode == CairnType::reader || mode == CairnType::keyshadow,
                  SourceName, "CairnMap::init() not a valid reader type:" + modeStr());
    install(new Dummy(*handler_, path_, ops_, nullptr, false));
    try {
      const RootPath rootPath = backend_->rootPath();
      mounter_ = std::make_unique<Arena::ReaderSentry>(
          *handler_, rootPath.directory(), *this,
          [handler = handler_](const std::string & directory) { return probeTable(*handler, directory); });
      mounter_->poke("CairnMap::init()");
    } catch (const Basalt::InvalidInitializeException &) {
      if (std::getenv(ChrootVariable) == nullptr) {
        throw;
      }
    }
  }

  // A writer, or any local table.
  void initWriter() {
    auto * writer = new WriterBackend(*handler_, path_, descriptor_, ops_, classType(), this->quiescedCallback_);
    install(writer);
    if (!writer->initialize("none")) {
      throw Basalt::InvalidInitializeException("CairnMap::init() failed to initialize collection" + path_);
    }
    if (!descriptor_.localMem) {
      mounter_ = std::make_unique<Arena::WriterSentry>(*handler_, *this, writer->rootPath().directory());
      mounter_->poke("CairnMap::init()");
    }
  }

  std::string rootPathText() const { return RootPath(*handler_, path_, !descriptor_.localMem).toString(); }

  Ops ops_;
  Interface * backend_ = nullptr;
  WriterBackend * writer_ = nullptr;  // the backend, when it is a CairnWriter
  double yieldTime_ = 0.05;
  uint32_t sample_ = 8;
  V defaultValue_{};
  bool orphanAssert_ = false;
};

}  // namespace Cairn
