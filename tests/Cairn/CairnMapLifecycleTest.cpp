// The life of a map: which backend it serves from when, and what init,
// detach, controlDetach and cleanupAndDetach do and refuse.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <typeinfo>

#include "Cairn/MapFrontTesting.h"
#include "Cairn/ScopedEnvironment.h"
#include "Support/TraceCapture.h"

using namespace MapFrontTest;
using Cairn::CairnType;

namespace {

class CairnMapLifecycleTest : public ::testing::Test {
 protected:
  CairnMapLifecycleTest() : map("test/map", log.callbacks()) {}

  std::string directory() const { return root.path() + "/test/map"; }
  bool hasFile(const std::string & name) const { return std::filesystem::exists(directory() + "/" + name); }

  CairnTest::ScopedShmRoot root;
  CallbackLog log;
  TestMap map;
};

// ---- Before init ----

TEST_F(CairnMapLifecycleTest, NamedMapServesFromItsTmpUnmounted) {
  EXPECT_TRUE(isA<TmpWriter>(map.backend()));
  EXPECT_EQ(map.mountStatus(), 0u);
  EXPECT_EQ(map.mounter(), nullptr);
  EXPECT_FALSE(map.initialized());
  EXPECT_FALSE(map.exists());
  EXPECT_EQ(map.shortName(), "map");
  EXPECT_EQ(map.path(), "test/map");
  EXPECT_EQ(map.debugHandler().name(), Cairn::CairnMapBase::TempHandlerName);
  EXPECT_TRUE(log.calls.empty());
  // The Tmp is a table of its own, in private memory.
  EXPECT_EQ(map.maxSize(), Map::DefaultLocalSlots);
  map.safeWrite(Value(3, 1), true);
  bool found = false;
  map.safeLookup(Key{3}, found);
  EXPECT_TRUE(found);
  EXPECT_FALSE(std::filesystem::exists(directory()));
}

TEST_F(CairnMapLifecycleTest, PlacedMapGetsAFreshTmpAndLosesWhatWasWritten) {
  map.safeWrite(Value(3, 1), true);
  map.pathIs("parent/test/map");
  map.resetToDefaultLocalWriter();
  EXPECT_TRUE(isA<TmpWriter>(map.backend()));
  EXPECT_EQ(map.name(), "parent/test/map");
  EXPECT_EQ(map.mountStatus(), 0u);
  bool found = true;
  map.safeLookup(Key{3}, found);
  EXPECT_FALSE(found);
  EXPECT_TRUE(log.calls.empty());
}

TEST_F(CairnMapLifecycleTest, DefaultLocalWriterIsAnInitialisedTmpOfOneHundredSlots) {
  std::unique_ptr<TmpWriter> tmp(map.createDefaultLocalWriter(map.debugHandler()));
  EXPECT_TRUE(tmp->initialized());
  EXPECT_EQ(tmp->mountStatus(), 0u);
  EXPECT_EQ(tmp->maxSize(), 100u);
  EXPECT_EQ(tmp->cairnName(), "test/map");
  EXPECT_FALSE(tmp->rootPath().shared());
}

// ---- init: the rows of the state table ----

TEST_F(CairnMapLifecycleTest, InitLocalGivesAPrivateWriterAndTheWriterCallbacks) {
  Cairn::MapDescriptor descriptor(50);
  map.init(descriptor);
  EXPECT_TRUE(isA<Writer>(map.backend()));
  EXPECT_FALSE(isA<TmpWriter>(map.backend()));
  EXPECT_EQ(map.mountStatus(), 1u);
  EXPECT_EQ(map.mounter(), nullptr);
  EXPECT_TRUE(map.initialized());
  EXPECT_EQ(map.maxSize(), 50u);
  EXPECT_TRUE(map.exists());
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:true", "mountStatus"}));
  EXPECT_FALSE(std::filesystem::exists(directory()));
}

TEST_F(CairnMapLifecycleTest, InitWriterGivesASharedWriterWithAWriterSentry) {
  map.init(descriptorOf(CairnType::writer));
  EXPECT_TRUE(isA<Writer>(map.backend()));
  EXPECT_FALSE(isA<TmpWriter>(map.backend()));
  EXPECT_EQ(map.mountStatus(), 1u);
  EXPECT_NE(dynamic_cast<Arena::WriterSentry *>(map.mounter()), nullptr);
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:true", "mountStatus"}));
  EXPECT_TRUE(hasFile("slots"));
  EXPECT_TRUE(map.exists());
  EXPECT_FALSE(map.epochId().none());
}

TEST_F(CairnMapLifecycleTest, InitReaderShadowOrKeyshadowGivesADummyWithAReaderSentry) {
  for (CairnType mode : {CairnType::reader, CairnType::shadow, CairnType::keyshadow}) {
    CallbackLog remoteLog;
    TestMap remote("test/remote", remoteLog.callbacks());
    remote.init(descriptorOf(mode));
    EXPECT_TRUE(isA<Dummy>(remote.backend())) << Cairn::toString(mode);
    EXPECT_EQ(remote.mountStatus(), 0u);
    EXPECT_NE(dynamic_cast<Arena::ReaderSentry *>(remote.mounter()), nullptr);
    EXPECT_TRUE(remote.initialized());
    EXPECT_TRUE(remoteLog.calls.empty()) << "attach makes these calls, not init";
    EXPECT_FALSE(remote.exists());
  }
}

// ---- init: its refusals and rules ----

TEST_F(CairnMapLifecycleTest, SecondInitWithAnEqualDescriptorChangesNothing) {
  map.init(descriptorOf(CairnType::writer));
  const Interface * backend = map.backend();
  const Arena::Sentry * mounter = map.mounter();
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  map.init(descriptorOf(CairnType::writer));
  EXPECT_EQ(map.backend(), backend);
  EXPECT_EQ(map.mounter(), mounter);
  EXPECT_EQ(log.calls.size(), 2u);
  EXPECT_TRUE(traces.contains("L1 CairnMap::init() name:test/map already initialized, new " +
                              descriptorOf(CairnType::writer).toString()));
}

TEST_F(CairnMapLifecycleTest, SecondInitWithAnotherDescriptorRaisesShowingBoth) {
  const auto first = descriptorOf(CairnType::writer, 64);
  const auto second = descriptorOf(CairnType::writer, 128);
  map.init(first);
  const std::string message = messageOf<Basalt::InvalidInitializeException>([&] { map.init(second); });
  EXPECT_EQ(message, "CairnMap::init() name:test/map already initialized, old " + first.toString() + ", new " +
                         second.toString());
  EXPECT_NE(message.find("maxSlots:64"), std::string::npos);
  EXPECT_NE(message.find("maxSlots:128"), std::string::npos);
  EXPECT_EQ(map.maxSize(), 64u);
}

TEST_F(CairnMapLifecycleTest, HeapWithoutLocalMemRaisesBeforeAnythingIsTouched) {
  auto descriptor = descriptorOf(CairnType::writer);
  descriptor.useHeap = true;
  const Interface * tmp = map.backend();
  const std::string message =
      messageOf<Basalt::InvalidInitializeException>([&] { map.init(descriptor); });
  EXPECT_EQ(message,
            "CairnMap::init() cannot initialize collection test/map heap allocation in non-local mode not allowed");
  EXPECT_EQ(map.backend(), tmp);
  EXPECT_TRUE(isA<TmpWriter>(map.backend()));
  EXPECT_FALSE(map.initialized());
  EXPECT_EQ(map.debugHandler().name(), Cairn::CairnMapBase::TempHandlerName);
  EXPECT_FALSE(std::filesystem::exists(directory()));
  // The same with local memory is a table on the heap.
  descriptor.localMem = true;
  map.init(descriptor);
  EXPECT_TRUE(isA<Writer>(map.backend()));
}

TEST_F(CairnMapLifecycleTest, ZeroSlotsAreRefusedToAWriterOnly) {
  const std::string message = messageOf<Basalt::InvalidInitializeException>(
      [&] { map.init(descriptorOf(CairnType::writer, 0)); });
  EXPECT_EQ(message, "CairnMap::init() 0 is not a valid initialization size for collection test/map in writer mode");
  EXPECT_TRUE(isA<TmpWriter>(map.backend()));
  TestMap reader("test/reader");
  EXPECT_NO_THROW(reader.init(descriptorOf(CairnType::reader, 0)));
  EXPECT_TRUE(isA<Dummy>(reader.backend()));
}

TEST_F(CairnMapLifecycleTest, LocalReaderIsServedByAWriterWithoutSentry) {
  auto descriptor = descriptorOf(CairnType::reader);
  descriptor.localMem = true;
  map.init(descriptor);
  EXPECT_TRUE(isA<Writer>(map.backend()));
  EXPECT_FALSE(isA<TmpWriter>(map.backend()));
  EXPECT_EQ(map.mounter(), nullptr);
  EXPECT_EQ(map.mountStatus(), 1u);
  EXPECT_TRUE(log.calls.empty()) << "the writer callbacks of init are a writer mode's";
  EXPECT_FALSE(map.readerFullyAttached());
}

TEST_F(CairnMapLifecycleTest, InitStoresTheDescriptorAndTakesTheTableHandler) {
  auto descriptor = descriptorOf(CairnType::writer, 300);
  descriptor.shrinkSlots = true;
  descriptor.assertOnOrphanAccess = true;
  map.init(descriptor);
  EXPECT_EQ(map.descriptor(), descriptor);
  EXPECT_EQ(map.mode(), CairnType::writer);
  EXPECT_FALSE(map.localMem());
  EXPECT_EQ(map.traceName(), "test.map");
  EXPECT_EQ(map.debugHandler().name(), "test.map");
  EXPECT_EQ(&map.debugHandler(), Basalt::Platform::getDebugHandler("test.map").get());
  EXPECT_EQ(map.modeStr(), "writer");
}

TEST_F(CairnMapLifecycleTest, InitOfAnotherKindOfDescriptorIsABadCast) {
  struct OtherDescriptor : Arena::CollectionDescriptor {};
  EXPECT_THROW(map.init(OtherDescriptor()), std::bad_cast);
  EXPECT_TRUE(isA<TmpWriter>(map.backend()));
}

TEST_F(CairnMapLifecycleTest, InitOfAnOrphanThatAssertsIsRefused) {
  map.orphanAssertIs(true);
  EXPECT_EQ(assertionText([&] { map.init(descriptorOf(CairnType::writer)); }),
            "Re-initializing a collection that has already become an orphan and has assertOnOrphanAccess set");
  EXPECT_FALSE(map.initialized());
}

TEST_F(CairnMapLifecycleTest, CleanupBeforeInitCleansTheCurrentBackendEvenWhenInitialised) {
  map.init(descriptorOf(CairnType::writer));
  ASSERT_TRUE(hasFile("slots"));
  auto descriptor = descriptorOf(CairnType::writer);
  descriptor.cleanupBeforeInit = true;
  // A different descriptor: the cleanup comes before the test that refuses it.
  EXPECT_THROW(map.init(descriptor), Basalt::InvalidInitializeException);
  EXPECT_FALSE(hasFile("slots"));
  EXPECT_FALSE(hasFile(ArenaFiles::EpochFile::EPOCH_NAME));
}

TEST_F(CairnMapLifecycleTest, AsynchronousShadowSuppressesKeyNotificationsAtInit) {
  map.init(descriptorOf(CairnType::shadow));
  EXPECT_FALSE(map.keyNotifications());
  // The real callbacks wait in the saved places; the active ones are silent.
  map.keyCallback()(Key{4});
  map.savedKeyCallback()(Key{5});
  map.savedValueCallback()(Value(6, 0));
  map.savedDeleteCallback()(Key{7});
  EXPECT_EQ(log.calls, (std::vector<std::string>{"key:5", "value:6", "delete:7"}));
}

TEST_F(CairnMapLifecycleTest, SynchronousOrLocalShadowAndReaderKeepKeyNotifications) {
  auto synchronous = descriptorOf(CairnType::keyshadow);
  synchronous.synchronous = true;
  map.init(synchronous);
  EXPECT_TRUE(map.keyNotifications());
  TestMap local("test/local");
  auto localShadow = descriptorOf(CairnType::shadow);
  localShadow.localMem = true;
  local.init(localShadow);
  EXPECT_TRUE(local.keyNotifications());
  TestMap reader("test/reader");
  reader.init(descriptorOf(CairnType::reader));
  EXPECT_TRUE(reader.keyNotifications());
}

TEST_F(CairnMapLifecycleTest, AsynchronousShadowWithNotificationsOffIsAnAssertion) {
  map.notifyingIs(false);
  EXPECT_EQ(assertionText([&] { map.init(descriptorOf(CairnType::keyshadow)); }),
            "CairnMap::init() notifications unexpectedly disabled prior  to initialization with asynchronous mode");
}

TEST_F(CairnMapLifecycleTest, RemoteModeOutsideTheTableIsAnAssertion) {
  EXPECT_EQ(assertionText([&] { map.init(descriptorOf(static_cast<CairnType>(7))); }),
            "CairnMap::init() not a valid reader type:");
}

TEST_F(CairnMapLifecycleTest, ReaderSentryThatCannotWatchFailsInitUnlessInAChroot) {
  // A base directory that is a file: no table under it can ever be watched.
  const std::string file = root.path() + "/not-a-directory";
  std::ofstream(file) << "x";
  CairnTesting::ScopedEnvironment base(Cairn::RootPath::baseVariable, file);
  {
    CairnTesting::ScopedEnvironment chroot(Map::ChrootVariable, std::nullopt);
    TestMap reader("test/reader");
    EXPECT_THROW(reader.init(descriptorOf(CairnType::reader)), Basalt::InvalidInitializeException);
    EXPECT_FALSE(reader.initialized());
  }
  CairnTesting::ScopedEnvironment chroot(Map::ChrootVariable, "1");
  TestMap reader("test/reader");
  EXPECT_NO_THROW(reader.init(descriptorOf(CairnType::reader)));
  EXPECT_TRUE(reader.initialized());
  EXPECT_TRUE(isA<Dummy>(reader.backend()));
  EXPECT_EQ(reader.mounter(), nullptr);
}

// ---- detach, controlDetach, cleanupAndDetach ----

TEST_F(CairnMapLifecycleTest, DetachedWriterAnswersFromADummyAndTellsTheControl) {
  map.init(descriptorOf(CairnType::writer));
  map.safeWrite(Value(9, 2), true);
  log.calls.clear();
  const Interface * writer = map.backend();
  map.detach(false);
  ASSERT_TRUE(isA<Dummy>(map.backend()));
  EXPECT_EQ(static_cast<Dummy *>(map.backend())->previous(), writer);
  EXPECT_EQ(map.mountStatus(), 0u);
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:false", "mountStatus"}));
  bool found = true;
  Value out(1, 1);
  EXPECT_EQ(*map.safeLookup(Key{9}, found, &out), Value());
  EXPECT_FALSE(found);
  EXPECT_EQ(map.capacity(), 0u);
  EXPECT_NE(map.mounter(), nullptr) << "detach keeps the sentry";
  EXPECT_TRUE(map.initialized());
  EXPECT_TRUE(hasFile("slots")) << "a detach leaves the files to the next writer";
}

TEST_F(CairnMapLifecycleTest, DetachOfAnOrphanThatAssertsGivesAStrictDummy) {
  map.init(descriptorOf(CairnType::writer));
  log.calls.clear();
  map.orphanAssertIs(true);
  map.detach(true);
  ASSERT_TRUE(isA<StrictDummy>(map.backend()));
  EXPECT_EQ(static_cast<StrictDummy *>(map.backend())->message(), Map::OrphanMessage);
  EXPECT_EQ(map.mountStatus(), 0u);
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:false", "mountStatus"}));
  bool found = false;
  EXPECT_EQ(assertionText([&] { map.safeLookup(Key{1}, found); }),
            "CairnStrictDummy::lookup() invoked, name:test/map rootpath:" + directory() + " key:1" +
                Map::OrphanMessage);
}

TEST_F(CairnMapLifecycleTest, DetachOfABackendWhoseFlushIsPendingKeepsItAndHoldsTheSentryBack) {
  map.init(descriptorOf(CairnType::shadow));
  auto * shadow = new FakeReader(map.debugHandler(), "test/map", map.ops(), CairnType::shadow);
  map.backendIs(shadow);
  shadow->flushPending = true;
  log.calls.clear();
  map.detach(false);
  EXPECT_EQ(map.backend(), shadow);
  EXPECT_EQ(shadow->detaches, 1);
  EXPECT_EQ(map.mountStatus(), 3u);
  EXPECT_FALSE(map.mounter()->attached());
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:false", "mountStatus"}));
  // Without a sentry to hold back, the same backend gives way to a dummy.
  TestMap unwatched("test/unwatched");
  auto * lone = new FakeReader(unwatched.debugHandler(), "test/unwatched", unwatched.ops(), CairnType::shadow);
  unwatched.backendIs(lone);
  lone->flushPending = true;
  unwatched.detach(false);
  EXPECT_TRUE(isA<Dummy>(unwatched.backend()));
}

TEST_F(CairnMapLifecycleTest, ControlDetachDropsTheSentryAndAllowsANewInit) {
  map.init(descriptorOf(CairnType::writer));
  log.calls.clear();
  map.controlDetach();
  EXPECT_TRUE(isA<Dummy>(map.backend()));
  EXPECT_EQ(map.mountStatus(), 0u);
  EXPECT_EQ(map.mounter(), nullptr);
  EXPECT_FALSE(map.initialized());
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:false", "mountStatus"}));
  EXPECT_TRUE(hasFile("slots"));
  map.init(descriptorOf(CairnType::writer, 128));
  EXPECT_TRUE(isA<Writer>(map.backend()));
  EXPECT_EQ(map.mountStatus(), 1u);
}

TEST_F(CairnMapLifecycleTest, CleanupAndDetachErasesTheTable) {
  map.init(descriptorOf(CairnType::writer));
  map.safeWrite(Value(9, 2), true);
  log.calls.clear();
  map.cleanupAndDetach();
  EXPECT_TRUE(isA<Dummy>(map.backend()));
  EXPECT_EQ(map.mountStatus(), 0u);
  EXPECT_EQ(map.mounter(), nullptr);
  EXPECT_FALSE(map.initialized());
  EXPECT_EQ(log.calls, (std::vector<std::string>{"quiesced:false", "mountStatus"}));
  EXPECT_FALSE(std::filesystem::exists(directory()));
}

TEST_F(CairnMapLifecycleTest, CleanupAndDetachOfAnUninitialisedMapIsAnAssertion) {
  EXPECT_EQ(assertionText([&] { map.cleanupAndDetach(); }),
            "CairnMap::cleanupAndDetach() " + directory() + " trying to cleanup uninitialized cairn.");
}

TEST_F(CairnMapLifecycleTest, CleanupReachesTheBackendADummyReplaced) {
  map.init(descriptorOf(CairnType::writer));
  map.detach(false);
  ASSERT_TRUE(hasFile("slots"));
  map.cleanup();
  EXPECT_FALSE(hasFile("slots"));
}

TEST_F(CairnMapLifecycleTest, LifeTracesNameTheTable) {
  map.init(descriptorOf(CairnType::writer));
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  map.cleanupAndDetach();
  EXPECT_TRUE(traces.contains("L5 CairnMap::cleanupAndDetach() " + directory()));
  EXPECT_TRUE(traces.contains("L5 CairnMap::cleanup() " + directory()));
  EXPECT_TRUE(traces.contains("L1 CairnMap::detach() " + directory()));
}

TEST_F(CairnMapLifecycleTest, DestructorTracesAndDeletesTheBackend) {
  TestSupport::TraceCapture traces;
  {
    TestMap doomed("test/doomed");
    doomed.init(descriptorOf(CairnType::writer));
    Basalt::Platform::getDebugHandler("test.doomed")->levelIs(2, true);
  }
  EXPECT_TRUE(traces.contains("L2 CairnMap::~CairnMap() deleting state"));
  Basalt::Platform::getDebugHandler("test.doomed")->levelIs(2, false);
}

// ---- owner ----

TEST_F(CairnMapLifecycleTest, OwnerIsTheLiveWriterAndItsPid) {
  map.init(descriptorOf(CairnType::writer));
  TestMap reader("test/map");
  reader.init(descriptorOf(CairnType::reader));
  const std::string socketName =
      ArenaFiles::OwnerFile(map.debugHandler(), directory(), false).doorbellInfo().socketName();
  std::string ownerText;
  ASSERT_TRUE(Arena::WriterLock::ownerIsAlive(map.debugHandler(), socketName, ownerText));
  EXPECT_EQ(reader.owner(), ownerText + ":" + std::to_string(getpid()));
  EXPECT_EQ(map.owner(), ownerText + ":" + std::to_string(getpid()));
}

TEST_F(CairnMapLifecycleTest, OwnerOfATableWithoutWriterIsNone) {
  map.init(descriptorOf(CairnType::reader));
  EXPECT_EQ(map.owner(), "none:0");
}

TEST_F(CairnMapLifecycleTest, OwnerOfAnUnreadableOwnerFileIsZeroAndTraced) {
  map.init(descriptorOf(CairnType::reader));
  std::filesystem::create_directories(directory());
  std::ofstream(directory() + "/" + ArenaFiles::OwnerFile::FILENAME) << "not an owner record";
  TestSupport::TraceCapture traces;
  ScopedMask mask("test.map", Levels0125);
  EXPECT_EQ(map.owner(), ":0");
  EXPECT_TRUE(traces.contains("L1 CairnMap::owner() corruption detected: "));
}

}  // namespace
