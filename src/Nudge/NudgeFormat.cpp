#include "Nudge/NudgeFormat.h"

#include <fmt/format.h>

namespace Nudge {

Message makeMessage(Kind kind, uint32_t tableId, uint64_t sequence) {
  return Message{NudgeMagic, NudgeVersion, static_cast<uint16_t>(kind), tableId, 0, sequence};
}

std::string layoutProblem(const Message & message) {
  if (message.magic != NudgeMagic) {
    return fmt::format("bad magic:0x{:08x}", message.magic);
  }
  if (message.version != NudgeVersion) {
    return fmt::format("unknown version:{}", message.version);
  }
  if (message.kind < static_cast<uint16_t>(Kind::Hello) || message.kind > static_cast<uint16_t>(Kind::Wake)) {
    return fmt::format("unknown kind:{}", message.kind);
  }
  if (message.reserved != 0) {
    return fmt::format("reserved:{} is not 0", message.reserved);
  }
  return {};
}

std::string kindText(uint16_t kind) {
  switch (static_cast<Kind>(kind)) {
    case Kind::Hello:
      return "hello";
    case Kind::Sleep:
      return "sleep";
    case Kind::Wake:
      return "wake";
  }
  return fmt::format("kind:{}", kind);
}

}  // namespace Nudge
