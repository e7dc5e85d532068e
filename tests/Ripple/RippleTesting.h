#pragma once
// What the queue's tests share: a fresh directory per queue, a writer with
// its counters and a notifiee that records its callbacks, raw access to the
// files, and a reading of the current table as the invariants see it.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "ArenaFiles/EpochId.h"
#include "Basalt/DebugHandler.h"
#include "Ripple/RippleReader.h"
#include "Ripple/RippleWriter.h"
#include "Support/TempDir.h"

namespace RippleTest {

inline const ArenaFiles::EpochId epochA = ArenaFiles::EpochId::of(0, 4321);
inline const ArenaFiles::EpochId epochB = ArenaFiles::EpochId::of(1, 4321);
// Larger than any slot the tests notify: validate's mostSlots.
constexpr uint32_t mostSlots = 1u << 20;

class RecordingNotifiee : public Ripple::RippleWriterNotifiee {
 public:
  void shrink() override { ++shrinks; }
  void handleQuiesced(bool quiesced) override { reports.push_back(quiesced); }
  uint32_t slotCount() const override { return slots; }

  int shrinks = 0;
  std::vector<bool> reports;
  uint32_t slots = mostSlots;  // no slot given back, unless a test says so
};

// Trace levels 0 and 1: failures and the events of a queue's life.
constexpr uint32_t eventTraces = 0x3;

// A writer of the queue in `directory`, attached to it under `epoch`, its
// traces on the levels of `traceMask`.
struct WriterFixture {
  explicit WriterFixture(const std::string & directory, Ripple::PruneMode mode = Ripple::PruneMode::Balanced,
                         ArenaFiles::EpochId epoch = epochA, bool localMem = false,
                         uint32_t traceMask = Basalt::Platform::DebugHandler::defaultMask())
      : writer(handler, directory, counters, localMem, mode, &notifiee) {
    handler.maskIs(traceMask);
    attachResult = writer.attach(epoch);
  }

  Basalt::Platform::DebugHandler handler{"ripple-writer"};
  Ripple::Writer::Counters counters;
  RecordingNotifiee notifiee;
  Ripple::RippleWriter writer;
  int attachResult = 0;
};

// A reader of the queue in `directory`, not yet attached, tracing the flow of
// its operations (level 5).
struct ReaderFixture {
  explicit ReaderFixture(const std::string & directory) : reader(handler, directory, &counters) {
    handler.levelIs(5, true);
  }

  Basalt::Platform::DebugHandler handler{"ripple-reader"};
  Ripple::Reader::Counters counters;
  Ripple::RippleReader reader;
};

// A fresh directory with the path of one table's directory inside it (not
// yet created: the writer makes it).
class QueueTest : public ::testing::Test {
 protected:
  std::string file(const char * name) const { return directory + "/" + name; }

  TestSupport::TempDir temp;
  std::string directory = temp.path() + "/agent/table";
};

inline std::vector<unsigned char> readFile(const std::string & path) {
  std::ifstream stream(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(stream), {});
}

// Overwrites `bytes.size()` bytes of the file at `offset`, as damage would.
inline void patchFile(const std::string & path, std::size_t offset,
                      const std::vector<unsigned char> & bytes) {
  std::fstream stream(path, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(static_cast<std::streamoff>(offset));
  stream.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

template <typename T>
void patchValue(const std::string & path, std::size_t offset, T value) {
  std::vector<unsigned char> bytes(sizeof(T));
  std::memcpy(bytes.data(), &value, sizeof(T));
  patchFile(path, offset, bytes);
}

template <typename T>
T at(const std::vector<unsigned char> & bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

// The live entries of the writer's current table outside the corral, slot
// to sequence, gaps left out; a slot met twice is an error of the test.
inline std::map<uint32_t, uint64_t> liveEntries(const Ripple::RippleWriter & writer) {
  std::map<uint32_t, uint64_t> live;
  for (uint32_t position = 0; position < writer.size(); ++position) {
    const Ripple::Notification entry = writer.entry(position);
    const uint64_t start = writer.corralStart();
    const bool inCorral = start != 0 && entry.sequence() >= start &&
                          (writer.corralEnd() == 0 || entry.sequence() <= writer.corralEnd());
    if (entry.slot == Ripple::RIPPLE_TOMBSTONED || entry.slot == Ripple::RIPPLE_GAP || inCorral) {
      continue;
    }
    EXPECT_TRUE(live.emplace(entry.slot, entry.sequence()).second)
        << "slot " << entry.slot << " has a second live entry at pos " << position;
    EXPECT_EQ(writer.positionOf(entry.slot), position) << "slot " << entry.slot;
  }
  return live;
}

// Reads every live entry the reader has now, applying each (recording its
// sequence as a consumer does); returns the slots in the order met.
inline std::vector<uint32_t> drain(Ripple::RippleReader & reader) {
  std::vector<uint32_t> slots;
  Ripple::Notification entry{};
  while (reader.nextEntry(entry)) {
    slots.push_back(entry.slot);
    reader.counters()->sequence = entry.sequence();
  }
  return slots;
}

}  // namespace RippleTest
