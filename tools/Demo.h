#pragma once
// tessel demo: three agents of a switch at work on real tables, each in a
// process of its own, under a base directory of their own.
//
//   config agent    writes bursts of L3Iif, L3Tunnel and MyStationTcam
//                   Config entries (and removes some) through their
//                   collections, as a control plane would
//   hardware agent  shadows the three Config tables, is told of each changed
//                   key on the collections' notifiee lists, and writes the
//                   matching Status entry back (or removes it)
//   reader          mounts all six tables as a reader, checks every entry it
//                   walks, and at the end that each Status table matches its
//                   Config table
//
// Every entry carries its own check (entryHandle derived from its key and
// genId, which is the time of the config write), so a torn or stale read is
// seen wherever it happens, and the hardware agent measures the latency of
// each notification. The run prints a progress line, then a summary.

#include <cstdint>
#include <string>

namespace Demo {

struct Options {
  uint32_t keys = 4000;       // keys per table
  uint32_t bursts = 200;      // bursts of config writes, 2 ms apart
  uint32_t burstSize = 1000;  // operations per burst
  bool keep = false;          // leave the tables for tessel ls/dump/watch
};

// Runs the demo; 0 when every agent finished and the reader found every
// table consistent, 1 otherwise.
int run(const Options & options);

}  // namespace Demo
