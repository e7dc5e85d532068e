#include <gtest/gtest.h>

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Beacon/Writer.h"

namespace {

using Counters = std::vector<std::pair<std::string, uint64_t>>;

}  // namespace

// Invariant 1: one counter per name.

TEST(BeaconWriter, TheSameNameGivesTheSameCounter) {
  Beacon::Writer writer;
  uint64_t * first = writer.counter("tableIs");
  uint64_t * second = writer.counter(std::string("table") + "Is");
  EXPECT_EQ(first, second);
  EXPECT_NE(writer.counter("tableDel"), first);
}

TEST(BeaconWriter, ACounterStartsAtZeroAndReadsByName) {
  Beacon::Writer writer;
  uint64_t * counter = writer.counter("tableNotify");
  EXPECT_EQ(*counter, 0u);
  ++*counter;
  ++*counter;
  EXPECT_EQ(writer.value("tableNotify"), 2u);
  *counter += 40;
  EXPECT_EQ(writer.value("tableNotify"), 42u);
}

TEST(BeaconWriter, AnUnknownNameReadsZeroAndMakesNoCounter) {
  Beacon::Writer writer;
  EXPECT_EQ(writer.value("never"), 0u);
  EXPECT_TRUE(writer.counters().empty());
}

TEST(BeaconWriter, CountersListsEveryNameInOrderWithItsValue) {
  Beacon::Writer writer;
  *writer.counter("tableNotify") = 3;
  *writer.counter("tableDel") = 2;
  *writer.counter("tableIs") = 1;
  writer.counter("idle");
  EXPECT_EQ(writer.counters(), (Counters{{"idle", 0}, {"tableDel", 2}, {"tableIs", 1}, {"tableNotify", 3}}));
}

TEST(BeaconWriter, NamesAreExactTexts) {
  Beacon::Writer writer;
  EXPECT_NE(writer.counter("tableIs"), writer.counter("tableis"));
  EXPECT_NE(writer.counter("tableIs"), writer.counter("tableIs "));
  EXPECT_NE(writer.counter(""), writer.counter("tableIs"));
  EXPECT_EQ(writer.counters().size(), 4u);
}

// Invariant 2: addresses never move.

TEST(BeaconWriter, AddressesAndValuesStayAfterThousandsOfOtherNames) {
  Beacon::Writer writer;
  std::vector<uint64_t *> early;
  for (int i = 0; i < 10; ++i) {
    early.push_back(writer.counter(fmt::format("early{}", i)));
    *early.back() = 1000 + i;
  }
  for (int i = 0; i < 20000; ++i) {
    ++*writer.counter(fmt::format("other{:05}", i));
  }
  for (int i = 0; i < 10; ++i) {
    const std::string name = fmt::format("early{}", i);
    EXPECT_EQ(writer.counter(name), early[i]) << name;
    EXPECT_EQ(*early[i], 1000u + i) << name;
    ++*early[i];
    EXPECT_EQ(writer.value(name), 1001u + i) << name;
  }
  EXPECT_EQ(writer.value("other12345"), 1u);
  EXPECT_EQ(writer.counters().size(), 20010u);
}

// Invariant 3: registration from several threads.

TEST(BeaconWriter, ThreadsAskingForTheSameNamesGetTheSameCounters) {
  Beacon::Writer writer;
  constexpr int threadCount = 4;
  constexpr int names = 500;
  std::vector<std::vector<uint64_t *>> seen(threadCount);
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([&writer, &seen, t] {
      for (int i = 0; i < names; ++i) {
        // Each thread walks the names from its own starting point.
        const int which = (i + t * names / threadCount) % names;
        seen[t].push_back(writer.counter(fmt::format("shared{}", which)));
        writer.counter(fmt::format("thread{}-{}", t, i));
      }
    });
  }
  for (auto & thread : threads) {
    thread.join();
  }
  for (int t = 0; t < threadCount; ++t) {
    for (int i = 0; i < names; ++i) {
      const int which = (i + t * names / threadCount) % names;
      ASSERT_EQ(seen[t][i], writer.counter(fmt::format("shared{}", which))) << "thread " << t << " name " << which;
    }
  }
  EXPECT_EQ(writer.counters().size(), static_cast<size_t>(names + threadCount * names));
}

TEST(BeaconWriter, AReaderOnAnotherThreadSeesTheCountersEnd) {
  Beacon::Writer writer;
  uint64_t * counter = writer.counter("tableIs");
  std::thread owner([counter] {
    for (int i = 0; i < 100000; ++i) {
      ++*counter;
    }
  });
  owner.join();
  EXPECT_EQ(writer.value("tableIs"), 100000u);
}

// The process's writer.

TEST(BeaconWriter, TheProcessHasOneWriter) {
  EXPECT_EQ(&Beacon::writer(), &Beacon::writer());
  uint64_t * counter = Beacon::writer().counter("BeaconWriterTest.process");
  ++*counter;
  EXPECT_EQ(Beacon::writer().counter("BeaconWriterTest.process"), counter);
  EXPECT_EQ(Beacon::writer().value("BeaconWriterTest.process"), 1u);
  uint64_t * fromThread = nullptr;
  std::thread([&fromThread] { fromThread = Beacon::writer().counter("BeaconWriterTest.process"); }).join();
  EXPECT_EQ(fromThread, counter);
}
