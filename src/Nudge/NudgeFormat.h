#pragma once
// The wire format of the wake-up sockets, shared by WriterNudgeSm,
// ReaderNudgeSm and DoorbellAcceptSm (the whole protocol: docs/NUDGE.md).
//
// Every message is one SOCK_SEQPACKET record of exactly 24 bytes, in the
// host's byte order (both ends are on the same machine):
//
//   offset  size  field
//        0     4  magic     NudgeMagic, "NUDG"
//        4     2  version   NudgeVersion
//        6     2  kind      Hello, Sleep or Wake
//        8     4  tableId   the table the connection belongs to
//       12     4  reserved  0
//       16     8  sequence  see the kinds
//
// Invariants of a connection:
// 1. A reader's first message is its Hello, and it sends exactly one.
// 2. Readers send Hello and Sleep; the writer sends Wake only.
// 3. Every message names the connection's table.
// 4. The writer sends a Wake only to a reader that sleeps, and the Wake ends
//    the sleep: a reader that reads its socket has at most one Wake waiting.
// A message that breaks any of these, or the layout, ends the connection.

#include <cstddef>
#include <cstdint>
#include <string>

namespace Nudge {

constexpr uint32_t NudgeMagic = 0x4744554E;  // the bytes "NUDG" in memory
constexpr uint16_t NudgeVersion = 1;

enum class Kind : uint16_t {
  // Reader to writer, first: "I follow table tableId and have applied
  // everything up to sequence." The reader is awake.
  Hello = 1,
  // Reader to writer: "I have applied everything up to sequence; wake me
  // when there is more." The reader sleeps.
  Sleep = 2,
  // Writer to a sleeping reader: "the latest sequence is sequence."
  Wake = 3,
};

struct Message {
  uint32_t magic;
  uint16_t version;
  uint16_t kind;
  uint32_t tableId;
  uint32_t reserved;
  uint64_t sequence;
};

static_assert(sizeof(Message) == 24, "a message is one 24-byte record on the wire: docs/NUDGE.md");
static_assert(offsetof(Message, tableId) == 8, "the layout is fixed by docs/NUDGE.md");
static_assert(offsetof(Message, sequence) == 16, "the sequence is an aligned 64-bit word");

Message makeMessage(Kind kind, uint32_t tableId, uint64_t sequence);

// What is wrong with the layout of `message` (magic, version, kind,
// reserved), or "" if nothing is. Which kinds may come when is the
// receiver's to check.
std::string layoutProblem(const Message & message);

// "hello", "sleep", "wake", or the number of an unknown kind.
std::string kindText(uint16_t kind);

}  // namespace Nudge
