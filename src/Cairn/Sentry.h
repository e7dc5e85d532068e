#pragma once
// What a reader sentry (Arena/ReaderSentry.h) needs to know of a table's
// files, read from them as any process may read them:
//
//   Absent    the epoch file holds no generation: no writer has finished
//             formatting the table (a writer records the generation last,
//             once the files are sound and owned), or the table's files
//             have been removed.
//   Ready     a generation, and the owner file names a live writer.
//   Orphaned  a generation, and the owner file names no writer, a dead one,
//             or can't be read (its record is being rewritten, or damaged).
//
// The view's owner is the text of Arena::WriterLock::ownerIsAlive: the
// writer's command name, "none", "dead" or "unknown".

#include <string>

#include "Arena/ReaderSentry.h"
#include "Basalt/DebugHandler.h"

namespace Cairn {

Arena::ReaderSentry::View probeTable(Basalt::Platform::DebugHandler & handler, const std::string & directory);

}  // namespace Cairn
