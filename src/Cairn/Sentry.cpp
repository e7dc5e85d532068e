#include "Cairn/Sentry.h"

#include "Arena/WriterLock.h"
#include "ArenaFiles/EpochFile.h"
#include "ArenaFiles/OwnerFile.h"
#include "Basalt/Exception.h"

namespace Cairn {

Arena::ReaderSentry::View probeTable(Basalt::Platform::DebugHandler & handler, const std::string & directory) {
  using State = Arena::ReaderSentry::TableState;
  Arena::ReaderSentry::View view;
  view.epochId = ArenaFiles::EpochFile(handler, directory, false).read();
  if (view.epochId.none()) {
    view.state = State::Absent;
    view.owner = "none";
    return view;
  }
  try {
    const ArenaFiles::DoorbellInfo info = ArenaFiles::OwnerFile(handler, directory, false).doorbellInfo();
    const bool alive = Arena::WriterLock::ownerIsAlive(handler, info.socketName(), view.owner);
    view.state = alive ? State::Ready : State::Orphaned;
  } catch (const Basalt::CorruptionDetectedException &) {
    view.state = State::Orphaned;
    view.owner = "unknown";
  }
  return view;
}

}  // namespace Cairn
